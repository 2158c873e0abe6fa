// One table of everything that can stand in the configuration files, and the one way to read it.
//
// The library and its tools read through the table, and the guides are held against it. A new key
// is a row in settings.cpp, a field below or in options.h, and the place where it acts.
#ifndef RUVO_SETTINGS_H
#define RUVO_SETTINGS_H

#include <array>
#include <climits>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "options.h"

enum RedisServerType : int;
class vop_config;

// ---- Where values are kept; what a field begins with is its key's default ----

struct time_limits {
  int connect_timeout = 100;  // ms; below 1: none
  int socket_timeout = 100;   // likewise
};

struct pool_settings {
  std::optional<std::string> addresses;  // none: a default of the site
  int connect_num = 1;
  bool auto_eject_server = true;
  int server_failure_limit = 5;
  int server_retry_timeout = 30;  // seconds
  std::string password;           // empty: none
};

struct site_settings {
  time_limits limits;
  client_options options;
  std::array<pool_settings, 3> pools;  // by type, from 1
};

// ---- The table ----

enum class setting_kind { text, path, addresses, number, truth, texts };

struct setting {
  const char* section;
  std::string name;
  setting_kind kind;
  const char* unit;         // of a number; empty: none
  const char* recommended;  // for a new site, as it stands in a file; empty: the default
  int least;                // a number below is refused
  const char* meaning;
  std::variant<std::monostate, int time_limits::*, std::optional<std::string> pool_settings::*,
               int pool_settings::*, bool pool_settings::*, std::string pool_settings::*,
               bool client_options::*, int client_options::*, std::string client_options::*,
               std::vector<std::string> client_options::*>
      field;
  int pool = 0;                                  // that it belongs to, by type; 0: to none
  int line = 0;                                  // of start-up, that tells of it; 0: none
  int client_options::*needed_number = nullptr;  // without which it counts as absent

  // Calls `action` with the field of `owner`. False where the key is kept elsewhere.
  template <typename Owner, typename Action>
  bool with_field(Owner& owner, const Action& action) const {
    return std::visit(
        [&](auto pointer) {
          constexpr bool is_here = requires { owner.*pointer; };
          if constexpr (is_here) {
            action(owner.*pointer);
          }
          return is_here;
        },
        field);
  }

  // May a site switch it on? Such a key is read strictly, and follows recommended_defaults.
  bool is_option() const;
};

// In the order in which keys are read.
const std::vector<setting>& all_settings();

const char* kind_text(setting_kind kind);

// As a file would have it; empty for none.
std::string default_text(const setting& key, bool recommended_defaults = false);
std::string value_text(const setting& option, const client_options& options);

// ---- Reading ----

enum class setting_fault { no_truth, no_number, no_call_timeout };

// Told of each value that is not used, and why.
using fault_listener =
    std::function<void(const setting& key, setting_fault why, const char* value)>;

struct found_options {
  client_options options;
  std::array<bool, 3> is_told{};  // the lines of start-up that have something to tell
};

const char* find_redis_config(const vop_config& config);  // null: not there
time_limits read_time_limits(const vop_config& config);
found_options find_options(const vop_config& config, const fault_listener& refuse = {});
// A type without keys of its own has the defaults.
pool_settings read_pool_settings(const vop_config& config, RedisServerType type,
                                 const fault_listener& refuse = {});
site_settings read_site_settings(const vop_config& config);

// Nothing for what is no value of its kind.
std::optional<bool> parse_truth(const std::string& text);
std::optional<int> parse_number(const std::string& text, int least);  // digits alone
// As deployed files have them: as far as the digits go, and narrowed to 32 bits.
int parse_leading_number(const std::string& text);

// ---- Addresses ----

struct server_addr {
  std::string ip_;  // address or host name, as the configuration has it
  std::uint32_t port_ = 0;
};

constexpr std::uint32_t max_port = 65535;  // a greater one is never connected to

// Of the form ip:port, blanks around both ignored. The port is read as in C, so that 0x18eb is
// 6379 and 0100 is 64; what does not fit into 32 bits becomes one above max_port.
std::optional<server_addr> parse_address(const std::string& text);

struct address_list {
  std::vector<server_addr> servers;
  std::optional<std::string> malformed;  // the first piece that is no address
};
address_list parse_addresses(const std::string& text);

std::string to_text(const server_addr& addr);  // ip:port, as the log has it

#endif

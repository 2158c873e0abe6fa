// The table of everything that the configuration files may contain, and the only way to read it.
//
// The library and its tools read through the table, and the guides are checked against it. A new
// key is a row in settings.cpp, a field below or in options.h, and the code that uses it.
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

// ---- Where values are kept; a field's initial value is its key's default ----

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
  const char* recommended;  // for a new site, as in a file; empty: the default
  int least;                // lower bound of a number
  const char* meaning;
  std::variant<std::monostate, int time_limits::*, std::optional<std::string> pool_settings::*,
               int pool_settings::*, bool pool_settings::*, std::string pool_settings::*,
               bool client_options::*, int client_options::*, std::string client_options::*,
               std::vector<std::string> client_options::*>
      field;
  int pool = 0;                                  // number of its pool's type; 0: none
  int line = 0;                                  // start-up line that shows it; 0: none
  int client_options::*needed_number = nullptr;  // without this one it counts as absent

  // Calls `action` with the field of `owner`. False if the key is kept elsewhere.
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

  // May a site switch it on? Such a key is parsed strictly, and follows recommended_defaults.
  bool is_option() const;
};

// In the order in which keys are read.
const std::vector<setting>& all_settings();

const char* kind_text(setting_kind kind);

// As a file would contain it; empty for none.
std::string default_text(const setting& key, bool recommended_defaults = false);
std::string value_text(const setting& option, const client_options& options);

// ---- Reading ----

enum class setting_fault { no_truth, no_number, no_call_timeout };

// Called for each value that is not used, with the reason.
using fault_listener =
    std::function<void(const setting& key, setting_fault why, const char* value)>;

struct found_options {
  client_options options;
  std::array<bool, 3> has_content{};  // the start-up lines that have something to show
};

const char* find_redis_config(const vop_config& config);  // null: missing
time_limits read_time_limits(const vop_config& config);
found_options find_options(const vop_config& config, const fault_listener& refuse = {});
// A type without keys of its own has the defaults.
pool_settings read_pool_settings(const vop_config& config, RedisServerType type,
                                 const fault_listener& refuse = {});
site_settings read_site_settings(const vop_config& config);

// Nothing if the text is not a value of its kind.
std::optional<bool> parse_truth(const std::string& text);
std::optional<int> parse_number(const std::string& text, int least);  // digits alone
// As deployed files rely on: reads only as far as the digits go, and narrows to 32 bits.
int parse_leading_number(const std::string& text);

// ---- Addresses ----

struct server_addr {
  std::string ip_;  // address or host name, as the configuration has it
  std::uint32_t port_ = 0;
};

constexpr std::uint32_t max_port = 65535;  // a greater one is never connected to

// Parses ip:port; blanks around both are ignored. The port is read as in C, so that 0x18eb is 6379
// and 0100 is 64; a number that does not fit into 32 bits becomes one above max_port.
std::optional<server_addr> parse_address(const std::string& text);

struct address_list {
  std::vector<server_addr> servers;
  std::optional<std::string> malformed;  // the first piece that is no address
};
address_list parse_addresses(const std::string& text);

std::string to_text(const server_addr& addr);  // ip:port, as in the log

#endif

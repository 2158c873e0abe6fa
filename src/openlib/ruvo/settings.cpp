#include "settings.h"

#include <strings.h>

#include <charconv>
#include <cstdlib>

#include "busin_config.h"
#include "ruvo.h"
#include "sutils.h"

namespace {

using kind = setting_kind;

struct pool_keys {
  RedisServerType type;
  const char* prefix;
  const char* addresses;
};

// The temporary pool reads the p_ keys and the persistent pool the t_ keys: deployed configuration
// files rely on it.
constexpr std::array keys_of_pools{pool_keys{eTempServer, "p_", "temp_server"},
                                   pool_keys{ePersistServer, "t_", "persist_server"},
                                   pool_keys{ePersonalityServer, "ps_", "personality_server"}};

// clang-format off
std::vector<setting> make_settings() {
  using O = client_options;
  using P = pool_settings;
  constexpr const char* common = "common";
  constexpr const char* server = "server";
  constexpr const char* failover_replies = "LOADING,READONLY,MASTERDOWN,CLUSTERDOWN,NOAUTH,ERR max number of clients";
  std::vector<setting> all{
      {"redis_cfg", "redis_cfg_path", kind::path, "", "", 0, "the file with all other settings; required", {}},

      {common, "connect_timeout", kind::number, "ms", "200", INT_MIN, "opening a connection; below 1: no limit", &time_limits::connect_timeout},
      {common, "socket_timeout", kind::number, "ms", "500", INT_MIN, "each read and each write on a connection; below 1: no limit", &time_limits::socket_timeout},

      // First of the options, since it changes the defaults of the others.
      {common, "recommended_defaults", kind::truth, "", "true", 0, "the keys below have their recommended values unless the file sets them", &O::recommended_defaults},
      {common, "auto_pipelining", kind::truth, "", "true", 0, "threads that meet on a connection pipeline their commands on it", &O::auto_pipelining, 0, 1},
      {common, "eject_silent_servers", kind::truth, "", "true", 0, "a visit without a reply counts as a failure of the server", &O::eject_silent_servers, 0, 1},
      {common, "try_ejected_servers", kind::truth, "", "true", 0, "if every server is ejected, each is probed by one call at a time", &O::try_ejected_servers, 0, 1},
      {common, "log_limit", kind::number, "lines", "5", 0, "at most this many WARN and ERROR lines of one kind are written in a second; 0: all", &O::log_limit, 0, 1},
      {common, "call_timeout", kind::number, "ms", "2000", 0, "deadline of a call, with all its retries and waits; 0: none", &O::call_timeout, 0, 1},
      {common, "raw_commands_stay_in_pool", kind::truth, "", "true", 0, "a raw command fails over within its own pool only", &O::raw_commands_stay_in_pool, 0, 2},
      {common, "start_without_servers", kind::truth, "", "true", 0, "a pool starts even if none of its servers is up or accepts the password", &O::start_without_servers, 0, 2},
      {common, "failover_replies", kind::texts, "", failover_replies, 0, "an error reply that begins with one of these texts counts as no reply: the call fails over", &O::failover_replies, 0, 2},
      {common, "send_once", kind::truth, "", "", 0, "a command that is not idempotent is sent at most once", &O::send_once, 0, 2},
      {common, "wait_for_servers", kind::truth, "", "true", 0, "a call that finds no server waits until one answers or its deadline comes; needs call_timeout", &O::wait_for_servers, 0, 2, &O::call_timeout},
      {common, "stats_file", kind::path, "", "", 0, "the statistics file; %p in its path is the process id", &O::stats_file, 0, 2},
      {common, "slow_call_log", kind::number, "ms", "", 0, "a call that takes at least this long is logged at WARN; 0: none", &O::slow_call_log, 0, 2},
  };
  for (const pool_keys& pool : keys_of_pools) {
    all.push_back({common, pool.addresses, kind::addresses, "", "", 0, "its servers; if absent: the default for the host's network", &P::addresses, pool.type});
  }
  for (const setting& key : std::initializer_list<setting>{
           {server, "connect_num", kind::number, "", "", 0, "connections to each server; p_ is used for every pool, t_ and ps_ for none", &P::connect_num},
           {server, "auto_eject_server", kind::truth, "", "", 0, "a server that fails is ejected", &P::auto_eject_server},
           {server, "server_failure_limit", kind::number, "", "", INT_MIN, "failures that eject a server; negative: never", &P::server_failure_limit},
           {server, "server_retry_timeout", kind::number, "s", "", INT_MIN, "how long an ejected server is skipped; below 1: not at all", &P::server_retry_timeout},
           {server, "password", kind::text, "", "", 0, "password of the servers; t_ is used for every connection that is rebuilt", &P::password}}) {
    for (const pool_keys& pool : keys_of_pools) {
      setting& own = all.emplace_back(key);
      own.name.insert(0, pool.prefix);
      own.pool = pool.type;
    }
  }
  return all;
}
// clang-format on

std::vector<std::string> split(const std::string& text, const char* separator) {
  sp::str_arr pieces;
  sp::split_str(text.c_str(), pieces, separator);
  return pieces;
}

// False if the text is not a value of the key; the value is then unchanged.
template <typename Value>
bool store(Value& value, const std::optional<Value>& parsed) {
  value = parsed.value_or(value);
  return parsed.has_value();
}
bool parse(const setting& /*key*/, const std::string& text, bool& value) {
  return store(value, parse_truth(text));
}
bool parse(const setting& key, const std::string& text, int& value) {
  if (key.is_option()) {
    return store(value, parse_number(text, key.least));
  }
  const int number = parse_leading_number(text);
  return store(value, number < key.least ? std::nullopt : std::optional(number));
}
bool parse(const setting& /*key*/, const std::string& text, std::vector<std::string>& value) {
  value = split(text, ",");
  std::erase(value, "");
  return true;
}
template <typename Text>
bool parse(const setting& /*key*/, const std::string& text, Text& value) {
  value = text;
  return true;
}

std::string as_text(bool value) { return value ? "true" : "false"; }
std::string as_text(int value) { return std::to_string(value); }
std::string as_text(const std::string& value) { return value; }
std::string as_text(const std::optional<std::string>& value) { return value.value_or(""); }
std::string as_text(const std::vector<std::string>& value) {
  std::string all;
  for (const std::string& one : value) {
    all += (all.empty() ? "" : ",") + one;
  }
  return all;
}

const char* text_in(const vop_config& config, const setting& key) {
  return config.get_str_val(key.section, key.name.c_str());
}

// Stores the value that the file gives a key. False if it gives none, or one that is refused.
template <typename Value>
bool read(const vop_config& config, const setting& key, bool lacks_needed_number, Value& value,
          const fault_listener& refuse) {
  const char* const text = text_in(config, key);
  if (text == nullptr) {
    return false;
  }
  Value found = value;
  const bool is_of_its_kind = parse(key, text, found);
  if (is_of_its_kind && !(lacks_needed_number && found != value)) {
    value = found;
    return true;
  }
  if (refuse) {
    refuse(key,
           is_of_its_kind            ? setting_fault::no_call_timeout
           : key.kind == kind::truth ? setting_fault::no_truth
                                     : setting_fault::no_number,
           text);
  }
  return false;
}

// The fields that belong to a pool, or to none.
template <typename Owner>
Owner read_fields(const vop_config& config, int pool, const fault_listener& refuse) {
  Owner owner;
  for (const setting& key : all_settings()) {
    if (key.pool == pool) {
      key.with_field(owner, [&](auto& value) { read(config, key, false, value, refuse); });
    }
  }
  return owner;
}

}  // namespace

bool setting::is_option() const {
  client_options options;
  return with_field(options, [](auto& /*value*/) {});
}

const std::vector<setting>& all_settings() {
  static const std::vector<setting> all = make_settings();
  return all;
}

const char* kind_text(setting_kind kind) {
  constexpr std::array names{"text",         "path",        "address list",
                             "whole number", "truth value", "list of texts"};
  return names.at(static_cast<std::size_t>(kind));
}

std::string default_text(const setting& key, bool recommended_defaults) {
  if (recommended_defaults && key.is_option() && *key.recommended != '\0') {
    return key.recommended;
  }
  site_settings site;
  std::string text;
  const auto take = [&text](const auto& value) { text = as_text(value); };
  if (!key.with_field(site.limits, take) && !key.with_field(site.options, take)) {
    key.with_field(site.pools.front(), take);
  }
  return text;
}

std::string value_text(const setting& option, const client_options& options) {
  std::string text;
  option.with_field(options, [&text](const auto& value) { text = as_text(value); });
  return text;
}

const char* find_redis_config(const vop_config& config) {
  return text_in(config, all_settings().front());
}

time_limits read_time_limits(const vop_config& config) {
  return read_fields<time_limits>(config, 0, {});
}

found_options find_options(const vop_config& config, const fault_listener& refuse) {
  found_options found;
  client_options& options = found.options;
  for (const setting& key : all_settings()) {
    key.with_field(options, [&](auto& value) {
      const bool lacks_needed_number =
          key.needed_number != nullptr && options.*key.needed_number == 0;
      if (read(config, key, lacks_needed_number, value, refuse)) {
        found.has_content.at(static_cast<std::size_t>(key.line)) = true;
      } else if (options.recommended_defaults && !lacks_needed_number && *key.recommended != '\0') {
        parse(key, key.recommended, value);
      }
    });
  }
  if (options.recommended_defaults) {
    found.has_content.fill(true);
  }
  return found;
}

pool_settings read_pool_settings(const vop_config& config, RedisServerType type,
                                 const fault_listener& refuse) {
  return read_fields<pool_settings>(config, type, refuse);
}

site_settings read_site_settings(const vop_config& config) {
  site_settings site;
  site.limits = read_time_limits(config);
  site.options = find_options(config).options;
  for (const pool_keys& pool : keys_of_pools) {
    site.pools.at(static_cast<std::size_t>(pool.type) - 1) = read_pool_settings(config, pool.type);
  }
  return site;
}

std::optional<bool> parse_truth(const std::string& text) {
  if (text == "1" || strcasecmp(text.c_str(), "true") == 0) {
    return true;
  }
  if (text == "0" || strcasecmp(text.c_str(), "false") == 0) {
    return false;
  }
  return std::nullopt;
}

std::optional<int> parse_number(const std::string& text, int least) {
  int value = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && rest == end && value >= least ? std::optional(value)
                                                               : std::nullopt;
}

int parse_leading_number(const std::string& text) {
  return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

std::optional<server_addr> parse_address(const std::string& text) {
  const std::vector<std::string> parts = split(text, ":");
  if (parts.size() != 2) {
    return std::nullopt;
  }
  const long port = std::strtol(parts[1].c_str(), nullptr, 0);
  const bool fits = INT_MIN <= port && port <= UINT32_MAX;
  return server_addr{parts[0], static_cast<std::uint32_t>(fits ? port : INT_MAX)};
}

address_list parse_addresses(const std::string& text) {
  address_list list;
  for (const std::string& piece : split(text, ",")) {
    const std::optional<server_addr> addr = parse_address(piece);
    if (!addr) {
      list.malformed = piece;
      break;
    }
    list.servers.push_back(*addr);
  }
  return list;
}

std::string to_text(const server_addr& addr) {
  return addr.ip_ + ":" + std::to_string(static_cast<int>(addr.port_));
}

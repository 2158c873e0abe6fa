#include "options.h"

#include <strings.h>

#include <charconv>
#include <cstring>
#include <optional>

#include "busin_config.h"
#include "log_line.h"

namespace {

constexpr const char* common_section = "common";

std::optional<bool> read_truth(const vop_config& config, const char* key) {
  const char* text = config.get_str_val(common_section, key);
  if (text == nullptr) {
    return std::nullopt;
  }
  // The reader answers everything that is no truth value with the default.
  const bool value = config.get_bool_val(common_section, key, false);
  if (value != config.get_bool_val(common_section, key, true)) {
    RUVO_LOG(ERROR, "ruvo_redis::init | %s must be true or false: %s, left out", key, text);
    return std::nullopt;
  }
  return value;
}

std::optional<int> read_number(const vop_config& config, const char* key) {
  const char* text = config.get_str_val(common_section, key);
  if (text == nullptr) {
    return std::nullopt;
  }
  int value = 0;
  const char* const end = text + std::strlen(text);
  const auto [rest, error] = std::from_chars(text, end, value);
  if (error != std::errc() || rest != end || value < 0) {
    RUVO_LOG(ERROR, "ruvo_redis::init | %s must be a number from 0 to 2147483647: %s, left out",
             key, text);
    return std::nullopt;
  }
  return value;
}

const char* word(bool value) { return value ? "true" : "false"; }

}  // namespace

client_options read_options(const vop_config& config) {
  bool any = false;
  const auto set = [&any](auto& option, const auto& read) {
    any = any || read.has_value();
    option = read.value_or(option);
  };
  client_options options;
  set(options.auto_pipelining, read_truth(config, "auto_pipelining"));
  set(options.eject_silent_servers, read_truth(config, "eject_silent_servers"));
  set(options.try_ejected_servers, read_truth(config, "try_ejected_servers"));
  set(options.log_limit, read_number(config, "log_limit"));
  set(options.call_timeout, read_number(config, "call_timeout"));
  if (any) {
    RUVO_LOG(INFO,
             "ruvo_redis::init | auto_pipelining:%s, eject_silent_servers:%s, "
             "try_ejected_servers:%s, log_limit:%d, call_timeout:%d (ms)",
             word(options.auto_pipelining), word(options.eject_silent_servers),
             word(options.try_ejected_servers), options.log_limit, options.call_timeout);
  }
  return options;
}

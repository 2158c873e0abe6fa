#include "options.h"

#include <array>

#include "log_line.h"
#include "settings.h"

namespace {

void log_fault(const setting& key, setting_fault why, const char* value) {
  const char* const name = key.name.c_str();
  switch (why) {
    case setting_fault::no_truth:
      RUVO_LOG(ERROR, "ruvo_redis::init | %s must be true or false: %s, left out", name, value);
      break;
    case setting_fault::no_number:
      RUVO_LOG(ERROR, "ruvo_redis::init | %s must be a number from 0 to 2147483647: %s, left out",
               name, value);
      break;
    case setting_fault::no_call_timeout:
      RUVO_LOG(ERROR, "ruvo_redis::init | %s needs a call_timeout: %s, left out", name, value);
  }
}

// Logs the options of a line as deployed systems search for them.
void log_options(const client_options& options, int line) {
  std::string text;
  for (const setting& key : all_settings()) {
    if (key.line == line) {
      const std::string value = value_text(key, options);
      text += (text.empty() ? "" : ", ") + key.name + ":" + (value.empty() ? "-" : value) +
              (key.unit == std::string_view("ms") ? " (ms)" : "");
    }
  }
  RUVO_LOG(INFO, "ruvo_redis::init | %s", text.c_str());
}

}  // namespace

client_options read_options(const vop_config& config) {
  const found_options found = find_options(config, log_fault);
  for (const int line : {1, 2}) {
    if (found.has_content.at(static_cast<std::size_t>(line))) {
      log_options(found.options, line);
    }
  }
  return found.options;
}

// The command `settings`: every key that a configuration may contain.
#include "settings.h"

#include <nlohmann/json.hpp>
#include <sstream>

#include "commands.h"
#include "console.h"
#include "library.h"

namespace {

using nlohmann::json;

std::string or_dash(const std::string& text) { return text.empty() ? "-" : text; }

std::string kind_of(const setting& key) {
  return kind_text(key.kind) + (*key.unit != '\0' ? std::string(" (") + key.unit + ")" : "");
}

// The prefixes of keys do not match the names of pools.
std::string meaning_of(const setting& key) {
  return key.pool > 0 ? std::string(pool_name(key.pool)) + " pool: " + key.meaning : key.meaning;
}

// The meaning of each key is on the next line, so that the lines stay short.
std::string list_text() {
  std::vector<std::vector<std::string>> rows{{"KEY", "KIND", "DEFAULT", "RECOMMENDED"}};
  for (const setting& key : all_settings()) {
    rows.push_back({key.name, kind_of(key), or_dash(default_text(key)), or_dash(key.recommended)});
  }
  std::istringstream lines(columns(rows));
  std::string line;
  std::getline(lines, line);
  std::string text = line + "\n";
  std::string section;
  for (const setting& key : all_settings()) {
    if (section != key.section) {
      section = key.section;
      text += "\n[" + section + "]\n";
    }
    std::getline(lines, line);
    text += line + "\n    " + meaning_of(key) + "\n";
  }
  return text;
}

json list_json() {
  json keys = json::array();
  for (const setting& key : all_settings()) {
    json one{{"section", key.section},
             {"key", key.name},
             {"kind", kind_text(key.kind)},
             {"unit", key.unit},
             {"default", default_text(key)},
             {"recommended", key.recommended},
             {"set_by_recommended_defaults", key.is_option() && *key.recommended != '\0'},
             {"meaning", meaning_of(key)}};
    if (key.kind == setting_kind::number) {
      one["least"] = key.least;
      one["most"] = INT_MAX;
    }
    keys.push_back(one);
  }
  return {{"settings", keys}};
}

}  // namespace

ExitStatus list_settings(const Options& options) {
  if (options.json) {
    print_json(list_json());
  } else {
    print(list_text());
  }
  return succeeded;
}

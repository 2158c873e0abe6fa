#include "settings_review.h"

#include <ruvo/sutils.h>
#include <strings.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>

#include "configuration.h"

namespace {

constexpr std::size_t longest_line = 2047;  // bytes that the library reads as one

bool is_same(const std::string& one, const std::string& other) {
  return strcasecmp(one.c_str(), other.c_str()) == 0;
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char one) { return 'A' <= one && one <= 'Z' ? one + 32 : one; });
  return text;
}

std::string review_number(const setting& key, const std::string& value) {
  const int number = parse_leading_number(value);
  if (number < key.least) {
    return "is negative: the default, " + default_text(key) + ", is used";
  }
  if (!parse_number(value, key.least)) {
    return "is not a whole number: " + std::to_string(number) + " is used";
  }
  return number == 0 && key.name == "p_connect_num" ? "means no connections: every operation fails"
                                                    : "";
}

std::string review_address(const std::string& piece) {
  const std::optional<server_addr> addr = parse_address(piece);
  if (!addr) {
    return "'" + piece + "' is not host:port: the whole list is refused";
  }
  std::string port = piece.substr(piece.find(':') + 1);
  sp::trim_str(port);
  const std::string error = "port " + port + " of '" + piece + "' is ";
  if (addr->port_ < 1 || addr->port_ > max_port) {
    return error + "not from 1 to 65535: the library never connects to it";
  }
  const std::string read = std::to_string(addr->port_);
  return port == read ? "" : error + "read as " + read;
}

class Review {
 public:
  explicit Review(client_options options) : options_(std::move(options)) {}

  std::vector<Finding> findings;

  void read_line(std::string line);
  void compare_passwords();

 private:
  void add_finding(const std::string& text) { findings.push_back({number_, text}); }
  void begin_section(const std::string& name);
  void read_setting(const std::string& name, const std::string& value);
  void read_addresses(const setting& key, const std::string& value);
  std::string review_value(const setting& key, const std::string& value) const;

  client_options options_;  // as the library reads the whole file
  int number_ = 0;
  std::string section_;
  bool is_read_ = false;                 // does the library read this section?
  std::map<std::string, int> sections_;  // the line of each
  std::map<std::string, int> settings_;  // likewise, of this section
  std::map<std::string, std::string> passwords_;
};

void Review::begin_section(const std::string& name) {
  section_ = lower(name);
  settings_.clear();
  const bool is_known = std::ranges::any_of(
      all_settings(), [this](const setting& key) { return section_ == key.section; });
  const auto [first, is_new] = sections_.emplace(section_, number_);
  is_read_ = is_known && is_new;
  if (!is_known) {
    add_finding("the library does not read section [" + name + "]");
  } else if (!is_new) {
    add_finding("section [" + name + "] is already in line " + std::to_string(first->second) +
                ": only that one is read");
  }
}

// What is wrong with a value, as the rest of a sentence; empty if nothing is.
std::string Review::review_value(const setting& key, const std::string& value) const {
  const std::string used =
      ": the default, " + default_text(key, options_.recommended_defaults) + ", is used";
  if (key.kind == setting_kind::truth) {
    const std::optional<bool> truth = parse_truth(value);
    const bool lacks_needed_number =
        key.needed_number != nullptr && options_.*key.needed_number == 0;
    return !truth                          ? "is not true, 1, false or 0" + used
           : lacks_needed_number && *truth ? "needs a call_timeout: it counts as absent"
                                           : "";
  }
  if (key.kind != setting_kind::number) {
    return "";
  }
  if (key.is_option()) {
    return parse_number(value, key.least) ? "" : "is not a number from 0 to 2147483647" + used;
  }
  return review_number(key, value);
}

void Review::read_addresses(const setting& key, const std::string& value) {
  sp::str_arr pieces;
  sp::split_str(value.c_str(), pieces, ",");
  for (const std::string& piece : pieces) {
    if (const std::string error = review_address(piece); !error.empty()) {
      add_finding(key.name + ": " + error);
    }
  }
}

void Review::read_setting(const std::string& name, const std::string& value) {
  const auto is_named = [&name](const setting& one) { return is_same(name, one.name); };
  const std::vector<setting>& all = all_settings();
  const auto key = std::ranges::find_if(
      all, [&](const setting& one) { return section_ == one.section && is_named(one); });
  if (key == all.end()) {
    const auto elsewhere = std::ranges::find_if(all, is_named);
    add_finding("the library does not read key " + name +
                (elsewhere != all.end()
                     ? std::string(" here: it belongs to section [") + elsewhere->section + "]"
                     : ""));
    return;
  }
  const auto [first, is_new] = settings_.emplace(key->name, number_);
  if (!is_new) {
    add_finding(name + " is already in line " + std::to_string(first->second) +
                ": that one is read");
  } else if (value.empty()) {
    add_finding(name + " is empty: it counts as absent");
  } else if (key->kind == setting_kind::addresses) {
    read_addresses(*key, value);
  } else if (key->kind == setting_kind::text) {
    passwords_[key->name] = value;
  } else if (const std::string error = review_value(*key, value); !error.empty()) {
    add_finding(name + " = " + value + " " + error);
  }
}

void Review::read_line(std::string line) {
  ++number_;
  if (line.size() > longest_line) {
    add_finding("the line is longer than 2047 bytes: the rest is read as another line");
  }
  sp::trim_str(line);
  if (line.size() > 1 && line.front() == '[' && line.find(']') == line.size() - 1) {
    begin_section(line.substr(1, line.size() - 2));
    return;
  }
  if (line.empty() || line.front() == '#' || line.front() == ';') {
    return;
  }
  const std::size_t equals = line.find('=');
  if (equals == std::string::npos || equals == 0) {
    // Does not show the line, which may be a password.
    add_finding("the line is not a section, a setting or a comment: it is skipped");
  } else if (sections_.empty()) {
    add_finding("the line is before the first section: it is skipped");
  } else if (is_read_) {
    std::string name = line.substr(0, equals);
    std::string value = line.substr(equals + 1);
    sp::trim_str(name);
    sp::trim_str(value);
    read_setting(name, value);
  }
}

void Review::compare_passwords() {
  number_ = 0;
  const std::string& rebuilt = passwords_["t_password"];
  for (std::size_t pool = 0; pool < 3; ++pool) {
    const std::string& key = password_key(pool);
    if (passwords_[key] == rebuilt) {
      continue;
    }
    add_finding(rebuilt.empty()
                    ? key + " is set and t_password is not: a rebuilt connection sends no password"
                : passwords_[key].empty()
                    ? "t_password is set and " + key +
                          " is not: a rebuilt connection of that pool sends t_password"
                    : key + " and t_password differ: a rebuilt connection sends t_password");
  }
}

}  // namespace

std::vector<Finding> review_settings(const std::string& redis_config) {
  Review review(read_configuration(redis_config).options);
  std::ifstream file(redis_config, std::ios::binary);
  for (std::string line; std::getline(file, line);) {
    review.read_line(line);
  }
  review.compare_passwords();
  return review.findings;
}

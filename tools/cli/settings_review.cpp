#include "settings_review.h"

#include <ruvo/sutils.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>

#include "configuration.h"
#include "numbers.h"

namespace {

constexpr std::size_t longest_line = 2047;  // bytes that the library reads as one
constexpr int most_port = 65535;

enum class Kind { text, addresses, number, connections, option_number, truth };

struct Key {
  const char* section;
  const char* name;
  Kind kind;
  const char* otherwise;  // what holds when the value is none
};

constexpr std::array keys{
    Key{"redis_cfg", "redis_cfg_path", Kind::text, ""},  // one file can be both
    Key{"common", "connect_timeout", Kind::number, ""},
    Key{"common", "socket_timeout", Kind::number, ""},
    Key{"common", "temp_server", Kind::addresses, ""},
    Key{"common", "persist_server", Kind::addresses, ""},
    Key{"common", "personality_server", Kind::addresses, ""},
    Key{"common", "auto_pipelining", Kind::truth, "false"},
    Key{"common", "eject_silent_servers", Kind::truth, "false"},
    Key{"common", "try_ejected_servers", Kind::truth, "false"},
    Key{"common", "log_limit", Kind::option_number, "0"},
    Key{"common", "call_timeout", Kind::option_number, "0"},
    Key{"server", "p_connect_num", Kind::connections, "1"},
    Key{"server", "t_connect_num", Kind::number, ""},
    Key{"server", "ps_connect_num", Kind::number, ""},
    Key{"server", "p_auto_eject_server", Kind::truth, "true"},
    Key{"server", "t_auto_eject_server", Kind::truth, "true"},
    Key{"server", "ps_auto_eject_server", Kind::truth, "true"},
    Key{"server", "p_server_failure_limit", Kind::number, ""},
    Key{"server", "t_server_failure_limit", Kind::number, ""},
    Key{"server", "ps_server_failure_limit", Kind::number, ""},
    Key{"server", "p_server_retry_timeout", Kind::number, ""},
    Key{"server", "t_server_retry_timeout", Kind::number, ""},
    Key{"server", "ps_server_retry_timeout", Kind::number, ""},
    Key{"server", "p_password", Kind::text, ""},
    Key{"server", "t_password", Kind::text, ""},
    Key{"server", "ps_password", Kind::text, ""},
};

bool is_same(const std::string& one, const char* other) {
  return strcasecmp(one.c_str(), other) == 0;
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char one) { return 'A' <= one && one <= 'Z' ? one + 32 : one; });
  return text;
}

// As the library reads a number: as far as its digits go, narrowed to 32 bits.
int read_number(const std::string& value, int base) {
  return static_cast<int>(std::strtol(value.c_str(), nullptr, base));
}

std::string review_number(const std::string& value) {
  return parse_number(value, INT_MIN, INT_MAX)
             ? ""
             : "is no whole number: " + std::to_string(read_number(value, 10)) + " is used";
}

std::string review_connections(const std::string& value) {
  const int number = read_number(value, 10);
  if (number < 0) {
    return "is negative: the default, 1, is used";
  }
  const std::string told = review_number(value);
  return told.empty() && number == 0 ? "means no connections: every operation fails" : told;
}

std::string review_truth(const std::string& value, const char* otherwise) {
  const bool is_truth =
      value == "1" || value == "0" || is_same(value, "true") || is_same(value, "false");
  return is_truth
             ? ""
             : std::string("is none of true, 1, false, 0: the default, ") + otherwise + ", is used";
}

std::string review_address(const std::string& piece) {
  sp::str_arr parts;
  sp::split_str(piece.c_str(), parts, ":");
  if (parts.size() != 2) {
    return "'" + piece + "' is not host:port: the whole list is refused";
  }
  const std::string& text = parts[1];
  const long port = std::strtol(text.c_str(), nullptr, 0);
  if (port < 1 || port > most_port) {
    return "port " + text + " of '" + piece + "' is not from 1 to 65535: it is never connected to";
  }
  return parse_number(text, 1, most_port) == static_cast<int>(port)
             ? ""
             : "port " + text + " of '" + piece + "' is read as " + std::to_string(port);
}

// What is wrong with a value, as the rest of a sentence; empty when nothing is.
std::string review_value(const Key& key, const std::string& value) {
  switch (key.kind) {
    case Kind::number:
      return review_number(value);
    case Kind::connections:
      return review_connections(value);
    case Kind::option_number:
      return parse_number(value, 0, INT_MAX)
                 ? ""
                 : "is no number from 0 to 2147483647: the default, 0, is used";
    case Kind::truth:
      return review_truth(value, key.otherwise);
    default:
      return "";
  }
}

class Review {
 public:
  std::vector<Finding> findings;

  void read_line(std::string line);
  void compare_passwords();

 private:
  void tell(const std::string& text) { findings.push_back({number_, text}); }
  void begin_section(const std::string& name);
  void read_setting(const std::string& name, const std::string& value);
  void read_addresses(const Key& key, const std::string& value);

  int number_ = 0;
  std::string section_;
  bool is_read_ = false;                 // is what stands in this section?
  std::map<std::string, int> sections_;  // lines
  std::map<std::string, int> settings_;  // of this section
  std::map<std::string, std::string> passwords_;
};

void Review::begin_section(const std::string& name) {
  section_ = lower(name);
  settings_.clear();
  const bool is_known = std::any_of(keys.begin(), keys.end(),
                                    [this](const Key& key) { return section_ == key.section; });
  const auto [first, is_new] = sections_.emplace(section_, number_);
  is_read_ = is_known && is_new;
  if (!is_known) {
    tell("section [" + name + "] is read by nobody");
  } else if (!is_new) {
    tell("section [" + name + "] stands in line " + std::to_string(first->second) +
         " already: only that one is read");
  }
}

void Review::read_addresses(const Key& key, const std::string& value) {
  sp::str_arr pieces;
  sp::split_str(value.c_str(), pieces, ",");
  for (const std::string& piece : pieces) {
    if (const std::string told = review_address(piece); !told.empty()) {
      tell(std::string(key.name) + ": " + told);
    }
  }
}

void Review::read_setting(const std::string& name, const std::string& value) {
  const auto* const key = std::find_if(keys.begin(), keys.end(), [&](const Key& one) {
    return section_ == one.section && is_same(name, one.name);
  });
  if (key == keys.end()) {
    const auto* const elsewhere = std::find_if(
        keys.begin(), keys.end(), [&](const Key& one) { return is_same(name, one.name); });
    tell("key " + name + " is read by nobody" +
         (elsewhere != keys.end()
              ? std::string(" here: it belongs to section [") + elsewhere->section + "]"
              : ""));
    return;
  }
  const auto [first, is_new] = settings_.emplace(key->name, number_);
  if (!is_new) {
    tell(name + " stands in line " + std::to_string(first->second) + " already: that one is read");
  } else if (value.empty()) {
    tell(name + " is empty: it counts as left out");
  } else if (key->kind == Kind::addresses) {
    read_addresses(*key, value);
  } else if (key->kind == Kind::text) {
    passwords_[key->name] = value;
  } else if (const std::string told = review_value(*key, value); !told.empty()) {
    tell(name + " = " + value + " " + told);
  }
}

void Review::read_line(std::string line) {
  ++number_;
  if (line.size() > longest_line) {
    tell("the line is longer than 2047 bytes: the rest is taken for a line of its own");
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
    tell("the line is no section, no setting and no comment: it is skipped");  // it may be a
                                                                               // password
  } else if (sections_.empty()) {
    tell("the line stands before the first section: it is skipped");
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
  for (const PoolKeys& pool : pool_keys) {
    const std::string key = pool.password;
    if (passwords_[key] == rebuilt) {
      continue;
    }
    tell(rebuilt.empty()
             ? key + " is set and t_password is not: a connection that is rebuilt gives no password"
         : passwords_[key].empty()
             ? "t_password is set and " + key +
                   " is not: a connection of that pool that is rebuilt gives t_password"
             : key + " and t_password differ: a connection that is rebuilt gives t_password");
  }
}

}  // namespace

std::vector<Finding> review_settings(const std::string& redis_config) {
  Review review;
  std::ifstream file(redis_config, std::ios::binary);
  for (std::string line; std::getline(file, line);) {
    review.read_line(line);
  }
  review.compare_passwords();
  return review.findings;
}

// The table of all keys: how options are read, what counts as an address, and that the guides agree
// with the table on each key.
#include "settings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "busin_config.h"
#include "host.h"
#include "sutils.h"

namespace {

std::string word(bool value) { return value ? "true" : "false"; }
std::string first_line(bool pipelining, bool eject, bool try_ejected, int limit, int timeout) {
  return "auto_pipelining:" + word(pipelining) + ", eject_silent_servers:" + word(eject) +
         ", try_ejected_servers:" + word(try_ejected) + ", log_limit:" + std::to_string(limit) +
         ", call_timeout:" + std::to_string(timeout) + " (ms)";
}
std::string second_line(bool stay, bool start, const std::string& replies, bool once, bool wait,
                        const std::string& file, int slow) {
  return "raw_commands_stay_in_pool:" + word(stay) + ", start_without_servers:" + word(start) +
         ", failover_replies:" + replies + ", send_once:" + word(once) +
         ", wait_for_servers:" + word(wait) + ", stats_file:" + file +
         ", slow_call_log:" + std::to_string(slow) + " (ms)";
}

TEST(Options, AreReadAndInvalidOnesAreLoggedAndIgnored) {
  const std::string truth = " must be true or false: ";
  const std::string number = " must be a number from 0 to 2147483647: ";
  const std::string waits = "wait_for_servers needs a call_timeout: true";
  const std::string replies =
      "LOADING,READONLY,MASTERDOWN,CLUSTERDOWN,NOAUTH,ERR max number of clients";
  // clang-format off
  const struct { std::string common; std::vector<std::string> refused; std::string first; std::string second; } cases[] = {
      {"auto_pipelining = true", {}, first_line(true, false, false, 0, 0), ""},
      {"eject_silent_servers = TRUE", {}, first_line(false, true, false, 0, 0), ""},
      {"try_ejected_servers = 1", {}, first_line(false, false, true, 0, 0), ""},
      {"log_limit = 2147483647\ncall_timeout = 250", {}, first_line(false, false, false, 2147483647, 250), ""},
      {"call_timeout = 0", {}, first_line(false, false, false, 0, 0), ""},
      {"auto_pipelining = perhaps", {"auto_pipelining" + truth + "perhaps"}, "", ""},
      {"try_ejected_servers = -1", {"try_ejected_servers" + truth + "-1"}, "", ""},
      {"log_limit = -1", {"log_limit" + number + "-1"}, "", ""},
      {"log_limit = 2147483648", {"log_limit" + number + "2147483648"}, "", ""},
      {"log_limit = many", {"log_limit" + number + "many"}, "", ""},
      {"call_timeout = 250ms", {"call_timeout" + number + "250ms"}, "", ""},
      {"misspelt = 1\nrecommended_defaults = false", {}, "", ""},
      {"raw_commands_stay_in_pool = 1\nslow_call_log = 7", {}, "", second_line(true, false, "-", false, false, "-", 7)},
      {"start_without_servers = true\nstats_file = /a b/%p", {}, "", second_line(false, true, "-", false, false, "/a b/%p", 0)},
      {"send_once = True\nfailover_replies = , LOADING,,ERR max number of clients ,\t", {}, "", second_line(false, false, "LOADING,ERR max number of clients", true, false, "-", 0)},
      {"failover_replies = ,", {}, "", second_line(false, false, "-", false, false, "-", 0)},
      {"wait_for_servers = 1\ncall_timeout = 9", {}, first_line(false, false, false, 0, 9), second_line(false, false, "-", false, true, "-", 0)},
      {"wait_for_servers = true", {waits}, "", ""},
      {"wait_for_servers = true\ncall_timeout = x", {"call_timeout" + number + "x", waits}, "", ""},
      {"wait_for_servers = false", {}, "", second_line(false, false, "-", false, false, "-", 0)},
      {"send_once = often\nslow_call_log = -1\nstats_file =", {"send_once" + truth + "often", "slow_call_log" + number + "-1"}, "", ""},
      {"recommended_defaults = yes", {"recommended_defaults" + truth + "yes"}, "", ""},
      {"recommended_defaults = true", {}, first_line(true, true, true, 5, 2000), second_line(true, true, replies, false, true, "-", 0)},
      // A key in the file wins; an invalid one counts as absent.
      {"auto_pipelining = 0\nlog_limit = x\nfailover_replies = ,\nrecommended_defaults = 1", {"log_limit" + number + "x"}, first_line(false, true, true, 5, 2000), second_line(true, true, "-", false, true, "-", 0)},
      {"recommended_defaults = 1\ncall_timeout = 0", {}, first_line(true, true, true, 5, 0), second_line(true, true, replies, false, false, "-", 0)},
      {"recommended_defaults = 1\ncall_timeout = 0\nwait_for_servers = true", {waits}, first_line(true, true, true, 5, 0), second_line(true, true, replies, false, false, "-", 0)},
  };
  // clang-format on
  LogCapture log;
  for (const auto& one : cases) {
    vop_config config;
    ASSERT_EQ(config.open("[common]\n" + one.common, true), 0);
    read_options(config);
    std::vector<LogCapture::Line> expected;
    for (const std::string& text : one.refused) {
      expected.push_back({BaseLib::Logger::ERROR, "ruvo_redis::init | " + text + ", left out"});
    }
    for (const std::string& text : {one.first, one.second}) {
      if (!text.empty()) {
        expected.push_back({BaseLib::Logger::INFO, "ruvo_redis::init | " + text});
      }
    }
    EXPECT_EQ(log.take(), expected) << one.common;
  }
}

TEST(Options, EachHasAFieldOfItsOwn) {
  const std::map<std::string, bool client_options::*> truths{
      {"recommended_defaults", &client_options::recommended_defaults},
      {"auto_pipelining", &client_options::auto_pipelining},
      {"eject_silent_servers", &client_options::eject_silent_servers},
      {"try_ejected_servers", &client_options::try_ejected_servers},
      {"raw_commands_stay_in_pool", &client_options::raw_commands_stay_in_pool},
      {"start_without_servers", &client_options::start_without_servers},
      {"send_once", &client_options::send_once},
      {"wait_for_servers", &client_options::wait_for_servers}};
  const LogCapture quiet;
  for (const auto& [name, field] : truths) {
    vop_config config;
    ASSERT_EQ(config.open("[common]\ncall_timeout = 6\n" + name + " = 1\nlog_limit = 5\n" +
                              "slow_call_log = 7\nstats_file = f\nfailover_replies = A, B\n"
                              "connect_timeout = 8\nsocket_timeout = 9",
                          true),
              0);
    const client_options read = read_options(config);
    for (const auto& [other, other_field] : truths) {
      EXPECT_EQ(read.*other_field,
                name == other || (name == "recommended_defaults" && other != "send_once"))
          << name << other;
    }
    EXPECT_EQ(read.log_limit, 5);
    EXPECT_EQ(read.call_timeout, 6);
    EXPECT_EQ(read.slow_call_log, 7);
    EXPECT_EQ(read.stats_file, "f");
    EXPECT_EQ(read.failover_replies, (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(read_time_limits(config).connect_timeout, 8);
    EXPECT_EQ(read_time_limits(config).socket_timeout, 9);
  }
}

TEST(Settings, AnAddressIsReadAsDeployedFilesHaveIt) {
  // clang-format off
  const struct { const char* text; std::optional<std::string> read; } cases[] = {
      {"a:6379", "a:6379"}, {" a : 0x18eb ", "a:6379"}, {"a:06379", "a:415"}, {"a:6379x", "a:6379"},
      {"a:x", "a:0"}, {"a:", "a:0"}, {":1", ":1"}, {"a:-1", "a:-1"}, {"a:65536", "a:65536"},
      // The lower 32 bits of these are a port.
      {"a:4294973675", "a:2147483647"}, {"a:-4294960917", "a:2147483647"},
      {"a:99999999999999999999", "a:2147483647"},
      {"", {}}, {"a", {}}, {"a:1:2", {}}, {"::1", {}},
  };
  // clang-format on
  for (const auto& one : cases) {
    const std::optional<server_addr> addr = parse_address(one.text);
    EXPECT_EQ(addr ? std::optional(to_text(*addr)) : std::nullopt, one.read) << one.text;
  }
  EXPECT_EQ(parse_addresses("a:1, b:2").servers.size(), 2U);
  EXPECT_EQ(parse_addresses("a:1, b,c").malformed, "b");
  EXPECT_EQ(parse_addresses("a:1,").malformed, "");
}

std::string from_to(const std::string& text, std::size_t begin, const char* end) {
  return text.substr(begin, text.find(end, begin) - begin);
}

// The value that a guide gives; an explanation may follow it.
std::string given_by(std::string text) {
  std::erase(text, '`');
  return text.substr(0, std::min(text.find(": "), text.find(", ")));
}

// The value after the word at the start of a line.
std::string value_behind(const std::string& word, const std::string& text) {
  const std::size_t at = text.find("\n" + word + " ");
  if (at == std::string::npos) {
    return "";
  }
  std::string line = from_to(text, at + word.size() + 2, "\n");
  line.resize(line.size() - (line.ends_with('.') ? 1 : 0));
  return given_by(line);
}

TEST(Settings, TheGuidesAgreeWithTheTable) {
  const std::string guide = content_of(RUVO_TREE "/docs/configuration.md");
  const std::string manual = content_of(RUVO_TREE "/packaging/man/ruvo.conf.5.in");
  for (const setting& key : all_settings()) {
    const std::string value = default_text(key).empty() ? "none" : default_text(key);
    const bool has_prefix = key.section == std::string("server");
    const std::string name = has_prefix ? key.name.substr(key.name.find('_') + 1) : key.name;
    const std::size_t row = guide.find("\n| `" + name + "` | ");
    ASSERT_NE(row, std::string::npos) << name;
    std::vector<std::string> cells;
    sp::split_str(from_to(guide, row + 1, "\n").c_str(), cells, "|");
    EXPECT_EQ(given_by(cells.at(3)), value) << name;
    EXPECT_EQ(given_by(cells.at(4)), key.recommended) << name;

    // Keys that share an explanation are listed one below the other.
    std::size_t text = manual.find("\n.It Sy " + key.name + "\n") + 1;
    ASSERT_NE(text, 0U) << key.name;
    do {
      text = manual.find('\n', text) + 1;
    } while (manual.compare(text, 4, ".It ") == 0);
    const std::string said = from_to(from_to(manual, text - 1, "\n.It "), 0, "\n.El");
    EXPECT_EQ(value_behind("Default", said), value) << key.name;
    EXPECT_EQ(value_behind("Recommended", said), key.recommended) << key.name;
  }
}

}  // namespace

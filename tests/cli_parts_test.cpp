// Parts of ruvo_cli by themselves: its exit statuses, numbers, values, and its reading of the log.
#include <gtest/gtest.h>
#include <ruvo/ruvo.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "exit_status.h"
#include "library_log.h"
#include "numbers.h"
#include "value.h"

namespace {

using BaseLib::Logger;
using nlohmann::json;

TEST(CliParts, EachResultHasItsExitStatus) {
  // clang-format off
  const struct { int result; ExitStatus of_operation; ExitStatus of_start; } cases[] = {
      {RUVO_OK, succeeded, succeeded}, {RUVO_ABSENT, absent, pools_down},
      {RUVO_INIT_PERSIST_POOL_FAILED, failed, pools_down},
      {RUVO_INIT_BOTH_POOLS_FAILED, failed, pools_down},
      {RUVO_ERR_NOT_FOUND, absent, bad_configuration},
      {RUVO_NOTHING_DONE, nothing_done, bad_configuration},
      {RUVO_ERR_NO_MEMORY, no_memory, no_memory}, {RUVO_ERR_FAILED, failed, bad_configuration},
      {RUVO_ERR_NO_CONFIG, failed, bad_configuration}, {12345, failed, bad_configuration},
  };
  // clang-format on
  for (const auto& one : cases) {
    EXPECT_EQ(status_of_operation(one.result), one.of_operation) << one.result;
    EXPECT_EQ(status_of_start(one.result), one.of_start) << one.result;
  }
  const std::string help =
      exit_status_help(with_start({{succeeded, "well"}, {wrong_usage, "mine"}}));
  EXPECT_TRUE(help.starts_with("Exit status:\n   0  well\n   4  the configuration")) << help;
  EXPECT_NE(help.find("\n  64  mine\n"), std::string::npos);
  EXPECT_NE(exit_status_help().find("\n   8  check: all is up, but settings"), std::string::npos);
}

TEST(CliParts, NumbersAreWholeAndInBounds) {
  // clang-format off
  const struct { const char* text; std::optional<int> number; } cases[] = {
      {"1", 1}, {"-5", -5}, {"9", 9}, {"10", {}}, {"-6", {}}, {"", {}}, {"1 ", {}}, {"0x1", {}},
      {"+1", {}}, {"99999999999", {}},
  };
  // clang-format on
  for (const auto& one : cases) {
    EXPECT_EQ(parse_number(one.text, -5, 9), one.number) << one.text;
  }
}

TEST(CliParts, ValuesAreShownAsTheyAre) {
  const json nested{"a", json::array({1, json::array({"b", nullptr})}), json::array()};
  const json twelve_pairs(12, json::array({"x", "y"}));
  // clang-format off
  const struct { json value; std::string text; } cases[] = {
      {nullptr, "(nil)"}, {"text", "text"}, {-7, "-7"}, {json::array(), "(empty)"},
      {json::array({"a", 1, nullptr}), "a\n1\n(nil)"},
      {nested, "1) a\n2) 1) 1\n   2) 1) b\n      2) (nil)\n3) (empty)"},
  };
  // clang-format on
  for (const auto& one : cases) {
    EXPECT_EQ(to_text(one.value), one.text);
  }
  EXPECT_TRUE(to_text(twelve_pairs).ends_with("\n12) 1) x\n    2) y"));
  const std::string bytes("\x01\xff\0", 3);
  EXPECT_EQ(to_printable(bytes).dump(), R"({"hex":"01ff00"})");
  EXPECT_EQ(to_printable(json::array({bytes, "ok", 1})).dump(), R"([{"hex":"01ff00"},"ok",1])");
}

class Log : public testing::Test {
 protected:
  ~Log() override { open_log({}); }
  static std::string shown(const LogOptions& options, const std::function<void()>& action) {
    open_log(options);
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
  }
  static void write(Logger::LogLevel level, const std::string& text) {
    if (Logger::logLevel() <= level) {
      Logger("x.cpp", 1, level).stream() << text;
    }
  }
};

// The text of the password may also occur earlier in the line.
TEST_F(Log, HidesThePasswordAndNothingElse) {
  const auto refuse = [] {
    write(Logger::ERROR,
          "ruvo_redis::init_server_pool | failed to authenticate redis, error passwd, redis_ip = "
          "redis, redis_port = 1, passwd = redis");
  };
  const std::string line = "error passwd, redis_ip = redis, redis_port = 1, passwd = ";
  const std::string hidden = shown({Logger::WARN, "", false}, refuse);
  EXPECT_TRUE(hidden.ends_with(line + "(hidden, see --show-passwords)\n")) << hidden;
  EXPECT_TRUE(shown({Logger::WARN, "", true}, refuse).ends_with(line + "redis\n"));
}

TEST_F(Log, ShowsLinesFromALevelOnOrHoldsTheLatestErrors) {
  const auto write_all = [] {
    for (const auto level : {Logger::INFO, Logger::WARN, Logger::ERROR}) {
      write(level, "level " + std::to_string(level));
    }
    write(Logger::ERROR, "t_par_val: a:1\n");  // an error line without a fault
  };
  const auto lines = [](const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
  };
  EXPECT_EQ(lines(shown({Logger::INFO, "", false}, write_all)), 4 + 1);
  EXPECT_EQ(lines(shown({Logger::WARN, "", false}, write_all)), 3 + 1);
  EXPECT_EQ(shown({}, write_all), "");
  const std::string kept = shown({}, show_kept_lines);
  EXPECT_EQ(lines(kept), 2) << kept;
  const std::string latest = shown({}, [] {
    for (int i = 0; i < 30; ++i) {
      write(Logger::WARN, "line " + std::to_string(i));
    }
    show_kept_lines();
  });
  EXPECT_EQ(lines(latest), 20);
  EXPECT_NE(latest.find(" line 10\n"), std::string::npos) << latest;
  EXPECT_TRUE(latest.ends_with(" line 29\n"));
}

TEST_F(Log, ListenersGetLinesFromALevelOn) {
  std::vector<std::string> received;
  const std::string output = shown({Logger::ERROR, "", false}, [&received] {
    {
      const LogListening listening(
          Logger::INFO, [&received](const LogEvent& event) { received.push_back(event.text); });
      for (const auto level : {Logger::DEBUG, Logger::INFO, Logger::ERROR}) {
        write(level, "level " + std::to_string(level));
      }
      Logger("x.cpp", 1, Logger::DEBUG).stream() << "from a thread that looked earlier";
    }
    EXPECT_EQ(Logger::logLevel(), Logger::ERROR);
    write(Logger::ERROR, "unheard");
  });
  EXPECT_EQ(received, (std::vector<std::string>{"level 2", "level 4"}));
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2) << output;
}

}  // namespace

// Writing log lines, and the limit for lines of a kind. The clock is the test's.
#include "log_line.h"

#include <gtest/gtest.h>

#include <thread>

#include "client.h"
#include "servers.h"

namespace {
std::atomic<std::time_t> now{1000};
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's name, see --wrap
extern "C" std::time_t __wrap_time(std::time_t* /*result*/) { return now; }

namespace {

constexpr auto DEBUG = BaseLib::Logger::DEBUG;
constexpr auto WARN = BaseLib::Logger::WARN;
constexpr auto ERROR = BaseLib::Logger::ERROR;

class Log : public testing::Test {
 protected:
  ~Log() override { set_log_limit(0); }

  LogCapture log_;
};

std::string last_line;  // with its head

TEST_F(Log, ALineHasItsPlaceAndIsCut) {
  BaseLib::Logger::setOutput([](BaseLib::Logger::LogLevel, const char* line, std::size_t length) {
    last_line.assign(line, length);
  });
  RUVO_LOG(INFO, "%s", std::string(2000, 'x').c_str());
  EXPECT_TRUE(last_line.ends_with(" INFO log_line_test.cpp:" + std::to_string(__LINE__ - 1) + " " +
                                  std::string(1023, 'x') + "\n"))
      << last_line;
  log_key_as_format("100%% of %s");
  EXPECT_TRUE(last_line.ends_with(" 100% of (null)\n")) << last_line;
  EXPECT_NE(last_line.find(" ERROR log_line.cpp:"), std::string::npos) << last_line;
}

TEST_F(Log, ArgumentsAreEvaluatedOnlyForWrittenLines) {
  int evaluations = 0;
  BaseLib::Logger::setLogLevel(WARN);
  RUVO_LOG(INFO, "%d", ++evaluations);
  EXPECT_EQ(evaluations, 0);
  RUVO_LOG(WARN, "%d", ++evaluations);
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(log_.take(), (std::vector<LogCapture::Line>{{WARN, "1"}}));
}

TEST_F(Log, LimitSuppressesLinesOfAKindAndLogsHowMany) {
  const auto write = [](int number) {
    RUVO_LOG(WARN, "one kind %d", number);
    RUVO_LOG(ERROR, "other kind %d", number);
    RUVO_LOG(INFO, "no trouble");
  };
  const auto counts = [this](int one, int other, int info) {
    EXPECT_EQ(log_.count_containing("one kind"), one);
    EXPECT_EQ(log_.count_containing("other kind"), other);
    EXPECT_EQ(log_.count_containing("no trouble"), info);
  };
  const std::time_t first = now += 10;  // a second without lines
  set_log_limit(1);
  for (; now < first + 2; ++now) {
    for (int i = 0; i < 10; ++i) {
      write(i);
    }
  }
  counts(2, 2, 20);
  now = first + 1;  // the second whose limit has been reached
  const std::string notice = "ruvo_redis::log_limit | 9 lines like the next one were kept back";
  EXPECT_EQ(log_.count(WARN, notice), 2);  // of each kind
  const std::vector<LogCapture::Line> lines = log_.take();
  const auto at = std::find(lines.begin(), lines.end(), LogCapture::Line{WARN, notice});
  ASSERT_NE(at, lines.end());
  EXPECT_EQ(at[1].text, "one kind 0");
  {
    const unlimited_log all;
    { const unlimited_log within; }
    write(0);
  }
  write(0);
  now = first;  // as seen by a thread that read the clock just before the others
  std::thread([&] { write(0); }).join();
  counts(1, 1, 3);
  set_log_limit(2);
  now = first + 3;
  for (int i = 0; i < 3; ++i) {
    write(i);
  }
  counts(1 + 2, 1 + 2, 3 + 3);
  EXPECT_EQ(log_.count_containing(" | 11 lines like the next one"), 2);  // those since the last
  BaseLib::Logger::setLogLevel(ERROR);  // the lines that count others are WARN lines
  now = first + 4;
  log_.clear();
  write(0);
  EXPECT_EQ(log_.take(), (std::vector<LogCapture::Line>{{ERROR, "other kind 0"}}));
  BaseLib::Logger::setLogLevel(DEBUG);
  set_log_limit(0);
  for (int i = 0; i < 3; ++i) {
    write(i);
  }
  counts(3, 3, 3);
}

// All lines of start-up and shutdown are written, whatever the limit; afterwards there is no limit.
TEST_F(Log, LimitBeginsFromOffAtEveryStartUp) {
  now += 10;  // a second without lines
  const DownServer down;
  const ScriptedServer good(std::string("$-1\r\n"));
  const std::string addrs = good.addr() + "," + down.addr() + "," + down.addr();
  ruvo_redis client;
  ASSERT_EQ(init_client(client, HostConfig("try_ejected_servers = true\nlog_limit = 1\n" +
                                           pools_at(addrs, addrs, addrs))),
            0);
  EXPECT_EQ(log_.count_containing("connect to node"), 6);
  std::string before;
  for (const LogCapture::Line& line : log_.take()) {
    if (line.text.find("auto_pipelining:") != std::string::npos) {
      EXPECT_NE(before.find("get timeout cfg"), std::string::npos);
    }
    before = line.text;
  }
  redisReply* none = nullptr;
  for (int i = 0; i < 3; ++i) {
    client.do_exec_command(nullptr, none, false, eTempServer, "PING");
  }
  EXPECT_EQ(log_.count_containing("key is NULL"), 1);
  EXPECT_EQ(client.fini(), RUVO_OK);
  const auto try_three_times = [&] {
    for (int i = 0; i < 3; ++i) {
      client.fini();
      client.delete_key("k", eTempServer, nullptr);
    }
  };
  try_three_times();
  EXPECT_EQ(log_.count_containing("redis is not initialized"), 6);
  set_log_limit(1);
  try_three_times();
  EXPECT_EQ(log_.count_containing("redis is not initialized"), 10);
  ASSERT_EQ(init_client(client, HostConfig(pools_at(addrs, addrs, addrs))), 0);
  EXPECT_FALSE(client.options().try_ejected_servers);
  EXPECT_EQ(client.options().log_limit, 0);
}

}  // namespace

#include "logger.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {
timeval moment{};  // shown by the logger's clock
}

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's names
// Replaces the C library's function. Like any function of the system it may change errno.
extern "C" __attribute__((visibility("default"))) int gettimeofday(timeval* __tv, void*) noexcept {
  *__tv = moment;
  errno = EINVAL;
  return 0;
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using BaseLib::Logger;

std::mutex mutex;
std::vector<std::pair<Logger::LogLevel, std::string>> lines;

void collect(Logger::LogLevel level, const char* line, std::size_t length) {
  pthread_testcancel();  // a thread that is cancelled finishes its line
  const std::scoped_lock lock(mutex);
  lines.emplace_back(level, std::string(line, length));
  EXPECT_EQ(line[length], '\0');
  errno = EINVAL;
}

class StreamLog : public testing::Test {
 protected:
  StreamLog() {
    lines.clear();
    Logger::setOutput(collect);
  }
  ~StreamLog() override { Logger::setOutput(nullptr); }
};

// The time in the head is local time, whatever the zone.
TEST_F(StreamLog, BuildsTheWholeLineAndOnlyKeepsTheThreshold) {
  setenv("TZ", "XXX-05:45", 1);
  tzset();
  EXPECT_EQ(Logger::logLevel(), Logger::INFO);
  const std::vector<std::pair<timeval, std::string>> times{
      {{1714566615, 42}, "2024-05-01 18:15:15.000042 "},
      {{1714566615, 999999}, "2024-05-01 18:15:15.999999 "},
      {{1735667099, 100000}, "2024-12-31 23:29:59.100000 "},
      {{1735668900, 0}, "2025-01-01 00:00:00.000000 "},
  };
  const std::vector<std::string> names{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
  const auto write_all = [&] {
    for (const auto& [time, text] : times) {
      moment = time;
      for (std::size_t level = 0; level < names.size(); ++level) {
        errno = EPIPE;
        Logger("/a/b/server.cpp", 42, static_cast<Logger::LogLevel>(level)).stream() << errno;
        EXPECT_EQ(errno, EPIPE);
        EXPECT_EQ(lines.back().first, static_cast<Logger::LogLevel>(level));
        EXPECT_EQ(lines.back().second, text + std::to_string(gettid()) + " " + names[level] +
                                           " server.cpp:42 " + std::to_string(EPIPE) + "\n");
      }
    }
  };
  write_all();
  std::thread(write_all).join();  // each thread has its own number
  Logger::setLogLevel(Logger::ERROR);
  EXPECT_EQ(Logger::logLevel(), Logger::ERROR);
  Logger::setLogLevel(Logger::INFO);
}

TEST_F(StreamLog, LinesOfManyThreadsDoNotMix) {
  const auto work = [] {
    for (int i = 0; i < 400; ++i) {
      Logger("t.cpp", i, Logger::INFO).stream() << "line " << i;
    }
  };
  std::thread other(work);
  work();
  other.join();
  ASSERT_EQ(lines.size(), 800U);
  for (const auto& line : lines) {
    EXPECT_TRUE(std::regex_match(line.second, std::regex(R"([^\n]* INFO t\.cpp:(\d+) line \1\n)")));
  }
}

TEST_F(StreamLog, DropsALineThatLacksAPiece) {
  Logger("t.cpp", 1, Logger::INFO).stream().setstate(std::ios::badbit);
  EXPECT_TRUE(lines.empty());
  {
    Logger odd("t.cpp", 1, Logger::INFO);
    odd.stream() << "kept";
    odd.stream().setstate(std::ios::failbit);
  }
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].second.ends_with("t.cpp:1 kept\n"));
}

TEST_F(StreamLog, ACancelledThreadFinishesItsLineAndEndsThen) {
  std::atomic<bool> has_continued{false};
  std::thread([&] {
    pthread_cancel(pthread_self());
    Logger("t.cpp", 1, Logger::INFO).stream() << "whole";
    pthread_testcancel();
    has_continued = true;
  }).join();
  EXPECT_EQ(lines.size(), 1U);
  EXPECT_FALSE(has_continued);
}

// Hosts in C set the same threshold and the same output.
TEST_F(StreamLog, FromC) {
  const std::vector<std::pair<int, int>> cases{
      {STREAM_LOG_TRACE, 0}, {STREAM_LOG_FATAL, 5}, {-7, 0}, {99, 5}, {2, 2}};
  for (const auto& [set, level] : cases) {
    stream_log_set_level(set);
    EXPECT_EQ(stream_log_level(), level);
    EXPECT_EQ(static_cast<int>(Logger::logLevel()), level);
  }
  static int last_level;
  static std::string last_line;
  stream_log_set_output([](int level, const char* line, std::size_t length) {
    last_level = level;
    last_line.assign(line, length);
  });
  Logger("c.c", 1, Logger::WARN).stream() << "to C";
  EXPECT_EQ(last_level, STREAM_LOG_WARN);
  EXPECT_TRUE(last_line.ends_with(" c.c:1 to C\n"));
  last_line.clear();
  stream_log_set_output(nullptr);
  testing::internal::CaptureStderr();
  Logger("c.c", 2, Logger::WARN).stream() << "not to C";
  EXPECT_TRUE(testing::internal::GetCapturedStderr().ends_with(" c.c:2 not to C\n"));
  EXPECT_EQ(last_line, "");
}

TEST(StreamLogDefault, WritesToStandardError) {
  testing::internal::CaptureStderr();
  Logger("plain.cpp", 3, Logger::FATAL).stream() << "still here";
  Logger(nullptr, 4, Logger::INFO).stream() << "no file";
  const std::string written = testing::internal::GetCapturedStderr();
  EXPECT_NE(written.find(" FATAL plain.cpp:3 still here\n"), std::string::npos);
  EXPECT_TRUE(written.ends_with(" INFO :4 no file\n"));
}

}  // namespace

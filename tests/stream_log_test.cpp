#include "logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using BaseLib::Logger;

std::mutex mutex;
std::vector<std::pair<Logger::LogLevel, std::string>> lines;

void collect(Logger::LogLevel level, const char* line, std::size_t length) {
  const std::scoped_lock lock(mutex);
  lines.emplace_back(level, std::string(line, length));
}

class StreamLog : public testing::Test {
 protected:
  StreamLog() { Logger::setOutput(collect); }
  ~StreamLog() override { Logger::setOutput(nullptr); }
};

TEST_F(StreamLog, BuildsTheWholeLineAndOnlyKeepsTheThreshold) {
  EXPECT_EQ(Logger::logLevel(), Logger::INFO);
  const std::vector<std::string> names{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
  for (std::size_t level = 0; level < names.size(); ++level) {
    errno = EPIPE;
    Logger("/a/b/server.cpp", 42, static_cast<Logger::LogLevel>(level)).stream() << "pid " << 7;
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(lines.back().first, static_cast<Logger::LogLevel>(level));
    const std::regex shape(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} )" + std::to_string(gettid()) +
                           " " + names[level] + R"( server\.cpp:42 pid 7\n)");
    EXPECT_TRUE(std::regex_match(lines.back().second, shape)) << lines.back().second;
  }
  Logger::setLogLevel(Logger::ERROR);
  EXPECT_EQ(Logger::logLevel(), Logger::ERROR);
  Logger::setLogLevel(Logger::INFO);
}

TEST_F(StreamLog, LinesOfManyThreadsDoNotMix) {
  lines.clear();
  const auto work = [] {
    for (int i = 0; i < 400; ++i) {
      Logger("t.cpp", i, Logger::INFO).stream() << "line " << i;
    }
  };
  std::thread one(work);
  std::thread other(work);
  one.join();
  other.join();
  ASSERT_EQ(lines.size(), 800U);
  for (const auto& line : lines) {
    EXPECT_TRUE(std::regex_match(line.second, std::regex(R"([^\n]* INFO t\.cpp:(\d+) line \1\n)")));
  }
}

TEST(StreamLogDefault, WritesToStandardError) {
  testing::internal::CaptureStderr();
  Logger("plain.cpp", 3, Logger::FATAL).stream() << "still here";
  EXPECT_TRUE(testing::internal::GetCapturedStderr().ends_with(" FATAL plain.cpp:3 still here\n"));
}

}  // namespace

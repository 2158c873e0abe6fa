#include "logger.h"

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

namespace BaseLib {
namespace {

std::atomic<Logger::LogLevel> threshold{Logger::INFO};

void write_to_stderr(Logger::LogLevel, const char* line, std::size_t length) {
  // A line that standard error does not take is lost: there is nowhere left to say so.
  while (::write(STDERR_FILENO, line, length) == -1 && errno == EINTR) {
  }
}

std::atomic<Logger::Output> current_output{write_to_stderr};

const char* level_name(Logger::LogLevel level) {
  static constexpr std::array names{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
  const auto index = static_cast<std::size_t>(level);
  return names[std::min(index, names.size() - 1)];
}

// "YYYY-MM-DD hh:mm:ss.uuuuuu TID LEVEL file:line "
std::string line_head(Logger::LogLevel level, const char* file, int line) {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  std::array<char, 32> date{};
  const std::size_t date_length =
      std::strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &local);
  std::array<char, 64> rest{};
  const int rest_length =
      std::snprintf(rest.data(), rest.size(), ".%06ld %d %s ", static_cast<long>(now.tv_usec),
                    static_cast<int>(gettid()), level_name(level));
  return std::string(date.data(), date_length)
      .append(rest.data(), static_cast<std::size_t>(rest_length))
      .append(file)
      .append(":")
      .append(std::to_string(line))
      .append(" ");
}

}  // namespace

Logger::Logger(SourceFile file, int line, LogLevel level)
    : file_(file), line_(line), level_(level) {}

Logger::~Logger() {
  const int saved_errno = errno;  // a log line must not change what its caller is about to look at
  // Nor end the process when its thread is cancelled while it is written.
  int cancel_state = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
  try {
    const std::string text = line_head(level_, file_.name(), line_) + stream_.str() + '\n';
    current_output.load(std::memory_order_acquire)(level_, text.data(), text.size());
  } catch (...) {
    // No memory for the line: it is dropped, the host goes on.
  }
  pthread_setcancelstate(cancel_state, nullptr);
  errno = saved_errno;
}

Logger::LogLevel Logger::logLevel() { return threshold.load(std::memory_order_relaxed); }

void Logger::setLogLevel(LogLevel level) { threshold.store(level, std::memory_order_relaxed); }

void Logger::setOutput(Output output) {
  current_output.store(output != nullptr ? output : write_to_stderr, std::memory_order_release);
}

}  // namespace BaseLib

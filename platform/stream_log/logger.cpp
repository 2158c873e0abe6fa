#include "logger.h"

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <string_view>

namespace BaseLib {
namespace {

std::atomic<Logger::LogLevel> threshold{Logger::INFO};

void write_to_stderr(Logger::LogLevel, const char* line, std::size_t length) {
  // A line that standard error does not take is lost: there is nowhere to report it.
  while (::write(STDERR_FILENO, line, length) == -1 && errno == EINTR) {
  }
}

std::atomic<Logger::Output> current_output{write_to_stderr};

std::string_view level_name(Logger::LogLevel level) {
  static constexpr std::array<std::string_view, 6> names{"TRACE", "DEBUG", "INFO",
                                                         "WARN",  "ERROR", "FATAL"};
  const auto index = static_cast<std::size_t>(level);
  return names[std::min(index, names.size() - 1)];
}

constexpr std::size_t date_space = 32;

// "YYYY-MM-DD hh:mm:ss", local time. It changes once a second, and each thread caches its own:
// formatting it costs more than the rest of the head.
std::string_view date_text(std::time_t second) {
  struct Date {
    std::time_t second = -1;
    std::array<char, date_space> text{};
    std::size_t length = 0;
  };
  thread_local Date date;
  if (date.second != second) {
    tm local{};
    localtime_r(&second, &local);
    date.length = std::strftime(date.text.data(), date.text.size(), "%Y-%m-%d %H:%M:%S", &local);
    date.second = second;
  }
  return {date.text.data(), date.length};
}

// A text composed of pieces, in a buffer that holds the longest.
class Head {
 public:
  Head& add(std::string_view text) {
    end_ = std::copy(text.begin(), text.end(), end_);
    return *this;
  }
  Head& add(long number) {
    end_ = std::to_chars(end_, text_.data() + text_.size(), number).ptr;
    return *this;
  }
  Head& add_microseconds(long number) {
    for (long unit = 100000; unit > 0; unit /= 10) {
      *end_++ = static_cast<char>('0' + number / unit % 10);
    }
    return *this;
  }
  void write_to(std::ostream& stream) const { stream.write(text_.data(), end_ - text_.data()); }

 private:
  std::array<char, date_space + 64> text_{};
  char* end_ = text_.data();
};

}  // namespace

// The head of the line: "YYYY-MM-DD hh:mm:ss.uuuuuu TID LEVEL file:line ".
Logger::Logger(SourceFile file, int line, LogLevel level) : level_(level) {
  const int saved_errno = errno;  // the text that follows may report it
  timeval now{};
  gettimeofday(&now, nullptr);
  Head()
      .add(date_text(now.tv_sec))
      .add(".")
      .add_microseconds(now.tv_usec)
      .add(" ")
      .add(static_cast<long>(gettid()))
      .add(" ")
      .add(level_name(level))
      .add(" ")
      .write_to(stream_);
  stream_.write(file.name(), static_cast<std::streamsize>(std::strlen(file.name())));
  Head().add(":").add(static_cast<long>(line)).add(" ").write_to(stream_);
  errno = saved_errno;
}

Logger::~Logger() {
  const int saved_errno = errno;  // the caller may be about to read it
  // Cancelling the thread while it writes the line must not end the process.
  int cancel_state = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
  try {
    // A stream is bad if memory ran out for a piece of the line: a line that lacks a piece would
    // mislead, so none is written. A piece that the host could not format does not drop the line.
    if (!stream_.bad()) {
      stream_.clear();
    }
    if (stream_.put('\n').put('\0')) {
      const std::string_view line = stream_.view();
      current_output.load(std::memory_order_acquire)(level_, line.data(), line.size() - 1);
    }
  } catch (...) {
    // No memory for the line: it is dropped and the host goes on.
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

namespace {

std::atomic<void (*)(int, const char*, std::size_t)> c_output{nullptr};

void to_c_output(BaseLib::Logger::LogLevel level, const char* line, std::size_t length) {
  if (const auto output = c_output.load(std::memory_order_acquire)) {
    output(level, line, length);
  }
}

}  // namespace

int stream_log_level(void) { return BaseLib::Logger::logLevel(); }

void stream_log_set_level(int level) {
  const int known = std::clamp<int>(level, STREAM_LOG_TRACE, STREAM_LOG_FATAL);
  BaseLib::Logger::setLogLevel(static_cast<BaseLib::Logger::LogLevel>(known));
}

void stream_log_set_output(void (*output)(int level, const char* line, size_t length)) {
  if (output != nullptr) {
    c_output.store(output, std::memory_order_release);
  }
  BaseLib::Logger::setOutput(output != nullptr ? to_c_output : nullptr);
}

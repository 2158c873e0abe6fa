// The one way out for a log line of the library.
//
//   RUVO_LOG(WARN, "ruvo_redis::reset_connection | reset connection,ip:%s port:%d", ip, port);
//
// The threshold is tested first: a line that nobody will see costs that test, and its arguments are
// not looked at. A line that passes is formatted into a fixed buffer, where it is cut at 1023
// bytes.
#ifndef RUVO_LOG_LINE_H
#define RUVO_LOG_LINE_H

#include <atomic>
#include <cstdint>

#include "logger.h"

inline bool is_logged(BaseLib::Logger::LogLevel level) {
  return BaseLib::Logger::logLevel() <= level;
}

// A place in the source that writes lines. They are lines of one kind, whatever they name.
struct log_place {
  const char* file;
  int line;
  std::atomic<std::uint64_t> window{0};  // a second of the clock, and the lines written in it
  std::atomic<unsigned long long> kept_back{0};
};

#define RUVO_LOG_AT(level, ...)                                      \
  do {                                                               \
    if (is_logged(level)) {                                          \
      static constinit log_place ruvo_log_place{__FILE__, __LINE__}; \
      write_log_line(ruvo_log_place, level, __VA_ARGS__);            \
    }                                                                \
  } while (false)

#define RUVO_LOG(level, ...) RUVO_LOG_AT(BaseLib::Logger::level, __VA_ARGS__)

// Formats and writes a line, or keeps it back where a limit is set. Never throws: a line for which
// there is no memory is dropped.
void write_log_line(log_place& place, BaseLib::Logger::LogLevel level, const char* format,
                    ...) noexcept __attribute__((format(printf, 3, 4), cold));

// Of the WARN and ERROR lines of one kind so many are written in a second; 0: every line.
void set_log_limit(int lines);

// While it lives, its thread's lines are not limited: those of start-up and shut-down.
class unlimited_log {
 public:
  unlimited_log();
  ~unlimited_log();
  unlimited_log(const unlimited_log&) = delete;
  unlimited_log& operator=(const unlimited_log&) = delete;

 private:
  bool before_;
};

// Writes an ERROR line whose format is the caller's key (see expand_key_format).
void log_key_as_format(const char* key) noexcept;

#endif

// The only way to write a log line of the library.
//
//   RUVO_LOG(WARN, "ruvo_redis::reset_connection | reset connection,ip:%s port:%d", ip, port);
//
// The threshold is tested first: a line below it costs only that test, and its arguments are not
// evaluated. Any other line is formatted into a fixed buffer and cut at 1023 bytes.
#ifndef RUVO_LOG_LINE_H
#define RUVO_LOG_LINE_H

#include <atomic>
#include <cstdint>

#include "logger.h"

inline bool is_logged(BaseLib::Logger::LogLevel level) {
  return BaseLib::Logger::logLevel() <= level;
}

// How many lines of one kind were written in the current second, and how many suppressed.
struct log_rate {
  std::atomic<std::uint64_t> window{0};  // see admits()
  std::atomic<unsigned long long> suppressed{0};
  std::atomic<std::uint64_t> kind{0};  // its key in the table of shared_rate()
};

// A place in the source that writes lines.
struct log_place {
  const char* file;
  int line;
  log_rate* rate;
};

// The lines of one place are one kind, whatever they name.
#define RUVO_LOG_AT(level, ...)                                                 \
  do {                                                                          \
    if (is_logged(level)) {                                                     \
      static constinit log_rate ruvo_log_rate;                                  \
      write_log_line({__FILE__, __LINE__, &ruvo_log_rate}, level, __VA_ARGS__); \
    }                                                                           \
  } while (false)

// If operations share a place, each operation (identified by the address of its text) and
// result is a kind.
#define RUVO_LOG_SHARED(level, operation, result, ...)                                       \
  do {                                                                                       \
    if (is_logged(level)) {                                                                  \
      write_log_line({__FILE__, __LINE__, &shared_rate(operation, result, __LINE__)}, level, \
                     __VA_ARGS__);                                                           \
    }                                                                                        \
  } while (false)
log_rate& shared_rate(const char* operation, int result, int line) noexcept;

#define RUVO_LOG(level, ...) RUVO_LOG_AT(BaseLib::Logger::level, __VA_ARGS__)

// Formats and writes a line, or suppresses it if a limit is set. Never throws: without memory, it
// drops the line.
void write_log_line(const log_place& place, BaseLib::Logger::LogLevel level, const char* format,
                    ...) noexcept __attribute__((format(printf, 3, 4), cold));

// Limits the WARN and ERROR lines of one kind to `lines` a second; 0: every line.
void set_log_limit(int lines);

// While it exists, its thread's lines are not limited: those of start-up and shutdown.
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

// The one way out for a log line of the library.
//
//   RUVO_LOG(WARN, "ruvo_redis::reset_connection | reset connection,ip:%s port:%d", ip, port);
//
// The threshold is tested first: a line that nobody will see costs that test, and its arguments are
// not looked at. A line that passes is formatted into a fixed buffer, where it is cut at 1023
// bytes.
#ifndef RUVO_LOG_LINE_H
#define RUVO_LOG_LINE_H

#include "logger.h"

inline bool is_logged(BaseLib::Logger::LogLevel level) {
  return BaseLib::Logger::logLevel() <= level;
}

#define RUVO_LOG_AT(level, ...)                               \
  do {                                                        \
    if (is_logged(level)) {                                   \
      write_log_line(__FILE__, __LINE__, level, __VA_ARGS__); \
    }                                                         \
  } while (false)

#define RUVO_LOG(level, ...) RUVO_LOG_AT(BaseLib::Logger::level, __VA_ARGS__)

// Formats and writes a line. Never throws: a line for which there is no memory is dropped.
void write_log_line(const char* file, int line, BaseLib::Logger::LogLevel level, const char* format,
                    ...) noexcept __attribute__((format(printf, 4, 5), cold));

// Writes an ERROR line whose format is the caller's key (see expand_key_format).
void log_key_as_format(const char* key) noexcept;

#endif

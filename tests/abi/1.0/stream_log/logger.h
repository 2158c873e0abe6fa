// As version 1.0 had it, without comments.
#ifndef STREAM_LOG_LOGGER_H
#define STREAM_LOG_LOGGER_H
#include <stddef.h>
enum StreamLogLevel {
  STREAM_LOG_TRACE = 0,
  STREAM_LOG_DEBUG = 1,
  STREAM_LOG_INFO = 2,
  STREAM_LOG_WARN = 3,
  STREAM_LOG_ERROR = 4,
  STREAM_LOG_FATAL = 5
};
#ifdef __cplusplus
extern "C" {
#endif
__attribute__((visibility("default"))) int stream_log_level(void);
__attribute__((visibility("default"))) void stream_log_set_level(int level);
__attribute__((visibility("default"))) void stream_log_set_output(void (*output)(int level,
                                                                                 const char* line,
                                                                                 size_t length));
#ifdef __cplusplus
}
#include <cstddef>
#include <cstring>
#include <ostream>
#include <sstream>
namespace BaseLib {
class __attribute__((visibility("default"))) Logger {
 public:
  enum LogLevel { TRACE, DEBUG, INFO, WARN, ERROR, FATAL };
  class SourceFile {
   public:
    SourceFile(const char* path) : name_(path != nullptr ? path : "") {
      if (const char* slash = std::strrchr(name_, '/')) {
        name_ = slash + 1;
      }
    }
    const char* name() const { return name_; }

   private:
    const char* name_;
  };
  typedef void (*Output)(LogLevel level, const char* line, std::size_t length);
  Logger(SourceFile file, int line, LogLevel level);
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;
  std::ostream& stream() { return stream_; }
  static LogLevel logLevel();
  static void setLogLevel(LogLevel level);
  static void setOutput(Output output);

 private:
  LogLevel level_;
  std::ostringstream stream_;
};
}  // namespace BaseLib
#endif
#endif

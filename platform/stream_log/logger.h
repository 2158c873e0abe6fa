/// @file
/// BaseLib::Logger: a stream for one log line.
///
///     using BaseLib::Logger;
///     Logger(__FILE__, __LINE__, Logger::INFO).stream() << "started, pid " << pid;
///
/// The object collects the text of one line; its destructor hands the finished line to the output
/// in a single call, so that lines of different threads never mix. A line reads
///
///     2024-05-01 12:30:15.123456 4711 INFO server.cpp:42 started, pid 4711
///
/// (local time, thread id, level, file and line, text). By default it goes to standard error with
/// one write(2). A host that logs elsewhere sets an output once:
///
///     void to_syslog(BaseLib::Logger::LogLevel level, const char* line, std::size_t length) {
///       syslog(level >= BaseLib::Logger::ERROR ? LOG_ERR : LOG_INFO, "%.*s", int(length), line);
///     }
///     ...
///     BaseLib::Logger::setOutput(to_syslog);
///
/// A host in C does the same with stream_log_set_output and stream_log_set_level.
///
/// Or it brings its own libstream_log.so.1: a library built from this header that defines what is
/// declared here and not defined inline.
///
/// The constructor does not look at the threshold: who logs tests logLevel() first and does not
/// build a line that nobody will see. No level ends the process, FATAL included.
///
/// Threads: setLogLevel, setOutput and the writing of lines are safe from any number of threads. An
/// output is called from every thread that logs, possibly from several at once. A Logger object
/// itself belongs to one thread.
#ifndef STREAM_LOG_LOGGER_H
#define STREAM_LOG_LOGGER_H

#include <stddef.h>

/// The levels by number, the same as BaseLib::Logger's.
enum StreamLogLevel {
  STREAM_LOG_TRACE = 0,  ///< of no use but to developers
  STREAM_LOG_DEBUG = 1,  ///< each step of a call
  STREAM_LOG_INFO = 2,   ///< each call
  STREAM_LOG_WARN = 3,   ///< something went wrong, and was dealt with
  STREAM_LOG_ERROR = 4,  ///< something went wrong
  STREAM_LOG_FATAL = 5   ///< the host cannot go on
};

#ifdef __cplusplus
extern "C" {
#endif

/// @name For hosts in C
/// The same threshold and output as BaseLib::Logger's. Safe from any number of threads; they do not
/// block.
/// @{

/// The threshold: lines of a lower level are not written.
__attribute__((visibility("default"))) int stream_log_level(void);

/// Sets the threshold; a number below or above the levels stands for the lowest or highest of them.
__attribute__((visibility("default"))) void stream_log_set_level(int level);

/// Where lines go from now on; null: back to standard error. `line` has `length` bytes, the last of
/// them a newline, followed by a zero byte. The text is the logger's and is gone when the output
/// returns. It is called from every thread that logs, possibly from several at once.
__attribute__((visibility("default"))) void stream_log_set_output(void (*output)(int level,
                                                                                 const char* line,
                                                                                 size_t length));

/// @}

#ifdef __cplusplus
}

#include <cstddef>
#include <cstring>
#include <ostream>
#include <sstream>

/// What hosts and libraries share.
namespace BaseLib {

/// A stream for one log line, see the head of this file.
class __attribute__((visibility("default"))) Logger {
 public:
  /// From the least to the most serious.
  enum LogLevel { TRACE, DEBUG, INFO, WARN, ERROR, FATAL };

  /// A source file's name: the part of a path after its last '/'. Keeps a pointer into the text
  /// that it is given, which must outlive it; __FILE__ does.
  class SourceFile {
   public:
    /// Null stands for the empty name.
    SourceFile(const char* path) : name_(path != nullptr ? path : "") {  // NOLINT: converts
      if (const char* slash = std::strrchr(name_, '/')) {
        name_ = slash + 1;
      }
    }
    /// The part after the last '/'.
    const char* name() const { return name_; }

   private:
    const char* name_;
  };

  /// Takes a finished line: `length` bytes, the last of them a newline, followed by a zero byte.
  /// The text is the logger's and is gone when the call returns. Must not throw.
  typedef void (*Output)(LogLevel level, const char* line, std::size_t length);

  /// Begins a line that stands for a place in the source.
  Logger(SourceFile file, int line, LogLevel level);
  /// Hands the line over.
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  /// Where the text of the line goes.
  std::ostream& stream() { return stream_; }

  /// The threshold: lines below it are not worth building. INFO until set.
  static LogLevel logLevel();
  /// Sets the threshold.
  static void setLogLevel(LogLevel level);

  /// Where lines go from now on; null: back to standard error.
  static void setOutput(Output output);

 private:
  LogLevel level_;
  std::ostringstream stream_;  // the line: its head from the beginning, then the text
};

}  // namespace BaseLib

#endif  // __cplusplus

#endif

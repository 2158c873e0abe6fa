/// @file
/// BaseLib::Logger: a stream for a single log line.
///
///     using BaseLib::Logger;
///     Logger(__FILE__, __LINE__, Logger::INFO).stream() << "started, pid " << pid;
///
/// The object collects one line; its destructor passes the whole line to the output in a single
/// call, so that lines from different threads never mix. A line looks like this:
///
///     2024-05-01 12:30:15.123456 4711 INFO server.cpp:42 started, pid 4711
///
/// (local time, thread id, level, file and line, text). By default it goes to standard error in
/// one write(2). A host that logs elsewhere sets an output once:
///
///     void to_syslog(BaseLib::Logger::LogLevel level, const char* line, std::size_t length) {
///       syslog(level >= BaseLib::Logger::ERROR ? LOG_ERR : LOG_INFO, "%.*s", int(length), line);
///     }
///     ...
///     BaseLib::Logger::setOutput(to_syslog);
///
/// Hosts in C use stream_log_set_output and stream_log_set_level.
///
/// Alternatively a host provides its own libstream_log.so.1, built from this header, which defines
/// everything declared here and not defined inline.
///
/// The constructor does not check the threshold: test logLevel() first, to avoid building a line
/// that nobody will see. No level, FATAL included, ends the process.
///
/// Threads: setLogLevel, setOutput and logging are safe from any number of threads. The output is
/// called from every thread that logs, possibly from several at once. A Logger object belongs to
/// one thread.
///
/// A host that is compiled with a macro of a level's name, such as -DDEBUG, cannot write
/// Logger::DEBUG; it can write BaseLib::Logger::LogLevel(STREAM_LOG_DEBUG).
#ifndef STREAM_LOG_LOGGER_H
#define STREAM_LOG_LOGGER_H

#include <stddef.h>

/// The levels of BaseLib::Logger, for C.
enum StreamLogLevel {
  STREAM_LOG_TRACE = 0,  ///< for developers only
  STREAM_LOG_DEBUG = 1,  ///< each step of a call
  STREAM_LOG_INFO = 2,   ///< each call
  STREAM_LOG_WARN = 3,   ///< something went wrong and was handled
  STREAM_LOG_ERROR = 4,  ///< something went wrong
  STREAM_LOG_FATAL = 5   ///< the host cannot continue
};

#ifdef __cplusplus
extern "C" {
#endif

/// @name For hosts in C
/// Threshold and output are shared with BaseLib::Logger. Safe from any number of threads; none of
/// these functions blocks.
/// @{

/// Returns the threshold; lines of a lower level are not written.
__attribute__((visibility("default"))) int stream_log_level(void);

/// Sets the threshold. Numbers outside the range of levels stand for the lowest or highest one.
__attribute__((visibility("default"))) void stream_log_set_level(int level);

/// Sets where lines go from now on; null: back to standard error. `line` has `length` bytes, the
/// last of them a newline, followed by a zero byte, and is valid only during the call. The output
/// is called from every thread that logs, possibly from several at once. A thread that is in the
/// middle of a line may still pass it to the previous output.
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

// Hosts have macros of these names, which would replace the levels. They are restored below.
#pragma push_macro("TRACE")
#pragma push_macro("DEBUG")
#pragma push_macro("INFO")
#pragma push_macro("WARN")
#pragma push_macro("ERROR")
#pragma push_macro("FATAL")
#undef TRACE
#undef DEBUG
#undef INFO
#undef WARN
#undef ERROR
#undef FATAL

/// Shared by hosts and libraries.
namespace BaseLib {

/// A stream for a single log line, see the top of this file.
class __attribute__((visibility("default"))) Logger {
 public:
  /// Severity, in increasing order.
  enum LogLevel { TRACE, DEBUG, INFO, WARN, ERROR, FATAL };

  /// A source file's name: the part of a path after its last '/'. Keeps a pointer into the given
  /// string, which must outlive it; __FILE__ does.
  class SourceFile {
   public:
    /// Null stands for "".
    SourceFile(const char* path) : name_(path != nullptr ? path : "") {
      if (const char* slash = std::strrchr(name_, '/')) {
        name_ = slash + 1;
      }
    }
    /// The part after the last '/'.
    const char* name() const { return name_; }

   private:
    const char* name_;
  };

  /// Receives a finished line: `length` bytes, the last of them a newline, followed by a zero byte.
  /// The line is valid only during the call. Must not throw.
  typedef void (*Output)(LogLevel level, const char* line, std::size_t length);

  /// Begins a line, with its place in the source.
  Logger(SourceFile file, int line, LogLevel level);
  /// Passes the line to the output.
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  /// Collects the text of the line.
  std::ostream& stream() { return stream_; }

  /// The threshold, below which lines need not be built. INFO until set.
  static LogLevel logLevel();
  /// Sets the threshold.
  static void setLogLevel(LogLevel level);

  /// Sets where lines go from now on; null: back to standard error. A thread that is in the middle
  /// of a line may still pass it to the previous output.
  static void setOutput(Output output);

 private:
  LogLevel level_;
  std::ostringstream stream_;  // the line: its head from the beginning, then the text
};

}  // namespace BaseLib

#pragma pop_macro("TRACE")
#pragma pop_macro("DEBUG")
#pragma pop_macro("INFO")
#pragma pop_macro("WARN")
#pragma pop_macro("ERROR")
#pragma pop_macro("FATAL")

#endif  // __cplusplus

#endif

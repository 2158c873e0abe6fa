// The library's log in the tool: shown, written to a file, or kept until something fails. Only the
// log says what a call did with the servers, so commands can listen to it, too.
#ifndef RUVO_TOOLS_CLI_LIBRARY_LOG_H
#define RUVO_TOOLS_CLI_LIBRARY_LOG_H

#include <stream_log/logger.h>

#include <functional>
#include <optional>
#include <string>

#include "log_events.h"

using LogLevel = BaseLib::Logger::LogLevel;

// Receives a line of the log. Called in the threads that call the library, in one at a time.
using LogListener = std::function<void(const LogEvent& event)>;

struct LogOptions {
  std::optional<LogLevel> level;  // show lines from this level on; none: only if something fails
  std::string file;               // empty: standard error
  bool show_passwords = false;    // else they are hidden, in every output
};

// Takes over the library's log. Throws Failure if the file cannot be opened.
void open_log(const LogOptions& wanted);

// Throws Failure if the file has not taken every line.
void require_log_written();

// Shows the kept lines on standard error: the latest warnings and errors.
void show_kept_lines();

// Receives lines from `level` on while it exists. REQUIRES: no other LogListening exists.
class LogListening {
 public:
  LogListening(LogLevel level, LogListener wanted);
  ~LogListening();
  LogListening(const LogListening&) = delete;
  LogListening& operator=(const LogListening&) = delete;
};

#endif

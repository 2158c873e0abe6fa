#include "library_log.h"

#include <ruvo/log_io.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "exit_status.h"

namespace {

constexpr LogLevel quiet_level = BaseLib::Logger::WARN;  // lines from it on are kept by default
constexpr std::size_t max_kept_lines = 20;

// All guarded by `mutex`.
std::mutex mutex;
LogOptions options;
Log_IO_FILE sink;
bool is_log_written = true;
std::vector<std::string> kept_lines;
LogLevel listener_level = BaseLib::Logger::FATAL;
LogListener listener;

bool is_shown() { return options.level.has_value() || !options.file.empty(); }
LogLevel shown_level() { return options.level.value_or(quiet_level); }

// The library logs a password that is refused.
std::string without_password(const LogEvent& event, std::string line) {
  if (const std::string password = event.field(Field::password);
      !password.empty() && !options.show_passwords) {
    line.replace(line.rfind(password), password.size(), "(hidden, see --show-passwords)");
  }
  return line;
}

void take_line(LogLevel level, const char* text, std::size_t length) {
  const std::scoped_lock lock(mutex);
  const LogEvent event = read_event({text, length});
  if (listener && level >= listener_level) {
    listener(event);
  }
  if (level < shown_level()) {
    return;
  }
  const std::string line = without_password(event, {text, length});
  if (!options.file.empty()) {
    is_log_written &=
        sink.write(line.data(), line.size()) == static_cast<int>(line.size()) && sink.flush() == 0;
  } else if (is_shown()) {
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
  } else if (reports_fault(event)) {
    kept_lines.push_back(line);
    if (kept_lines.size() > max_kept_lines) {
      kept_lines.erase(kept_lines.begin());
    }
  }
}

// Lines that nobody reads are not built.
void set_threshold() {
  BaseLib::Logger::setLogLevel(listener ? std::min(shown_level(), listener_level) : shown_level());
}

}  // namespace

void open_log(const LogOptions& wanted) {
  const std::scoped_lock lock(mutex);
  options = wanted;
  if (!options.file.empty()) {
    if (const int error = sink.open(options.file.c_str(), nullptr, 0, 0)) {
      throw Failure(unwritable_output, "cannot write the log " + options.file + ": " +
                                           std::generic_category().message(error));
    }
  }
  BaseLib::Logger::setOutput(take_line);
  set_threshold();
}

void require_log_written() {
  const std::scoped_lock lock(mutex);
  if (!is_log_written) {
    throw Failure(unwritable_output, "cannot write the log " + options.file);
  }
}

void show_kept_lines() {
  const std::scoped_lock lock(mutex);
  for (const std::string& line : kept_lines) {
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
  }
}

LogListening::LogListening(LogLevel level, LogListener wanted) {
  const std::scoped_lock lock(mutex);
  listener_level = level;
  listener = std::move(wanted);
  set_threshold();
}

LogListening::~LogListening() {
  const std::scoped_lock lock(mutex);
  listener = nullptr;
  set_threshold();
}

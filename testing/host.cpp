#include "host.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <ostream>
#include <utility>

#include "log_events.h"

namespace {

std::mutex mutex;
std::vector<LogCapture::Line> lines;  // guarded by mutex

void capture(BaseLib::Logger::LogLevel level, const char* line, std::size_t length) {
  const std::string_view text = cut_line({line, length}).text;
  const std::scoped_lock lock(mutex);
  lines.push_back({level, std::string(text)});
}

}  // namespace

LogCapture::LogCapture(BaseLib::Logger::LogLevel threshold) {
  clear();
  BaseLib::Logger::setOutput(capture);
  BaseLib::Logger::setLogLevel(threshold);
}

LogCapture::~LogCapture() {
  BaseLib::Logger::setOutput(nullptr);
  BaseLib::Logger::setLogLevel(BaseLib::Logger::FATAL);
}

std::vector<LogCapture::Line> LogCapture::take() {
  const std::scoped_lock lock(mutex);
  return std::exchange(lines, {});
}

int LogCapture::count(BaseLib::Logger::LogLevel level, const std::string& text) const {
  const std::scoped_lock lock(mutex);
  return static_cast<int>(std::count(lines.begin(), lines.end(), Line{level, text}));
}

int LogCapture::count_containing(const std::string& part) const {
  const std::scoped_lock lock(mutex);
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const Line& line) {
    return line.text.find(part) != std::string::npos;
  }));
}

std::ostream& operator<<(std::ostream& out, const LogCapture::Line& line) {
  return out << line.level << " \"" << line.text << '"';
}

int open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

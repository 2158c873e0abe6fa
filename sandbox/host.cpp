#include "host.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <ostream>
#include <utility>

namespace {

std::mutex mutex;
std::vector<LogCapture::Line> lines;  // guarded by mutex

// Drops "date time thread level place ", five words, and the newline at the end.
void capture(BaseLib::Logger::LogLevel level, const char* line, std::size_t length) {
  std::string text(line, length - 1);
  for (int word = 0; word < 5; ++word) {
    text.erase(0, text.find(' ') + 1);
  }
  const std::scoped_lock lock(mutex);
  lines.push_back({level, std::move(text)});
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

#include "host.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace {

std::mutex mutex;
std::vector<LogCapture::Line> lines;  // guarded by mutex

// Drops "date time thread level place ", five words, and the newline at the end.
void capture(BaseLib::Logger::LogLevel level, const char* line, std::size_t length) {
  std::string text(line, length - 1);
  for (int word = 0; word < 5; ++word) { text.erase(0, text.find(' ') + 1); }
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
  return static_cast<int>(std::count_if(lines.begin(), lines.end(),
                                        [&](const Line& line) { return line.text.find(part) != std::string::npos; }));
}

std::ostream& operator<<(std::ostream& out, const LogCapture::Line& line) {
  return out << line.level << " \"" << line.text << '"';
}

TempDir::TempDir() {
  std::string name = std::filesystem::temp_directory_path() / "ruvo-test-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) { throw std::runtime_error("no temporary folder"); }
  path_ = name;
}

TempDir::~TempDir() { std::filesystem::remove_all(path_); }

std::string TempDir::write(const std::string& name, const std::string& content) const {
  std::ofstream(path(name), std::ios::binary) << content;
  return path(name);
}

HostConfig::HostConfig(const std::string& common, const std::string& server) {
  const std::string redis_conf = dir_.write("redis.conf", "[common]\n" + common + "\n[server]\n" + server + "\n");
  path_ = dir_.write("sruvo.conf", "[redis_cfg]\nredis_cfg_path = " + redis_conf + "\n");
}

std::string all_pools_at(const std::string& addrs) {
  return "connect_timeout = 1000\nsocket_timeout = 1000\ntemp_server = " + addrs + "\npersist_server = " + addrs +
         "\npersonality_server = " + addrs;
}

QuietConsole::QuietConsole() : console_(dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  close(null);
}

QuietConsole::~QuietConsole() {
  std::fflush(stdout);
  dup2(console_, STDOUT_FILENO);
  close(console_);
}

int open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

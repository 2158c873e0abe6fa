#include "host_log.h"

#include <stream_log/logger.h>

#include <cstdio>
#include <mutex>
#include <set>
#include <string_view>

namespace {

// All guarded by `mutex`: an output is called from every thread that logs.
std::mutex mutex;
FILE* file = nullptr;
ServerEvents events;
std::set<std::string, std::less<>> ejected;

// The "ip:... port:..." of a line.
std::string server_in(std::string_view line) {
  const std::size_t begin = line.find("ip:");
  const std::size_t end = line.find(' ', line.find("port:", begin));
  return std::string(line.substr(begin, end - begin));
}

void count(std::string_view line) {
  const auto tells = [line](std::string_view text) {
    return line.find(text) != std::string_view::npos;
  };
  if (tells("| reset connection,")) {
    ++events.rebuilds;  // until the next line says that it failed
  } else if (tells("| reconnect to server") || tells("| failed to authenticate redis")) {
    --events.rebuilds;
    ++events.failed_rebuilds;
  } else if (tells(" invalid, failure count:")) {
    events.ejections += ejected.insert(server_in(line)).second ? 1 : 0;
  } else if (tells("start retry")) {
    ejected.erase(server_in(line));
    ++events.retries;
  }
}

void write(BaseLib::Logger::LogLevel, const char* line, std::size_t length) {
  const std::scoped_lock lock(mutex);
  count(std::string_view(line, length));
  static_cast<void>(std::fwrite(line, 1, length, file));
}

}  // namespace

bool open_log(const std::string& path) {
  file = std::fopen(path.c_str(), "a");
  if (file != nullptr) {
    BaseLib::Logger::setOutput(write);
    BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  }
  return file != nullptr;
}

void close_log() {
  BaseLib::Logger::setOutput(nullptr);
  static_cast<void>(std::fclose(file));
}

ServerEvents server_events() {
  const std::scoped_lock lock(mutex);
  return events;
}

#include "walk_log.h"

#include <stream_log/logger.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string_view>

namespace {

thread_local Walk walk;

// Guarded by `mutex`: every thread logs.
std::mutex mutex;
FILE* file = nullptr;
Ejections told;

// The server in "<before>IP port:N<after>", or nothing when the line does not read so.
std::string server_in(std::string_view line, std::string_view before, std::string_view after) {
  std::size_t begin = line.find(before);
  if (begin == std::string_view::npos || line.find(after, begin) == std::string_view::npos) {
    return {};
  }
  begin += before.size();
  constexpr std::string_view between = " port:";
  const std::size_t ip_end = line.find(between, begin);
  if (ip_end == std::string_view::npos) {
    return {};
  }
  const std::size_t port = ip_end + between.size();
  const std::size_t port_end = line.find_first_not_of("0123456789", port);
  return std::string(line.substr(begin, ip_end - begin)) + ':' +
         std::string(line.substr(port, port_end - port));
}

void take_line(BaseLib::Logger::LogLevel /*level*/, const char* text, std::size_t length) {
  const std::string_view line(text, length);
  const std::scoped_lock lock(mutex);
  if (file != nullptr) {
    static_cast<void>(std::fwrite(text, 1, length, file));
  }
  if (std::string server = server_in(line, "| reset connection,ip:", ""); !server.empty()) {
    walk.rebuilds.push_back(std::move(server));
  } else if (server = server_in(line, "null reply and reset connection to server ", " failed");
             !server.empty()) {
    walk.failed.push_back(std::move(server));
  } else if (server = server_in(line, "| server,ip:", " invalid"); !server.empty()) {
    told.ejections += told.present.insert(server).second ? 1 : 0;
    walk.passed_over.push_back(std::move(server));
  } else if (server = server_in(line, "| server, ip:", " start retry"); !server.empty()) {
    told.present.erase(server);
    ++told.retries;
  }
}

}  // namespace

bool open_walk_log(const std::string& path) {
  if (!path.empty() && (file = std::fopen(path.c_str(), "w")) == nullptr) {
    return false;
  }
  BaseLib::Logger::setOutput(take_line);
  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  return true;
}

void close_walk_log() {
  BaseLib::Logger::setOutput(nullptr);
  if (file != nullptr) {
    static_cast<void>(std::fclose(file));
  }
}

void begin_walk() { walk = {}; }

const Walk& current_walk() { return walk; }

void end_walk() {
  for (const std::string& server : walk.rebuilds) {
    if (std::count(walk.rebuilds.begin(), walk.rebuilds.end(), server) >
        std::count(walk.failed.begin(), walk.failed.end(), server)) {
      const std::scoped_lock lock(mutex);
      told.ended_by_rebuild += static_cast<long>(told.present.erase(server));
    }
  }
}

Ejections ejections() {
  const std::scoped_lock lock(mutex);
  return told;
}

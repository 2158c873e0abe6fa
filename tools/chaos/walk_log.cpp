#include "walk_log.h"

#include <stream_log/logger.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <utility>

#include "log_events.h"

namespace {

thread_local Walk walk;

// Guarded by `mutex`: every thread logs.
std::mutex mutex;
FILE* file = nullptr;
ServerEvents events;

void take_line(BaseLib::Logger::LogLevel /*level*/, const char* line, std::size_t length) {
  const LogEvent event = read_event({line, length});
  const std::string server = event.server();
  const std::scoped_lock lock(mutex);
  if (file != nullptr) {
    static_cast<void>(std::fwrite(line, 1, length, file));
  }
  switch (event.kind) {
    case EventKind::connection_broken:
      walk.met_broken = true;
      break;
    case EventKind::call_timed_out:
      walk.timed_out = true;
      break;
    case EventKind::not_sent_again:
      walk.may_have_run = true;
      break;
    case EventKind::rebuild:
      ++events.rebuilds;  // until a later line says that it failed
      walk.rebuilds.push_back(server);
      break;
    case EventKind::visit_failed:
      --events.rebuilds;
      ++events.failed_rebuilds;
      walk.failed.push_back(server);
      break;
    case EventKind::skipped:
      events.ejections += events.ejected.insert(server).second ? 1 : 0;
      walk.skipped.push_back(server);
      break;
    case EventKind::retry:
      events.ejected.erase(server);
      ++events.retries;
      break;
    default:
      break;
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
  if (FILE* const open = std::exchange(file, nullptr)) {
    static_cast<void>(std::fclose(open));
  }
}

void begin_walk() { walk = {}; }

const Walk& current_walk() { return walk; }

void end_walk() {
  for (const std::string& server : walk.rebuilds) {
    if (std::count(walk.rebuilds.begin(), walk.rebuilds.end(), server) >
        std::count(walk.failed.begin(), walk.failed.end(), server)) {
      const std::scoped_lock lock(mutex);
      events.ended_by_rebuild += static_cast<long>(events.ejected.erase(server));
    }
  }
}

ServerEvents server_events() {
  const std::scoped_lock lock(mutex);
  return events;
}

// How long a start-up takes with many servers and connections, some of them down, and what each
// ejected server costs a call that skips it.
#include <stream_log/logger.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "run_main.h"
#include "started_library.h"

namespace {

using Clock = std::chrono::steady_clock;
using BaseLib::Logger;

constexpr int repetitions = 7;
constexpr int calls = 2000;

struct Servers {
  int up;
  int down;
};

std::string list_of(const Servers& servers, const RedisServer& redis, const DownServer& down) {
  std::string list;
  for (int i = 0; i < servers.up + servers.down; ++i) {
    list += (i > 0 ? "," : "") + (i < servers.up ? redis.addr() : down.addr());
  }
  return list;
}

double microseconds_since(Clock::time_point begin) {
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// One pool has the servers; each of the others has one, the same in every row.
double start_time(const Servers& servers, int connections, const RedisServer& redis,
                  const DownServer& down) {
  const HostConfig config(pools_at(list_of(servers, redis, down), redis.addr(), redis.addr()),
                          "p_connect_num = " + std::to_string(connections));
  std::vector<double> times;
  for (int i = 0; i < repetitions; ++i) {
    const Clock::time_point begin = Clock::now();
    const StartedLibrary library(config.path());
    times.push_back(microseconds_since(begin));
  }
  return median(times);
}

void drop_line(Logger::LogLevel, const char*, std::size_t) {}

double call_time(const Servers& servers, Logger::LogLevel level, const RedisServer& redis,
                 const DownServer& down) {
  const HostConfig config(pools_at(list_of(servers, redis, down), redis.addr(), redis.addr()) +
                              "socket_timeout = 10000\n",
                          "p_server_failure_limit = 1\np_server_retry_timeout = 3600");
  const StartedLibrary library(config.path());
  const auto call = [] {
    if (RUVO_ExistsKey("key", eTempServer, nullptr) != RUVO_ABSENT) {
      throw std::runtime_error("a call failed");
    }
  };
  for (int i = 0; i < 2 * (servers.up + servers.down); ++i) {
    call();  // until the servers that are down are ejected
  }
  Logger::setLogLevel(level);
  std::vector<double> times;
  for (int i = 0; i < repetitions; ++i) {
    const Clock::time_point begin = Clock::now();
    for (int j = 0; j < calls; ++j) {
      call();
    }
    times.push_back(microseconds_since(begin) / calls);
  }
  Logger::setLogLevel(Logger::FATAL);
  return median(times);
}

int run(int /*argc*/, char** /*argv*/) {
  const RedisServer redis;
  const DownServer down;
  Logger::setLogLevel(Logger::FATAL);
  Logger::setOutput(drop_line);
  std::printf("start-up: servers  down  connections  ms\n");
  for (const Servers& servers : {Servers{1, 0}, Servers{2, 0}, Servers{1, 1}, Servers{20, 0},
                                 Servers{10, 10}, Servers{100, 0}}) {
    for (const int connections : {1, 16}) {
      std::printf("%17d %5d %12d  %.1f\n", servers.up + servers.down, servers.down, connections,
                  start_time(servers, connections, redis, down) / 1000);
    }
  }
  std::printf("\na call: servers  ejected  us silent  us at WARN\n");
  for (const Servers& servers :
       {Servers{2, 0}, Servers{1, 1}, Servers{8, 0}, Servers{4, 4}, Servers{1, 7}}) {
    std::printf("%15d %8d %10.1f %11.1f\n", servers.up + servers.down, servers.down,
                call_time(servers, Logger::FATAL, redis, down),
                call_time(servers, Logger::WARN, redis, down));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

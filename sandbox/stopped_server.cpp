#include "stopped_server.h"

#include <ruvo/ruvo.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <numeric>
#include <stdexcept>
#include <thread>

#include "logger.h"
#include "sandbox.h"

namespace {

using BaseLib::Logger;
using Clock = std::chrono::steady_clock;

constexpr std::size_t most_seconds = 1000;  // the last takes what comes later

Clock::rep begin = 0;
std::array<std::atomic<long>, most_seconds> lines;

std::size_t current_second() {
  const auto passed = std::chrono::duration_cast<std::chrono::seconds>(
      Clock::now().time_since_epoch() - Clock::duration(begin));
  return std::min(static_cast<std::size_t>(passed.count()), most_seconds - 1);
}

void count_line(Logger::LogLevel, const char*, std::size_t) { ++lines[current_second()]; }

void call_until(const std::stop_token& stop, std::vector<SecondOfCalls>& seconds) {
  while (!stop.stop_requested()) {
    const Clock::time_point from = Clock::now();
    const bool failed = RUVO_ExistsKey("key", eTempServer, nullptr) == RUVO_ERR_FAILED;
    const double taken = std::chrono::duration<double, std::milli>(Clock::now() - from).count();
    SecondOfCalls& second = seconds[current_second()];
    ++second.calls;
    second.failed += failed ? 1 : 0;
    second.slowest_ms = std::max(second.slowest_ms, taken);
  }
}

long calls_in(const std::vector<SecondOfCalls>& seconds, int from, int to) {
  return std::accumulate(seconds.begin() + from, seconds.begin() + to, 0L,
                         [](long sum, const SecondOfCalls& one) { return sum + one.calls; });
}

}  // namespace

std::vector<SecondOfCalls> calls_with_a_stopped_server(const StoppedServer& run) {
  const RedisServer good;
  const RedisServer hangs;
  const std::string addrs = good.addr() + "," + hangs.addr();
  const HostConfig config(
      "connect_timeout = 200\nsocket_timeout = " + std::to_string(run.socket_timeout_ms) + "\n" +
          run.keys + pools_at(addrs, good.addr(), good.addr()),
      "p_connect_num = 2");
  Logger::setOutput(count_line);
  Logger::setLogLevel(Logger::WARN);
  {
    const QuietConsole quiet;
    if (RUVO_Init(config.path()) != RUVO_OK) {
      throw std::runtime_error("RUVO_Init failed");
    }
  }
  std::fill(lines.begin(), lines.end(), 0);
  const Clock::time_point start = Clock::now();
  begin = start.time_since_epoch().count();
  const auto wait = [start](int until) {
    std::this_thread::sleep_until(start + std::chrono::seconds(until));
  };
  std::vector<std::vector<SecondOfCalls>> of_threads(static_cast<std::size_t>(run.threads),
                                                     std::vector<SecondOfCalls>(most_seconds));
  {
    std::vector<std::jthread> threads;
    threads.reserve(of_threads.size());
    for (std::vector<SecondOfCalls>& seconds : of_threads) {
      threads.emplace_back([&seconds](const std::stop_token& stop) { call_until(stop, seconds); });
    }
    wait(run.before);
    hangs.signal(SIGSTOP);
    wait(run.before + run.stopped);
    hangs.signal(SIGCONT);
    wait(run.before + run.stopped + run.after);
  }
  RUVO_Fini();
  Logger::setOutput(nullptr);
  std::vector<SecondOfCalls> all(static_cast<std::size_t>(run.before + run.stopped + run.after));
  for (std::size_t second = 0; second < all.size(); ++second) {
    SecondOfCalls& sum = all[second];
    sum.lines = lines[second];
    for (const std::vector<SecondOfCalls>& seconds : of_threads) {
      sum.calls += seconds[second].calls;
      sum.failed += seconds[second].failed;
      sum.slowest_ms = std::max(sum.slowest_ms, seconds[second].slowest_ms);
    }
  }
  return all;
}

double worst_share(const std::vector<SecondOfCalls>& seconds, int until, int from, int to,
                   int window) {
  const double usual = static_cast<double>(calls_in(seconds, 0, until)) / until * window;
  double worst = static_cast<double>(calls_in(seconds, from, from + window));
  for (int second = from; second + window <= to; ++second) {
    worst = std::min(worst, static_cast<double>(calls_in(seconds, second, second + window)));
  }
  return worst / usual;
}

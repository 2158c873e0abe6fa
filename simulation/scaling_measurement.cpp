// Measures the library in the setting of scaling_simulation.cpp, to check the model: threads that
// read one key, for several numbers of threads and connections, without auto_pipelining and with
// it, as CSV. Two kinds of server: a Redis on loopback, and the same behind a delaying proxy.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "logger.h"
#include "run_main.h"
#include "started_library.h"
#include "tcp_proxy.h"

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::chrono::microseconds each_way(2500);
constexpr std::chrono::seconds duration(1);
constexpr const char* shared = "auto_pipelining = true\n";
constexpr std::array<std::size_t, 3> thread_counts{1, 4, 16};
constexpr std::array<std::size_t, 4> connection_counts{1, 4, 8, 32};

// Reads until the time is over; returns the latencies in microseconds.
void read_key(std::vector<double>& latencies, std::latch& all_ready) {
  all_ready.arrive_and_wait();
  const auto end = Clock::now() + duration;
  for (auto called = Clock::now(); called < end; called = Clock::now()) {
    const char* data = nullptr;
    unsigned long len = 0;
    if (RUVO_QueryKey("key", &data, &len, eTempServer, nullptr) != RUVO_OK) {
      latencies.clear();  // how a thread reports a failure to its caller
      return;
    }
    RUVO_FreeResult(data);
    latencies.push_back(Microseconds(Clock::now() - called).count());
  }
}

void measure(const char* series, const std::string& addr, std::size_t threads,
             std::size_t connections, const char* options) {
  const HostConfig config(all_pools_at(addr) + options,
                          "p_connect_num = " + std::to_string(connections));
  const StartedLibrary library(config.path());
  std::vector<std::vector<double>> of_threads(threads);
  {
    std::latch all_ready(static_cast<std::ptrdiff_t>(threads));
    std::vector<std::jthread> running;
    running.reserve(threads);
    for (auto& latencies : of_threads) {
      running.emplace_back([&latencies, &all_ready] { read_key(latencies, all_ready); });
    }
    running.clear();  // joins
  }

  std::vector<double> all;
  for (const auto& latencies : of_threads) {
    if (latencies.empty()) {
      throw std::runtime_error("a read failed");
    }
    all.insert(all.end(), latencies.begin(), latencies.end());
  }
  std::sort(all.begin(), all.end());
  double sum = 0;
  for (const double latency : all) {
    sum += latency;
  }
  const auto count = static_cast<double>(all.size());
  std::printf("%s,1,%zu,%zu,1,%.0f,%.1f,%.1f,%.1f\n", series, threads, connections,
              count / std::chrono::duration<double>(duration).count(), sum / count,
              all[all.size() / 2], all[all.size() * 99 / 100]);
  std::fflush(stdout);
}

int run(int /*argc*/, char** /*argv*/) {
  BaseLib::Logger::setLogLevel(BaseLib::Logger::FATAL);
  const RedisServer redis;
  redis.ask("set key value");
  const TcpProxy proxy(redis.port(), each_way);
  std::printf(
      "series,hosts,threads,connections,servers,requests_per_second,mean_us,p50_us,p99_us\n");
  for (const std::size_t threads : thread_counts) {
    for (const std::size_t connections : connection_counts) {
      measure("loopback", redis.addr(), threads, connections, "");
      measure("far away", proxy.addr(), threads, connections, "");
      measure("loopback shared", redis.addr(), threads, connections, shared);
      measure("far away shared", proxy.addr(), threads, connections, shared);
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

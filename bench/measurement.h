// Measures one case: an operation with a number of threads and connections, on each side.
#ifndef RUVO_BENCH_MEASUREMENT_H
#define RUVO_BENCH_MEASUREMENT_H

#include <array>
#include <chrono>
#include <cstddef>
#include <vector>

#include "latency_histogram.h"
#include "operations.h"
#include "sides.h"

struct Case {
  const Operation* operation;
  std::size_t threads;
  std::size_t connections;  // of every side but hiredis, which has one per thread
  bool info_log = false;  // the library logs at INFO to a file; otherwise at WARN, which is silent
  std::chrono::microseconds round_trip{0};  // of the network to the server, beyond loopback
  std::vector<Side> sides;                  // those that are measured
};

struct Pace {
  std::size_t rounds;
  std::chrono::milliseconds slice;  // of each side in each round, at least
  Timeout bare_timeout;             // whether hiredis gets the same timeouts as the others
};

// A median and its quartiles; NaN if nothing was measured.
struct Spread {
  double median = 0;
  double lower = 0;
  double upper = 0;
};
Spread spread_of(std::vector<double> values);

struct SideResult {
  Spread calls_per_second;
  Spread cpu_us;             // of the calling threads, user and system, for each call
  Spread library_ratio;      // the library's rate over this side's, of each round
  Spread pipelined_ratio;    // the same with auto_pipelining
  Spread cpu_us_difference;  // the library's processor time less this side's, of each round
  LatencyHistogram latency;  // all rounds, nanoseconds
};

// By side; one that was not measured has no latencies.
using Result = std::array<SideResult, all_sides.size()>;

Result measure(const Case& one, const RedisServer& redis, const Pace& pace);

#endif

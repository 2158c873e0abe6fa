#include "measurement.h"

#include <algorithm>
#include <barrier>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "tcp_proxy.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t seed = 1;  // for the order of the sides

double thread_cpu_us() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) * 1e6 + static_cast<double>(used.tv_nsec) / 1e3;
}

struct Slice {
  double calls_per_second;
  double cpu_us;
};

// The counts of one thread in the current slice.
struct Share {
  std::uint64_t calls = 0;
  double cpu_us = 0;
};

// One side runs at a time, in short slices, each round in a different order: other load on the
// machine affects all sides alike.
std::vector<Side> order_of_slices(std::vector<Side> sides, std::size_t rounds) {
  std::mt19937_64 random(seed);
  std::vector<Side> order;
  for (std::size_t round = 0; round < rounds; ++round) {
    std::shuffle(sides.begin(), sides.end(), random);
    order.insert(order.end(), sides.begin(), sides.end());
  }
  return order;
}

// A slice is so long that the calls which its end cuts off do not matter. It is longer over a
// network, with large values, and if threads wait for each other's round trips.
std::chrono::milliseconds slice_of(const Case& one, const Pace& pace) {
  constexpr std::size_t round_trips = 40;
  constexpr std::size_t large = 1000000;  // bytes
  const auto waits_for_others = [](Side side) {
    return side == Side::library || side == Side::pool;
  };
  const std::size_t serial_round_trips =
      std::any_of(one.sides.begin(), one.sides.end(), waits_for_others)
          ? 2 * std::max<std::size_t>(one.threads / one.connections, 1)
          : 1;
  const auto network = std::chrono::ceil<std::chrono::milliseconds>(
      std::max(round_trips, serial_round_trips) * one.round_trip);
  return std::max(network, pace.slice * (one.operation->bytes >= large ? 4 : 1));
}

// Longer slices vary less, so fewer rounds are enough.
std::size_t rounds_of(std::chrono::milliseconds slice, const Pace& pace) {
  constexpr std::size_t enough = 11;
  const auto rounds_in_same_time = static_cast<std::size_t>(3 * pace.rounds * pace.slice / slice);
  return std::min(pace.rounds, std::max(enough, rounds_in_same_time));
}

// When a slice begins to count, and when it ends. Until it counts, the library's new connections
// set up their buffers, and the threads settle.
struct Period {
  Clock::time_point counts;
  Clock::time_point ends;
};

// Calls until the slice ends. Counts the calls that end in the counted part, at least one. The
// clock is read once for each call, on all sides.
template <typename Call>
Share call_through(const Period& period, LatencyHistogram& latency, const Call& call) {
  Share share;
  double cpu_before = thread_cpu_us();
  auto before = Clock::now();
  do {
    call();
    const auto after = Clock::now();
    if (after >= period.counts) {
      latency.record(static_cast<std::uint64_t>((after - before).count()));
      ++share.calls;
    } else {
      cpu_before = thread_cpu_us();
    }
    before = after;
  } while (before < period.ends);
  share.cpu_us = thread_cpu_us() - cpu_before;
  return share;
}

// The network to the server: loopback itself, or one with this round trip.
class Network : NoCopy {
 public:
  Network(const RedisServer& redis, std::chrono::microseconds round_trip) : port_(redis.port()) {
    if (round_trip.count() > 0) {
      proxy_.emplace(port_, round_trip / 2);
      port_ = proxy_->port();
    }
  }
  int port() const { return port_; }
  std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  int port_;
  std::optional<TcpProxy> proxy_;
};

// The library with the settings of a slice. It is restarted if the next slice needs others.
class LibraryOfSlices : NoCopy {
 public:
  LibraryOfSlices(std::string addr, std::string other_pools, std::size_t connections)
      : addr_(std::move(addr)), other_pools_(std::move(other_pools)), connections_(connections) {}

  void prepare_for(Side side) {
    if (side != Side::library && side != Side::pipelined) {
      return;
    }
    const auto wanted = side == Side::pipelined ? Pipelining::on : Pipelining::off;
    if (!library_ || wanted != pipelining_) {
      library_.reset();
      library_.emplace(addr_, other_pools_, connections_, wanted);
      pipelining_ = wanted;
    }
  }

 private:
  std::string addr_;
  std::string other_pools_;
  std::size_t connections_;
  std::optional<Library> library_;
  Pipelining pipelining_ = Pipelining::off;
};

using Slices = std::array<std::vector<Slice>, all_sides.size()>;

// Evaluates the slices of each side: the n-th slices of all sides are of the same round.
void evaluate(const Slices& slices, Result& result) {
  const auto& library = slices[index_of(Side::library)];
  const auto& pipelined = slices[index_of(Side::pipelined)];
  for (std::size_t side = 0; side < slices.size(); ++side) {
    std::vector<double> rates;
    std::vector<double> cpu;
    std::vector<double> library_ratios;
    std::vector<double> pipelined_ratios;
    std::vector<double> cpu_us_differences;
    for (std::size_t round = 0; round < slices[side].size(); ++round) {
      const Slice& slice = slices[side][round];
      rates.push_back(slice.calls_per_second);
      cpu.push_back(slice.cpu_us);
      if (!library.empty()) {
        library_ratios.push_back(library[round].calls_per_second / slice.calls_per_second);
        cpu_us_differences.push_back(library[round].cpu_us - slice.cpu_us);
      }
      if (!pipelined.empty()) {
        pipelined_ratios.push_back(pipelined[round].calls_per_second / slice.calls_per_second);
      }
    }
    result[side].calls_per_second = spread_of(std::move(rates));
    result[side].cpu_us = spread_of(std::move(cpu));
    result[side].library_ratio = spread_of(std::move(library_ratios));
    result[side].pipelined_ratio = spread_of(std::move(pipelined_ratios));
    result[side].cpu_us_difference = spread_of(std::move(cpu_us_differences));
  }
}

}  // namespace

Spread spread_of(std::vector<double> values) {
  if (values.empty()) {
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    return {none, none, none};
  }
  std::sort(values.begin(), values.end());
  const auto at = [&values](double part) {
    const double place = part * static_cast<double>(values.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const std::size_t above = std::min(below + 1, values.size() - 1);
    return std::lerp(values[below], values[above], place - std::floor(place));
  };
  return {at(0.5), at(0.25), at(0.75)};
}

Result measure(const Case& one, const RedisServer& redis, const Pace& pace) {
  std::optional<LogFile> log;
  if (one.info_log) {
    log.emplace();
  }
  const Network network(redis, one.round_trip);
  LibraryOfSlices library(network.addr(), redis.addr(), one.connections);
  BareConnections bare(network.port(), one.threads, pace.bare_timeout);
  HandWrittenPool pool(network.port(), one.connections);
  const Operation& operation = *one.operation;

  const std::chrono::milliseconds slice = slice_of(one, pace);
  // The first round has cold caches and small buffers, and does not count.
  const std::vector<Side> order = order_of_slices(one.sides, rounds_of(slice, pace) + 1);
  std::vector<Share> shares(one.threads);
  Slices slices;
  auto result = std::make_unique<Result>();
  std::size_t number = 0;  // of the slice
  Period period;
  // Threads meet before and after each slice; the last to arrive begins and ends it.
  std::barrier before_slice(static_cast<std::ptrdiff_t>(one.threads), [&]() noexcept {
    library.prepare_for(order[number]);
    period.counts = Clock::now() + slice / 5;
    period.ends = period.counts + slice;
  });
  std::barrier after_slice(static_cast<std::ptrdiff_t>(one.threads), [&]() noexcept {
    const std::chrono::duration<double> passed = Clock::now() - period.counts;
    Share sum;
    for (const Share& share : shares) {
      sum.calls += share.calls;
      sum.cpu_us += share.cpu_us;
    }
    const auto calls = static_cast<double>(sum.calls);
    if (number >= one.sides.size()) {
      slices[index_of(order[number])].push_back({calls / passed.count(), sum.cpu_us / calls});
    }
    ++number;
  });

  std::vector<std::array<LatencyHistogram, all_sides.size()>> latencies(one.threads);
  const auto work = [&](std::size_t thread) {
    for (std::size_t i = 0; i < order.size(); ++i) {
      before_slice.arrive_and_wait();
      LatencyHistogram unused;
      LatencyHistogram& latency =
          i < one.sides.size() ? unused : latencies[thread][index_of(order[i])];
      switch (order[i]) {
        case Side::library:
        case Side::pipelined:
          shares[thread] = call_through(period, latency, operation.through_library);
          break;
        case Side::hiredis:
          shares[thread] = call_through(period, latency, [&] { bare.run(operation, thread); });
          break;
        case Side::pool:
          shares[thread] = call_through(period, latency, [&] { pool.run(operation); });
          break;
      }
      after_slice.arrive_and_wait();
    }
  };
  {
    std::vector<std::jthread> running;
    running.reserve(one.threads);
    for (std::size_t thread = 0; thread < one.threads; ++thread) {
      running.emplace_back(work, thread);
    }
  }
  evaluate(slices, *result);
  for (const auto& of_thread : latencies) {
    for (std::size_t side = 0; side < all_sides.size(); ++side) {
      (*result)[side].latency.add(of_thread[side]);
    }
  }
  return *result;
}

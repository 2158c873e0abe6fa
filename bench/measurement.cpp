#include "measurement.h"

#include <algorithm>
#include <barrier>
#include <cmath>
#include <cstdint>
#include <ctime>
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

// What one thread has done in the present slice.
struct Share {
  std::uint64_t calls = 0;
  double cpu_us = 0;
};

// One side runs at a time, in short slices, each round in an order of its own: what else goes on
// in the machine falls on all sides alike.
std::vector<std::size_t> order_of_slices(std::size_t rounds) {
  std::mt19937_64 random(seed);
  std::vector<std::size_t> order;
  for (std::size_t round = 0; round < rounds; ++round) {
    std::array<std::size_t, sides.size()> one{};
    for (std::size_t side = 0; side < one.size(); ++side) {
      one[side] = side;
    }
    std::shuffle(one.begin(), one.end(), random);
    order.insert(order.end(), one.begin(), one.end());
  }
  return order;
}

// When a slice is over, and from when on it counts: until then the library's connections, which
// begin with the slice, find their buffers, and the threads their places.
struct Period {
  Clock::time_point counts;
  Clock::time_point ends;
};

// Calls until the slice is over; what ends while it counts is counted. That is one call at least.
// The clock is read once for each call, on all sides.
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

// The path to the server: loopback, or a proxy that delays.
class Path : NoCopy {
 public:
  Path(const RedisServer& redis, std::chrono::microseconds round_trip) : port_(redis.port()) {
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

// The library as a slice wants it. It is started anew when the slice wants the other kind.
class LibraryOfSlices : NoCopy {
 public:
  LibraryOfSlices(std::string addr, std::size_t connections)
      : addr_(std::move(addr)), connections_(connections) {}

  void prepare_for(Side side) {
    if (side != Side::library && side != Side::shared) {
      return;
    }
    const RoundTrips wanted = side == Side::shared ? RoundTrips::shared : RoundTrips::own;
    if (!library_ || wanted != round_trips_) {
      library_.reset();
      library_.emplace(addr_, connections_, wanted);
      round_trips_ = wanted;
    }
  }

 private:
  std::string addr_;
  std::size_t connections_;
  std::optional<Library> library_;
  RoundTrips round_trips_ = RoundTrips::own;
};

using Slices = std::array<std::vector<Slice>, sides.size()>;

// Evaluates the slices of each side, which correspond: the n-th of each are of one round.
void evaluate(const Slices& slices, Result& result) {
  const auto& library = slices[static_cast<std::size_t>(Side::library)];
  const auto& shared = slices[static_cast<std::size_t>(Side::shared)];
  for (std::size_t side = 0; side < sides.size(); ++side) {
    std::vector<double> rates;
    std::vector<double> cpu;
    std::vector<double> library_ratios;
    std::vector<double> shared_ratios;
    std::vector<double> cpu_less;
    for (std::size_t round = 0; round < library.size(); ++round) {
      const Slice& slice = slices[side][round];
      rates.push_back(slice.calls_per_second);
      cpu.push_back(slice.cpu_us);
      library_ratios.push_back(library[round].calls_per_second / slice.calls_per_second);
      shared_ratios.push_back(shared[round].calls_per_second / slice.calls_per_second);
      cpu_less.push_back(library[round].cpu_us - slice.cpu_us);
    }
    result[side].calls_per_second = spread_of(std::move(rates));
    result[side].cpu_us = spread_of(std::move(cpu));
    result[side].library_ratio = spread_of(std::move(library_ratios));
    result[side].shared_ratio = spread_of(std::move(shared_ratios));
    result[side].cpu_us_less = spread_of(std::move(cpu_less));
  }
}

}  // namespace

Spread spread_of(std::vector<double> values) {
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
  const Path path(redis, one.round_trip);
  LibraryOfSlices library(path.addr(), one.connections);
  BareConnections bare(path.port(), one.threads, pace.bare_timeout);
  HandWrittenPool pool(path.port(), one.connections);
  const Operation& operation = *one.operation;

  // Over a distance a slice must hold the round trips of all threads one after the other, twice.
  const bool is_far = one.round_trip.count() > 0;
  const std::chrono::milliseconds slice =
      is_far ? std::chrono::ceil<std::chrono::milliseconds>(2 * one.threads * one.round_trip)
             : pace.slice;
  const std::size_t rounds = is_far ? (pace.rounds + 3) / 4 : pace.rounds;
  // The first round finds caches cold and buffers small, and does not count.
  const std::vector<std::size_t> order = order_of_slices(rounds + 1);
  std::vector<Share> shares(one.threads);
  Slices slices;
  auto result = std::make_unique<Result>();
  std::size_t number = 0;  // of the slice
  Period period;
  // Threads meet before and after each slice; the last to come begins and ends it.
  std::barrier before_slice(static_cast<std::ptrdiff_t>(one.threads), [&]() noexcept {
    library.prepare_for(sides[order[number]]);
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
    if (number >= sides.size()) {
      slices[order[number]].push_back({calls / passed.count(), sum.cpu_us / calls});
    }
    ++number;
  });

  std::vector<std::array<LatencyHistogram, sides.size()>> latencies(one.threads);
  const auto work = [&](std::size_t thread) {
    for (std::size_t i = 0; i < order.size(); ++i) {
      before_slice.arrive_and_wait();
      LatencyHistogram unused;
      LatencyHistogram& latency = i < sides.size() ? unused : latencies[thread][order[i]];
      switch (sides[order[i]]) {
        case Side::library:
        case Side::shared:
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
    for (std::size_t side = 0; side < sides.size(); ++side) {
      (*result)[side].latency.add(of_thread[side]);
    }
  }
  return *result;
}

#include "measurement.h"

#include <algorithm>
#include <barrier>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <random>
#include <thread>

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

// Calls until the slice is over, once at least. The clock is read once for each call, on all sides.
template <typename Call>
Share call_until(Clock::time_point end, LatencyHistogram& latency, const Call& call) {
  Share share;
  const double cpu_before = thread_cpu_us();
  auto before = Clock::now();
  do {
    call();
    const auto after = Clock::now();
    latency.record(static_cast<std::uint64_t>((after - before).count()));
    ++share.calls;
    before = after;
  } while (before < end);
  share.cpu_us = thread_cpu_us() - cpu_before;
  return share;
}

using Slices = std::array<std::vector<Slice>, sides.size()>;

// Evaluates the slices of each side, which correspond: the n-th of each are of one round.
void evaluate(const Slices& slices, Result& result) {
  const auto& library = slices[static_cast<std::size_t>(Side::library)];
  for (std::size_t side = 0; side < sides.size(); ++side) {
    std::vector<double> rates;
    std::vector<double> cpu;
    std::vector<double> ratios;
    std::vector<double> cpu_less;
    for (std::size_t round = 0; round < library.size(); ++round) {
      const Slice& slice = slices[side][round];
      rates.push_back(slice.calls_per_second);
      cpu.push_back(slice.cpu_us);
      ratios.push_back(library[round].calls_per_second / slice.calls_per_second);
      cpu_less.push_back(library[round].cpu_us - slice.cpu_us);
    }
    result[side].calls_per_second = spread_of(std::move(rates));
    result[side].cpu_us = spread_of(std::move(cpu));
    result[side].ratio = spread_of(std::move(ratios));
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
  const Library library(redis.addr(), one.connections);
  BareConnections bare(redis.port(), one.threads, pace.bare_time_out);
  HandWrittenPool pool(redis.port(), one.connections);
  const Operation& operation = *one.operation;

  // The first round finds caches cold and buffers small, and does not count.
  const std::vector<std::size_t> order = order_of_slices(pace.rounds + 1);
  std::vector<Share> shares(one.threads);
  Slices slices;
  auto result = std::make_unique<Result>();
  std::size_t number = 0;  // of the slice
  Clock::time_point begin;
  // Threads meet before and after each slice; the last to come begins and ends it.
  std::barrier before_slice(static_cast<std::ptrdiff_t>(one.threads),
                            [&]() noexcept { begin = Clock::now(); });
  std::barrier after_slice(static_cast<std::ptrdiff_t>(one.threads), [&]() noexcept {
    const std::chrono::duration<double> passed = Clock::now() - begin;
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
      const auto end = begin + pace.slice;
      LatencyHistogram unused;
      LatencyHistogram& latency = i < sides.size() ? unused : latencies[thread][order[i]];
      switch (sides[order[i]]) {
        case Side::library:
          shares[thread] = call_until(end, latency, operation.through_library);
          break;
        case Side::hiredis:
          shares[thread] = call_until(end, latency, [&] { bare.run(operation, thread); });
          break;
        case Side::pool:
          shares[thread] = call_until(end, latency, [&] { pool.run(operation); });
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

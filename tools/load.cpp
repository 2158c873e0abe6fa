// The command `load`: threads that run a mix of operations, and how fast and how evenly that went.
#include <array>
#include <atomic>
#include <bit>
#include <charconv>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "commands.h"
#include "console.h"
#include "latency_histogram.h"
#include "operations.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int key_lifetime_s = 3600;  // should the tool not come to delete its keys
constexpr std::array percents{50.0, 90.0, 99.0, 99.9};
constexpr int bar_width = 50;
constexpr std::array family_names{"string", "hash", "list", "set"};

struct Mix {
  std::vector<const Operation*> operations;
  std::vector<int> weights;
  std::set<Family> families;
};

// "get=80,set=20"
Mix parse_mix(const std::string& text) {
  Mix mix;
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, ',');) {
    const std::size_t equals = part.find('=');
    const Operation* operation = find_operation(part.substr(0, equals));
    int weight = 0;
    const char* end = part.data() + part.size();
    if (operation == nullptr || equals == std::string::npos ||
        std::from_chars(part.data() + equals + 1, end, weight).ptr != end || weight < 1) {
      throw Failure(wrong_usage, "load: not OPERATION=WEIGHT in the mix: '" + part + "'");
    }
    mix.operations.push_back(operation);
    mix.weights.push_back(weight);
    mix.families.insert(operation->family);
  }
  if (mix.operations.empty()) {
    throw Failure(wrong_usage, "load: the mix is empty");
  }
  return mix;
}

std::string key_of(Family family, int number) {
  return std::string("ruvo_cli:load:") + family_names[static_cast<std::size_t>(family)] + ":" +
         std::to_string(number);
}

bool has_failed(int result) { return status_of_operation(result) >= failed; }

struct Worker {
  LatencyHistogram latencies;
  std::atomic<std::uint64_t> done{0};
  std::atomic<std::uint64_t> failed{0};
};

Arguments arguments_for(const Options& options, const LoadOptions& load_options) {
  Arguments arguments;
  arguments.pool = options.pool;
  arguments.field = "field";
  arguments.value.assign(static_cast<std::size_t>(load_options.value_size), 'x');
  arguments.ttl = key_lifetime_s;
  arguments.seconds = key_lifetime_s;
  arguments.increment = 1;
  arguments.end = -1;
  return arguments;
}

void work(const Options& options, const LoadOptions& load_options, const Mix& mix, unsigned seed,
          Worker& worker, const std::atomic<bool>& stop) {
  std::mt19937 random(seed);
  std::discrete_distribution<std::size_t> choose(mix.weights.begin(), mix.weights.end());
  std::uniform_int_distribution<int> choose_key(0, load_options.keys - 1);
  Arguments arguments = arguments_for(options, load_options);
  while (!stop.load(std::memory_order_relaxed)) {
    const Operation& operation = *mix.operations[choose(random)];
    arguments.key = key_of(operation.family, choose_key(random));
    const Clock::time_point begin = Clock::now();
    const int result = operation.run(arguments).result;
    worker.latencies.record(static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count()));
    worker.done.fetch_add(1, std::memory_order_relaxed);
    worker.failed.fetch_add(has_failed(result) ? 1 : 0, std::memory_order_relaxed);
  }
}

template <typename Action>
void for_all_keys(const LoadOptions& load_options, const Mix& mix, Action action) {
  for (const Family family : mix.families) {
    for (int number = 0; number < load_options.keys; ++number) {
      action(family, key_of(family, number));
    }
  }
}

// Keys for reads to find.
void store_keys(const Options& options, const LoadOptions& load_options, const Mix& mix) {
  constexpr std::array stores{"set", "hset", "lpush", "sadd"};  // by family
  Arguments arguments = arguments_for(options, load_options);
  for_all_keys(load_options, mix, [&](Family family, const std::string& key) {
    arguments.key = key;
    find_operation(stores.at(static_cast<std::size_t>(family)))->run(arguments);
  });
}

void delete_keys(const Options& options, const LoadOptions& load_options, const Mix& mix) {
  for_all_keys(load_options, mix, [&options](Family, const std::string& key) {
    RUVO_DeleteKey(key.c_str(), options.pool, nullptr);
  });
}

struct Outcome {
  double seconds = 0;
  std::uint64_t failed = 0;
  LatencyHistogram latencies;
};

double microseconds(std::uint64_t ns) { return static_cast<double>(ns) / 1000; }

double rate_of(const Outcome& outcome) {
  return static_cast<double>(outcome.latencies.total()) / outcome.seconds;
}

// A bar for each power of two between the shortest and the longest.
std::string drawing_of(const LatencyHistogram& latencies) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> bars;  // from, count
  std::uint64_t highest = 0;
  for (std::uint64_t from = std::bit_floor(std::max<std::uint64_t>(latencies.min(), 1));
       from <= latencies.max(); from *= 2) {
    bars.emplace_back(from, latencies.count_between(from, from * 2));
    highest = std::max(highest, bars.back().second);
  }
  std::string text;
  for (const auto& [from, count] : bars) {
    const std::uint64_t width = (count * bar_width + highest - 1) / highest;
    text += format("%12.1f  %-*s  %" PRIu64 "\n", microseconds(from), bar_width,
                   std::string(width, '#').c_str(), count);
  }
  return text;
}

std::string text_of(const Outcome& outcome) {
  const LatencyHistogram& latencies = outcome.latencies;
  std::string text =
      format("\noperations  %" PRIu64 " in %.1f s, %.0f a second\nfailed      %" PRIu64 "\n",
             latencies.total(), outcome.seconds, rate_of(outcome), outcome.failed);
  if (latencies.total() == 0) {
    return text;
  }
  text += format("\nlatency in microseconds\n%12s  %.1f\n%12s  %.1f\n", "mean",
                 latencies.mean() / 1000, "min", microseconds(latencies.min()));
  for (const double percent : percents) {
    text += format("%11g%%  %.1f\n", percent, microseconds(latencies.percentile(percent)));
  }
  text += format("%12s  %.1f\n\n%12s\n", "max", microseconds(latencies.max()), "from");
  return text + drawing_of(latencies);
}

nlohmann::json json_of(const Outcome& outcome) {
  nlohmann::json percentiles;
  for (const double percent : percents) {
    percentiles[format("%g", percent)] = microseconds(outcome.latencies.percentile(percent));
  }
  return {{"operations", outcome.latencies.total()},
          {"failed", outcome.failed},
          {"seconds", outcome.seconds},
          {"operations_per_second", rate_of(outcome)},
          {"latency_us",
           {{"min", microseconds(outcome.latencies.min())},
            {"mean", outcome.latencies.mean() / 1000},
            {"max", microseconds(outcome.latencies.max())},
            {"percentiles", percentiles}}}};
}

Outcome run(const Options& options, const LoadOptions& load_options, const Mix& mix) {
  const auto threads = static_cast<std::size_t>(load_options.threads);
  const auto workers = std::make_unique<Worker[]>(threads);
  const auto sum = [&](std::atomic<std::uint64_t> Worker::*counter) {
    std::uint64_t all = 0;
    for (std::size_t i = 0; i < threads; ++i) {
      all += (workers[i].*counter).load(std::memory_order_relaxed);
    }
    return all;
  };
  Outcome outcome;
  std::atomic<bool> stop{false};
  const Clock::time_point begin = Clock::now();
  {
    std::vector<std::jthread> running;
    for (std::size_t i = 0; i < threads; ++i) {
      running.emplace_back(
          [&, i] { work(options, load_options, mix, static_cast<unsigned>(i), workers[i], stop); });
    }
    std::uint64_t before = 0;
    for (int second = 1; second <= load_options.seconds && !wait_for_end(1000); ++second) {
      const std::uint64_t done = sum(&Worker::done);
      if (!options.json) {
        print(format("%4d s  %10" PRIu64 " operations  %8" PRIu64 " in this second  %" PRIu64
                     " failed\n",
                     second, done, done - before, sum(&Worker::failed)));
      }
      before = done;
    }
    stop = true;
  }
  outcome.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  outcome.failed = sum(&Worker::failed);
  for (std::size_t i = 0; i < threads; ++i) {
    outcome.latencies.add(workers[i].latencies);
  }
  return outcome;
}

}  // namespace

ExitStatus load(const Options& options, const LoadOptions& load_options) {
  const Mix mix = parse_mix(load_options.mix);
  block_end_signals();
  const Library library(options.config);
  library.require_ready();
  store_keys(options, load_options, mix);
  const Outcome outcome = run(options, load_options, mix);
  delete_keys(options, load_options, mix);
  if (options.json) {
    print_json(json_of(outcome));
  } else {
    print(text_of(outcome));
  }
  return outcome.failed == 0 ? succeeded : failed;
}

// The command `load`: threads that run a mix of operations, and their throughput and latency.
#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cinttypes>
#include <deque>
#include <nlohmann/json.hpp>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stop_token>
#include <thread>
#include <vector>

#include "commands.h"
#include "console.h"
#include "latency_histogram.h"
#include "library_log.h"
#include "numbers.h"
#include "operations.h"

namespace {

using Clock = std::chrono::steady_clock;

// The expiry of keys that cannot be deleted. Keys that the mix creates with an operation other than
// set, or makes persistent, have none.
constexpr int key_lifetime_s = 3600;
constexpr int max_failures_in_a_row = 10;  // of deletions; then the remaining keys are left
constexpr const char* key_prefix = "ruvo_cli:load:";
constexpr const char* key_word = "{key}";
constexpr std::chrono::milliseconds pause_after_failure{1};
constexpr std::array percents{50.0, 90.0, 99.0, 99.9};
constexpr int max_weight = 1000000;
constexpr int bar_width = 50;

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
    const std::optional<int> weight =
        equals != std::string::npos
            ? parse_number(std::string_view(part).substr(equals + 1), 1, max_weight)
            : std::nullopt;
    if (operation == nullptr || !weight) {
      throw Failure(wrong_usage, "load: not OPERATION=WEIGHT in the mix: '" + part + "'");
    }
    mix.operations.push_back(operation);
    mix.weights.push_back(*weight);
    mix.families.insert(operation->family);
  }
  if (mix.operations.empty()) {
    throw Failure(wrong_usage, "load: the mix is empty");
  }
  return mix;
}

std::string key_of(Family family, int number) {
  return key_prefix + std::string(traits_of(family).name) + ":" + std::to_string(number);
}

bool has_failed(int result) { return status_of_operation(result) >= failed; }

Arguments arguments_for(const Options& options, const LoadOptions& load_options) {
  Arguments arguments;
  arguments.pool = options.pool;
  arguments.value.assign(static_cast<std::size_t>(load_options.value_size), 'x');
  arguments.seconds = key_lifetime_s;
  arguments.increment = 1;
  arguments.end = -1;
  return arguments;
}

// Counters have separate fields: the other fields hold values that are not numbers.
const char* field_of(const Operation& operation) {
  const auto& parameters = operation.parameters;
  return std::find(parameters.begin(), parameters.end(), Parameter::increment) != parameters.end()
             ? "count"
             : "field";
}

// Only set has an expiry: the other operations would need a second command for it.
std::optional<int> ttl_of(const Operation& operation) {
  const bool is_set = std::string_view(operation.name) == traits_of(Family::string).store;
  return is_set ? std::optional(key_lifetime_s) : std::nullopt;
}

// Stores keys for the mix to work on.
class LoadKeys {
 public:
  LoadKeys(const Options& options, const LoadOptions& load_options, const Mix& mix)
      : options_(options), load_options_(load_options), mix_(mix) {
    Arguments arguments = arguments_for(options, load_options);
    for_all([&](Family family, const std::string& key) {
      const Operation& store = *find_operation(traits_of(family).store);
      arguments.key = key;
      arguments.field = field_of(store);
      store.run(arguments);
      RUVO_ExpireKey(key.c_str(), key_lifetime_s, options.pool, nullptr);
      return !is_end_wanted();
    });
  }

  ~LoadKeys() {
    if (!is_clean_) {
      clean_up();
    }
  }
  LoadKeys(const LoadKeys&) = delete;
  LoadKeys& operator=(const LoadKeys&) = delete;

  // Deletes these keys. Returns how many are or may be left.
  std::size_t clean_up() {
    is_clean_ = true;
    std::size_t left = mix_.families.size() * static_cast<std::size_t>(load_options_.keys);
    int failures = 0;
    for_all([&](Family, const std::string& key) {
      const bool is_deleted = RUVO_DeleteKey(key.c_str(), options_.pool, nullptr) == RUVO_OK;
      left -= is_deleted ? 1 : 0;
      failures = is_deleted ? 0 : failures + 1;
      return failures < max_failures_in_a_row;
    });
    return left;
  }

 private:
  // Calls the action for every key, until it returns false.
  template <typename Action>
  void for_all(Action action) const {
    for (const Family family : mix_.families) {
      for (int number = 0; number < load_options_.keys; ++number) {
        if (!action(family, key_of(family, number))) {
          return;
        }
      }
    }
  }

  const Options& options_;
  const LoadOptions& load_options_;
  const Mix& mix_;
  bool is_clean_ = false;
};

// The words of a command, separated by blanks, with the key inserted.
std::vector<std::string> words_of(const std::string& command, const std::string& key) {
  std::vector<std::string> words;
  std::istringstream parts(command);
  for (std::string part; parts >> part;) {
    words.push_back(part == key_word ? key : part);
  }
  return words;
}

// One thread's work and its counts. The time of a failed call counts, too.
class Worker {
 public:
  Worker(const Options& options, const LoadOptions& load_options, const Mix& mix, unsigned seed)
      : mix_(mix),
        raw_(load_options.raw),
        arguments_(arguments_for(options, load_options)),
        random_(seed),
        choose_operation_(mix.weights.begin(), mix.weights.end()),
        choose_key_(0, load_options.keys - 1) {}

  void work(const std::stop_token& stop) {
    block_end_signals();
    while (!stop.stop_requested()) {
      const Operation& operation = *mix_.operations[choose_operation_(random_)];
      arguments_.key = key_of(operation.family, choose_key_(random_));
      arguments_.field = field_of(operation);
      if (operation.family == Family::any) {
        arguments_.words = words_of(raw_, arguments_.key);
      }
      arguments_.ttl = ttl_of(operation);
      const Clock::time_point begin = Clock::now();
      const int result = operation.run(arguments_).result;
      latencies.record(static_cast<std::uint64_t>(
          std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count()));
      if (has_failed(result)) {
        failed.fetch_add(1, std::memory_order_relaxed);
        std::this_thread::sleep_for(pause_after_failure);
      } else {
        done.fetch_add(1, std::memory_order_relaxed);
      }
    }
  }

  std::atomic<std::uint64_t> done{0};
  std::atomic<std::uint64_t> failed{0};
  LatencyHistogram latencies;  // of all calls; read it after the thread has ended

 private:
  const Mix& mix_;
  const std::string& raw_;
  Arguments arguments_;
  std::mt19937 random_;
  std::discrete_distribution<std::size_t> choose_operation_;
  std::uniform_int_distribution<int> choose_key_;
};

struct Outcome {
  double seconds = 0;
  std::uint64_t done = 0;
  std::uint64_t failed = 0;
  std::size_t keys_left = 0;
  LatencyHistogram latencies;
};

double microseconds(std::uint64_t ns) { return static_cast<double>(ns) / 1000; }

double rate_of(const Outcome& outcome) {
  return static_cast<double>(outcome.done) / outcome.seconds;
}

// A bar for each power of two between the shortest and the longest latency.
std::string histogram_text(const LatencyHistogram& latencies) {
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
             outcome.done, outcome.seconds, rate_of(outcome), outcome.failed);
  if (latencies.total() == 0) {
    return text;
  }
  text += format("\nlatency in microseconds, of all calls\n%12s  %.1f\n%12s  %.1f\n", "mean",
                 latencies.mean() / 1000, "min", microseconds(latencies.min()));
  for (const double percent : percents) {
    text += format("%11g%%  %.1f\n", percent, microseconds(latencies.percentile(percent)));
  }
  text += format("%12s  %.1f\n\n%12s\n", "max", microseconds(latencies.max()), "from");
  return text + histogram_text(latencies);
}

nlohmann::json json_of(const Outcome& outcome) {
  nlohmann::json percentiles;
  for (const double percent : percents) {
    percentiles[format("%g", percent)] = microseconds(outcome.latencies.percentile(percent));
  }
  return {{"operations", outcome.done},
          {"failed", outcome.failed},
          {"keys_left", outcome.keys_left},
          {"seconds", outcome.seconds},
          {"operations_per_second", rate_of(outcome)},
          {"latency_us",
           {{"min", microseconds(outcome.latencies.min())},
            {"mean", outcome.latencies.mean() / 1000},
            {"max", microseconds(outcome.latencies.max())},
            {"percentiles", percentiles}}}};
}

Outcome run(const Options& options, const LoadOptions& load_options, const Mix& mix) {
  std::deque<Worker> workers;
  for (int i = 0; i < load_options.threads; ++i) {
    workers.emplace_back(options, load_options, mix, static_cast<unsigned>(i));
  }
  const auto sum = [&workers](std::atomic<std::uint64_t> Worker::*counter) {
    return std::accumulate(workers.begin(), workers.end(), std::uint64_t{0},
                           [counter](std::uint64_t all, const Worker& worker) {
                             return all + (worker.*counter).load(std::memory_order_relaxed);
                           });
  };
  Outcome outcome;
  const Clock::time_point begin = Clock::now();
  {
    std::vector<std::jthread> threads;
    threads.reserve(workers.size());
    for (Worker& worker : workers) {
      threads.emplace_back([&worker](const std::stop_token& stop) { worker.work(stop); });
    }
    std::uint64_t done_before = 0;
    std::uint64_t failed_before = 0;
    for (int second = 1; second <= load_options.seconds && !wait_for_end(1000); ++second) {
      const std::uint64_t done = sum(&Worker::done);
      const std::uint64_t failed = sum(&Worker::failed);
      if (!options.json) {
        print(format("%4d s  %10" PRIu64 " operations  %8" PRIu64 " in this second  %" PRIu64
                     " failed in this second\n",
                     second, done, done - done_before, failed - failed_before));
      }
      done_before = done;
      failed_before = failed;
    }
  }
  outcome.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  outcome.done = sum(&Worker::done);
  outcome.failed = sum(&Worker::failed);
  for (const Worker& worker : workers) {
    outcome.latencies.add(worker.latencies);
  }
  return outcome;
}

}  // namespace

ExitStatus load(const Options& options, const LoadOptions& load_options) {
  const Mix mix = parse_mix(load_options.mix);
  if (mix.families.contains(Family::any)) {
    const std::vector<std::string> words = words_of(load_options.raw, key_word);
    if (words.empty()) {
      throw Failure(wrong_usage, "load: --raw has no words");
    }
    warn_of_mode(words);
  }
  const Library library(options.config);
  library.require_ready();
  catch_end_signals();
  LoadKeys keys(options, load_options, mix);
  Outcome outcome = run(options, load_options, mix);
  outcome.keys_left = keys.clean_up();
  if (options.json) {
    print_json(json_of(outcome));
  } else {
    print(text_of(outcome));
  }
  if (outcome.keys_left > 0) {
    std::fprintf(stderr,
                 "ruvo_cli: load: up to %zu keys %s* could not be deleted in pool %s; keys that "
                 "operations other than set have created do not expire\n",
                 outcome.keys_left, key_prefix, pool_name(options.pool));
  }
  if (outcome.failed > 0) {
    show_kept_lines();
  }
  return outcome.failed == 0 ? succeeded : failed;
}

// The host of scripts/site.sh: threads that write a key and read it back. Prints the results and
// the most frequent kind of log line each second, and the sums and all kinds at the end.
//
//   site_host --config sruvo.conf --seconds 20 --threads 16
#include <ruvo/ruvo.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "calling_host.h"
#include "log_events.h"
#include "run_main.h"

namespace {

constexpr int key_seconds = 600;

// Lines that differ only in their keys and numbers are of one kind.
std::string kind_of(const LogEvent& event) {
  std::string kind;
  for (const char one : event.text) {
    const bool is_digit = '0' <= one && one <= '9';
    if (one != '\n' && (!is_digit || kind.empty() || kind.back() != 'N')) {
      kind += is_digit ? 'N' : one;
    }
  }
  return kind;
}

// The kinds of log lines since the last take().
class LogKinds {
 public:
  using Counts = std::map<std::string, long>;

  void read(std::string_view line) {
    const std::string kind = kind_of(read_event(line));
    const std::scoped_lock lock(mutex_);
    ++counts_[kind];
  }
  Counts take() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(counts_, {});
  }

 private:
  std::mutex mutex_;
  Counts counts_;
};

using Kinds = std::vector<std::pair<std::string, long>>;

Kinds most_frequent_first(const LogKinds::Counts& counts) {
  Kinds kinds(counts.begin(), counts.end());
  std::stable_sort(kinds.begin(), kinds.end(),
                   [](const auto& one, const auto& other) { return one.second > other.second; });
  return kinds;
}

// A thread's key holds the number of its latest write. A failed write may have been carried out.
struct Key {
  std::string name;
  long acknowledged = 0;  // the latest write that is known to be stored
  long written = 0;
  bool is_read_next = false;
};

class Site {
 public:
  explicit Site(int threads) : keys_(static_cast<std::size_t>(threads)) {
    for (std::size_t thread = 0; thread < keys_.size(); ++thread) {
      keys_[thread].name = "site_host:" + std::to_string(thread);
    }
  }

  int call(int thread) {
    Key& key = keys_[static_cast<std::size_t>(thread)];
    const int result = key.is_read_next ? read(key) : write(key);
    key.is_read_next = !key.is_read_next;
    return result;
  }
  long lost_writes() const { return lost_writes_; }

 private:
  static int write(Key& key) {
    const std::string text = std::to_string(++key.written);
    const int result = RUVO_InsertKey(key.name.c_str(), text.data(), text.size(), key_seconds,
                                      eTempServer, nullptr);
    if (result == RUVO_OK) {
      key.acknowledged = key.written;
    }
    return result;
  }

  int read(Key& key) {
    const char* data = nullptr;
    unsigned long length = 0;
    const int result = RUVO_QueryKey(key.name.c_str(), &data, &length, eTempServer, nullptr);
    long value = 0;
    if (result == RUVO_OK) {
      std::from_chars(data, data + length, value);
    }
    RUVO_FreeResult(data);
    if (result == RUVO_OK || result == RUVO_ERR_NOT_FOUND) {
      lost_writes_ += std::max(key.acknowledged - value, 0L);
      key.acknowledged = std::min(key.acknowledged, value);  // a loss is counted once
    }
    return result;
  }

  std::vector<Key> keys_;
  std::atomic<long> lost_writes_{0};  // acknowledged, and later missing
};

void print_row(const std::string& when, const SecondOfCalls& calls, long lost_writes,
               const std::string& log_kind) {
  std::printf("%6s %9ld calls %9ld failed %8.1f ms slowest %7ld writes lost %6ld lines  %s\n",
              when.c_str(), calls.calls, calls.failed, calls.slowest_ms, lost_writes, calls.lines,
              log_kind.c_str());
  std::fflush(stdout);
}

int run(int argc, char** argv) {
  std::string config;
  int seconds = 20;
  int threads = 16;
  bool require_none = false;
  CLI::App app("Writes and reads from many threads, and prints the results of each second");
  app.add_option("--config", config, "Local configuration file")->required();
  app.add_option("--seconds", seconds, "How long to run")
      ->capture_default_str()
      ->check(CLI::Range(1, 9999));
  app.add_option("--threads", threads, "Threads that call")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_flag("--require-none", require_none, "Exit with 1 when a call failed");
  CLI11_PARSE(app, argc, argv);

  Site site(threads);
  LogKinds log_kinds;
  CallingHost host(
      config.c_str(), threads, [&site](int thread) { return site.call(thread); },
      [&log_kinds](std::string_view line) { log_kinds.read(line); });
  std::printf("start-up: %d, %s\n", host.start_result(), ruvo_result_text(host.start_result()));
  LogKinds::Counts all_counts;
  SecondOfCalls sum;
  long lost_before = 0;
  for (int second = 0; second < seconds; ++second) {
    host.wait_until(std::chrono::seconds(second + 1));
    const long lost = site.lost_writes();
    const LogKinds::Counts counts = log_kinds.take();
    const Kinds kinds = most_frequent_first(counts);
    print_row(std::to_string(second + 1) + " s", host.second(second), lost - lost_before,
              kinds.empty() ? "" : kinds.front().first);
    lost_before = lost;
    sum += host.second(second);
    for (const auto& [kind, count] : counts) {
      all_counts[kind] += count;
    }
  }
  host.stop();
  std::puts("\n--- in all");
  print_row("sum", sum, site.lost_writes(), "");
  std::puts("\n--- lines of the log, by kind");
  for (const auto& [kind, count] : most_frequent_first(all_counts)) {
    std::printf("%8ld %s\n", count, kind.c_str());
  }
  return require_none && sum.failed > 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

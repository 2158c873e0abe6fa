// The library, with and without auto_pipelining, beside bare hiredis and beside the plainest
// hand-written pool, in one run against a Redis that the benchmark starts. Each round gives each
// side a short slice of time; the ratios are taken round by round, and the table shows their median
// and quartiles.
//
//   ruvo_bench             what the aims of bench/tables.py ask for, in some minutes
//   ruvo_bench --quick     auto_pipelining on one connection, on loopback and over a network
//   ruvo_bench --full      every operation, thread count, connect number and size
//   ruvo_bench --operation GET --bytes 100 --threads 4 --connections 4
//   ruvo_bench --help      lists the rest
#include <stream_log/logger.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "measurement.h"
#include "run_main.h"

namespace {

constexpr std::size_t as_many_as_threads = 0;  // in place of a number of connections

const std::vector<std::size_t> all_bytes{16, 100, 10000, 1000000};
const std::vector<std::size_t> all_threads{1, 2, 4, 16, 64};
const std::vector<std::size_t> all_connections{1, 4, 16, as_many_as_threads};

struct Options {
  bool full = false;
  bool quick = false;
  std::vector<std::string> operations;
  std::vector<std::size_t> bytes;
  std::vector<std::size_t> threads;
  std::vector<std::size_t> connections;
  std::size_t rounds = 41;
  std::size_t slice_ms = 15;
  bool bare_time_outs = false;
  bool info_log = false;
  std::size_t round_trip_us = 0;
  std::string csv;
};

// The operations of each size, made once, and what they read stored in Redis.
class Operations {
 public:
  explicit Operations(const RedisServer& redis) : context_(connect_to(redis.port())) {}

  const std::vector<Operation>& on(std::size_t bytes) {
    auto [place, is_new] = by_bytes_.try_emplace(bytes);
    if (is_new) {
      place->second = operations_on(bytes);
      prepare(*context_, bytes);
    }
    return place->second;
  }

 private:
  Context context_;
  std::map<std::size_t, std::vector<Operation>> by_bytes_;
};

// A part of the run. No operations: all of them.
struct Part {
  const char* title;
  std::vector<std::string> operations;
  std::vector<std::size_t> bytes;
  std::vector<std::size_t> threads;
  std::vector<std::size_t> connections;
  bool info_log = false;
  std::chrono::microseconds round_trip{0};  // beyond loopback
  std::vector<Side> sides{all_sides.begin(), all_sides.end()};
};

std::vector<Part> parts_of(const Options& options) {
  if (options.full) {
    return {{"everything", {}, all_bytes, all_threads, all_connections}};
  }
  if (options.quick) {
    const auto one_connection = [](const char* title, std::chrono::milliseconds round_trip) {
      return Part{.title = title,
                  .operations = {"GET"},
                  .bytes = {100},
                  .threads = {2, 4, 16, 64},
                  .connections = {1},
                  .round_trip = round_trip,
                  .sides = {Side::shared, Side::hiredis}};
    };
    return {one_connection("one connection, loopback", std::chrono::milliseconds(0)),
            one_connection("one connection, a round trip of 1 ms", std::chrono::milliseconds(1))};
  }
  if (!options.operations.empty() || !options.bytes.empty() || !options.threads.empty() ||
      !options.connections.empty()) {
    const auto or_else = [](const auto& given, std::vector<std::size_t> otherwise) {
      return given.empty() ? otherwise : given;
    };
    return {{"as asked for", options.operations, or_else(options.bytes, {100}),
             or_else(options.threads, {1}), or_else(options.connections, {as_many_as_threads}),
             options.info_log, std::chrono::microseconds(options.round_trip_us)}};
  }
  return {
      {.title = "one thread, every operation",
       .operations = {},
       .bytes = {100},
       .threads = {1},
       .connections = {as_many_as_threads}},
      {.title = "threads and connections",
       .operations = {"GET"},
       .bytes = {100},
       .threads = {1, 2, 4},
       .connections = all_connections},
      {.title = "many threads, few connections and many",
       .operations = {"GET"},
       .bytes = {100},
       .threads = {16, 64},
       .connections = {1, 2, 4, 8, 16, as_many_as_threads}},
      {.title = "many threads over a distance",
       .operations = {"GET"},
       .bytes = {100},
       .threads = {64},
       .connections = {1, 2, 8},
       .round_trip = std::chrono::milliseconds(1)},
      {.title = "storing, as many connections as threads",
       .operations = {"SET"},
       .bytes = {100},
       .threads = all_threads,
       .connections = {as_many_as_threads}},
      {.title = "small and large values",
       .operations = {"GET", "SET", "HGET", "LPUSH+RPOP"},
       .bytes = {16, 10000},
       .threads = {1, 4},
       .connections = {as_many_as_threads}},
      {.title = "values of 1 MB",
       .operations = {"GET", "SET", "HGET", "HSET"},
       .bytes = {1000000},
       .threads = {1},
       .connections = {as_many_as_threads}},
      {.title = "log at INFO, to a file",
       .operations = {"GET", "SET", "HGET", "SISMEMBER"},
       .bytes = {100},
       .threads = {1, 4},
       .connections = {as_many_as_threads},
       .info_log = true},
  };
}

std::vector<Case> cases_of(const Part& part, Operations& operations) {
  std::vector<Case> cases;
  for (const std::size_t bytes : part.bytes) {
    for (const Operation& operation : operations.on(bytes)) {
      const auto& wanted = part.operations;
      if (!wanted.empty() &&
          std::find(wanted.begin(), wanted.end(), operation.name) == wanted.end()) {
        continue;
      }
      for (const std::size_t threads : part.threads) {
        for (const std::size_t connections : part.connections) {
          cases.push_back({&operation, threads,
                           connections == as_many_as_threads ? threads : connections, part.info_log,
                           part.round_trip, part.sides});
        }
      }
    }
  }
  return cases;
}

// ---- Output ----

const SideResult& of(const Result& result, Side side) {
  return result[static_cast<std::size_t>(side)];
}

double us(const SideResult& side, double percent) {
  return static_cast<double>(side.latency.percentile(percent)) / 1000;
}

// What is printed of a side beside its rate, p50 and p99.
struct RatioColumn {
  const char* title;
  Side of;
  Side to;
};
constexpr std::array ratio_columns{
    RatioColumn{"library to hiredis", Side::library, Side::hiredis},
    RatioColumn{"library to the pool", Side::library, Side::pool},
    RatioColumn{"shared to library", Side::shared, Side::library},
    RatioColumn{"shared to hiredis", Side::shared, Side::hiredis},
};

bool has(const std::vector<Side>& sides, Side side) {
  return std::find(sides.begin(), sides.end(), side) != sides.end();
}

void print_head(const Part& part) {
  std::printf("\n%s\n%-11s %7s %3s %4s", part.title, "operation", "bytes", "thr", "conn");
  for (const Side side : part.sides) {
    std::printf(" %9s/s %6s %6s", side_names[static_cast<std::size_t>(side)], "p50", "p99");
  }
  for (const RatioColumn& column : ratio_columns) {
    if (has(part.sides, column.of) && has(part.sides, column.to)) {
      std::printf("  %-19s", column.title);
    }
  }
  std::puts("");
}

void print(const Case& one, const Result& result) {
  std::printf("%-11s %7zu %3zu %4zu", one.operation->name.c_str(), one.operation->bytes,
              one.threads, one.connections);
  for (const Side side : one.sides) {
    const SideResult& row = of(result, side);
    std::printf(" %11.0f %6.0f %6.0f", row.calls_per_second.median, us(row, 50), us(row, 99));
  }
  for (const RatioColumn& column : ratio_columns) {
    if (has(one.sides, column.of) && has(one.sides, column.to)) {
      const SideResult& to = of(result, column.to);
      const Spread& ratio = column.of == Side::library ? to.library_ratio : to.shared_ratio;
      std::printf("  %5.3f [%5.3f %5.3f]", ratio.median, ratio.lower, ratio.upper);
    }
  }
  std::puts("");
  std::fflush(stdout);
}

class Csv {
 public:
  explicit Csv(const std::string& path)
      : file_(std::fopen(path.empty() ? "/dev/null" : path.c_str(), "w"), std::fclose) {
    if (!file_) {
      throw std::runtime_error(path + " cannot be written");
    }
    std::fputs(
        "operation,bytes,threads,connections,log,round_trip_ms,side,calls_per_s,calls_per_s_q1,"
        "calls_per_s_q3,library_ratio,library_ratio_q1,library_ratio_q3,shared_ratio,"
        "shared_ratio_q1,shared_ratio_q3,cpu_us,library_cpu_us_more,p50_us,p90_us,p99_us,p999_us\n",
        file_.get());
  }

  void write(const Case& one, const Result& result) {
    const std::chrono::duration<double, std::milli> round_trip = one.round_trip;
    for (const Side side : one.sides) {
      const SideResult& row = of(result, side);
      std::fprintf(file_.get(), "%s,%zu,%zu,%zu,%s,%g,%s", one.operation->name.c_str(),
                   one.operation->bytes, one.threads, one.connections,
                   one.info_log ? "INFO" : "WARN", round_trip.count(),
                   side_names[static_cast<std::size_t>(side)]);
      write(row.calls_per_second, 0);
      write(row.library_ratio, 4);
      write(row.shared_ratio, 4);
      std::fprintf(file_.get(), ",%.3f,%.3f,%.1f,%.1f,%.1f,%.1f\n", row.cpu_us.median,
                   row.cpu_us_less.median, us(row, 50), us(row, 90), us(row, 99), us(row, 99.9));
    }
    std::fflush(file_.get());
  }

 private:
  void write(const Spread& spread, int digits) {
    std::fprintf(file_.get(), ",%.*f,%.*f,%.*f", digits, spread.median, digits, spread.lower,
                 digits, spread.upper);
  }

  std::unique_ptr<FILE, decltype(&std::fclose)> file_;
};

// Measures and prints a part, but what an earlier one has measured.
void run_part(const Part& part, const RedisServer& redis, const Pace& pace, Operations& operations,
              Csv& csv) {
  static std::set<std::tuple<const Operation*, std::size_t, std::size_t, bool, long>> done;
  print_head(part);
  for (const Case& one : cases_of(part, operations)) {
    if (done.emplace(one.operation, one.threads, one.connections, one.info_log,
                     one.round_trip.count())
            .second) {
      const Result result = measure(one, redis, pace);
      print(one, result);
      csv.write(one, result);
    }
  }
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app("The library beside bare hiredis and a hand-written pool");
  app.add_flag("--full", options.full, "Every operation, size, thread count and connect number");
  app.add_flag("--quick", options.quick,
               "auto_pipelining on one connection, on loopback and over a network");
  app.add_option("--operation", options.operations, "Only these, as the table names them");
  app.add_option("--bytes", options.bytes, "Sizes of values");
  app.add_option("--threads", options.threads, "Thread counts");
  app.add_option("--connections", options.connections, "Connect numbers; 0: as many as threads");
  app.add_option("--rounds", options.rounds, "Slices of each side in each case")
      ->envname("RUVO_BENCH_ROUNDS")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
  app.add_option("--slice", options.slice_ms, "Milliseconds of a slice")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app.add_flag("--info", options.info_log, "With the log at INFO, to a file");
  app.add_option("--round-trip", options.round_trip_us,
                 "Microseconds that the way to the server and back takes, beyond loopback")
      ->check(CLI::Range(0, 1000000))
      ->capture_default_str();
  app.add_flag("--bare-time-outs", options.bare_time_outs,
               "Give bare hiredis the time-outs that the library and the pool have");
  app.add_option("--csv", options.csv, "File for all figures");
  CLI11_PARSE(app, argc, argv);

  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  const RedisServer redis;
  Operations operations(redis);
  Csv csv(options.csv);
  const Pace pace{options.rounds, std::chrono::milliseconds(options.slice_ms),
                  options.bare_time_outs ? TimeOut::set : TimeOut::none};
  std::printf(
      "medians of %zu rounds, slices of %zu ms, longer over a network; ratios of rates "
      "[quartiles]; p50 and p99 in microseconds\n",
      options.rounds, options.slice_ms);
  for (const Part& part : parts_of(options)) {
    run_part(part, redis, pace, operations, csv);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

// Compares the library, with and without auto_pipelining, with bare hiredis and with the simplest
// hand-written pool, in one run against a Redis that the benchmark starts. Each round gives each
// side a short slice of time; the ratios are taken round by round, and the table shows their median
// and quartiles.
//
//   ruvo_bench             the cases that the aims of bench/tables.py need, in some minutes
//   ruvo_bench --quick     auto_pipelining on one connection, on loopback and over a network
//   ruvo_bench --full      every operation, thread count, connect number and size
//   ruvo_bench --operation GET --bytes 100 --threads 4 --connections 4 --round-trip 1000
//   ruvo_bench --help      lists the rest
#include <stream_log/logger.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "measurement.h"
#include "report.h"
#include "run_main.h"

namespace {

using std::chrono::microseconds;

constexpr std::size_t as_many_as_threads = 0;  // in place of a number of connections
constexpr microseconds loopback{0};

const std::vector<std::size_t> all_bytes{16, 100, 10000, 1000000};
const std::vector<std::size_t> all_threads{1, 2, 4, 16, 64};
const std::vector<std::size_t> all_connections{1, 4, 16, as_many_as_threads};
const std::vector<Side> every_side{all_sides.begin(), all_sides.end()};
const std::vector<Side> beside_hiredis{Side::pipelined, Side::hiredis};

struct Options {
  bool full = false;
  bool quick = false;
  std::vector<std::string> operations;
  std::vector<std::size_t> bytes;
  std::vector<std::size_t> threads;
  std::vector<std::size_t> connections;
  std::vector<std::size_t> round_trips_us;
  std::vector<std::string> sides;
  std::size_t rounds = 41;
  std::size_t slice_ms = 15;
  bool bare_timeouts = false;
  bool info_log = false;
  std::string csv;
};

// The operations of each size, made once, with the data that they read stored in Redis.
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

// A part of the run: every combination of these values. No operations: all of them.
struct Part {
  const char* title;
  std::vector<std::string> operations{"GET"};
  std::vector<std::size_t> bytes{100};
  std::vector<std::size_t> threads{1};
  std::vector<std::size_t> connections{as_many_as_threads};
  bool more_connections_than_threads = false;       // otherwise such combinations are skipped
  std::vector<microseconds> round_trips{loopback};  // of a network; loopback itself has none
  bool info_log = false;
  std::vector<Side> sides = every_side;
};

std::vector<Part> quick_parts() {
  return {{.title = "auto_pipelining on one connection",
           .threads = {2, 4, 16, 64},
           .connections = {1},
           .round_trips = {loopback, microseconds(1000)},
           .sides = beside_hiredis}};
}

std::vector<Part> parts_from_options(const Options& options) {
  const auto or_else = [](const auto& wanted, std::vector<std::size_t> otherwise) {
    return wanted.empty() ? otherwise : wanted;
  };
  const std::vector<std::size_t> given = or_else(options.round_trips_us, {0});
  std::vector<Side> sides;
  std::copy_if(all_sides.begin(), all_sides.end(), std::back_inserter(sides), [&](Side side) {
    const auto& wanted = options.sides;
    return wanted.empty() ||
           std::find(wanted.begin(), wanted.end(), side_names[index_of(side)]) != wanted.end();
  });
  return {{.title = "as asked for",
           .operations = options.operations,
           .bytes = or_else(options.bytes, {100}),
           .threads = or_else(options.threads, {1}),
           .connections = or_else(options.connections, {as_many_as_threads}),
           .more_connections_than_threads = true,
           .round_trips = {given.begin(), given.end()},
           .info_log = options.info_log,
           .sides = sides}};
}

std::vector<Part> parts_of_the_aims() {
  return {
      // Over a network, the library's calls without auto_pipelining also wait for each other: one
      // round-trip time is enough to show it.
      {.title = "over a network, with and without auto_pipelining",
       .threads = all_threads,
       .connections = {1, 2, 8, as_many_as_threads},
       .round_trips = {microseconds(1000)},
       .sides = {Side::library, Side::pipelined, Side::hiredis}},
      {.title = "over other networks",
       .threads = all_threads,
       .connections = {1, 2, 8, as_many_as_threads},
       .round_trips = {microseconds(200), microseconds(5000)},
       .sides = beside_hiredis},
      {.title = "loopback: threads and connections",
       .threads = all_threads,
       .connections = {1, 2, 4, 8, 16, as_many_as_threads}},
      {.title = "loopback: more connections than threads",
       .threads = {2, 4},
       .connections = {8, 16},
       .more_connections_than_threads = true},
      {.title = "loopback: one thread, every operation", .operations = {}},
      {.title = "loopback: storing", .operations = {"SET"}, .threads = all_threads},
      {.title = "loopback: small and large values",
       .operations = {"GET", "SET", "HGET", "LPUSH+RPOP"},
       .bytes = {16, 10000},
       .threads = {1, 4}},
      {.title = "loopback: values of 1 MB",
       .operations = {"GET", "SET", "HGET", "HSET"},
       .bytes = {1000000}},
      {.title = "loopback: log at INFO, to a file",
       .operations = {"GET", "SET", "HGET", "SISMEMBER"},
       .threads = {1, 4},
       .info_log = true},
  };
}

std::vector<Part> parts_of(const Options& options) {
  if (options.full) {
    return {{.title = "everything",
             .operations = {},
             .bytes = all_bytes,
             .threads = all_threads,
             .connections = all_connections,
             .more_connections_than_threads = true}};
  }
  if (options.quick) {
    return quick_parts();
  }
  const bool asked_for = !options.operations.empty() || !options.bytes.empty() ||
                         !options.threads.empty() || !options.connections.empty() ||
                         !options.round_trips_us.empty() || !options.sides.empty();
  return asked_for ? parts_from_options(options) : parts_of_the_aims();
}

bool is_wanted(const Part& part, const Operation& operation) {
  const auto& wanted = part.operations;
  return wanted.empty() || std::find(wanted.begin(), wanted.end(), operation.name) != wanted.end();
}

std::vector<Case> cases_of(const Part& part, Operations& operations) {
  std::vector<Case> cases;
  for (const microseconds round_trip : part.round_trips) {
    for (const std::size_t bytes : part.bytes) {
      for (const Operation& operation : operations.on(bytes)) {
        for (const std::size_t threads : part.threads) {
          for (const std::size_t number : part.connections) {
            const std::size_t connections = number == as_many_as_threads ? threads : number;
            if (is_wanted(part, operation) &&
                (connections <= threads || part.more_connections_than_threads)) {
              cases.push_back(
                  {&operation, threads, connections, part.info_log, round_trip, part.sides});
            }
          }
        }
      }
    }
  }
  return cases;
}

// Measures and prints a part, except what an earlier one has measured.
void run_part(const Part& part, const RedisServer& redis, const Pace& pace, Operations& operations,
              Csv& csv) {
  static std::set<std::tuple<const Operation*, std::size_t, std::size_t, bool, long>> done;
  print_head(part.title, part.sides);
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
  app.add_option("--round-trip", options.round_trips_us,
                 "Microseconds of a round trip over the network to the server; 0: loopback")
      ->check(CLI::Range(0, 1000000));
  app.add_option("--sides", options.sides, "Only these")->check(CLI::IsMember(side_names));
  app.add_option("--rounds", options.rounds, "Slices of each side in each case")
      ->envname("RUVO_BENCH_ROUNDS")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
  app.add_option("--slice", options.slice_ms, "Milliseconds of a slice, at least")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app.add_flag("--info", options.info_log, "With the log at INFO, to a file");
  app.add_flag("--bare-timeouts", options.bare_timeouts,
               "Give bare hiredis the timeouts that the library and the pool have");
  app.add_option("--csv", options.csv, "File for all figures");
  CLI11_PARSE(app, argc, argv);

  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  const RedisServer redis;
  Operations operations(redis);
  Csv csv(options.csv);
  const Pace pace{options.rounds, std::chrono::milliseconds(options.slice_ms),
                  options.bare_timeouts ? Timeout::set : Timeout::none};
  std::printf(
      "medians of %zu rounds, slices of %zu ms, fewer and longer over a network; ratios of rates "
      "[quartiles]; p50 and p99 in microseconds\n",
      options.rounds, options.slice_ms);
  for (const Part& part : parts_of(options)) {
    run_part(part, redis, pace, operations, csv);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

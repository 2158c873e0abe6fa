// The library beside bare hiredis and beside the plainest hand-written pool, in one run against a
// Redis that the benchmark starts. Each round gives each side a short slice of time; the ratios are
// taken round by round, and the table shows their median and quartiles.
//
//   ruvo_bench             what the aims ask for, in some minutes
//   ruvo_bench --full      every operation, thread count, connect number and size
//   ruvo_bench --operation GET --bytes 100 --threads 4 --connections 4
//   ruvo_bench --help      lists the rest
#include <stream_log/logger.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iterator>
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
  std::vector<std::string> operations;
  std::vector<std::size_t> bytes;
  std::vector<std::size_t> threads;
  std::vector<std::size_t> connections;
  std::size_t rounds = 41;
  std::size_t slice_ms = 15;
  bool bare_time_outs = false;
  bool info_log = false;
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

// That the library's rate is at least so much of the side's.
struct Aim {
  Side side;
  double ratio;
};

// A part of the run. No operations: all of them.
struct Part {
  const char* title;
  std::vector<std::string> operations;
  std::vector<std::size_t> bytes;
  std::vector<std::size_t> threads;
  std::vector<std::size_t> connections;
  std::vector<Aim> aims{};  // for its cases with as many connections as threads
  bool info_log = false;
};

std::vector<Part> parts_of(const Options& options) {
  if (options.full) {
    return {{"everything", {}, all_bytes, all_threads, all_connections}};
  }
  if (!options.operations.empty() || !options.bytes.empty() || !options.threads.empty() ||
      !options.connections.empty()) {
    const auto or_else = [](const auto& given, std::vector<std::size_t> otherwise) {
      return given.empty() ? otherwise : given;
    };
    return {{"as asked for",
             options.operations,
             or_else(options.bytes, {100}),
             or_else(options.threads, {1}),
             or_else(options.connections, {as_many_as_threads}),
             {},
             options.info_log}};
  }
  return {
      {.title = "one thread, every operation",
       .operations = {},
       .bytes = {100},
       .threads = {1},
       .connections = {as_many_as_threads},
       .aims = {{Side::hiredis, 0.97}, {Side::pool, 0.97}}},
      {.title = "threads and connections",
       .operations = {"GET", "SET"},
       .bytes = {100},
       .threads = all_threads,
       .connections = all_connections,
       .aims = {{Side::pool, 0.97}}},
      {.title = "small and large values",
       .operations = {"GET", "SET", "HGET", "LPUSH+RPOP"},
       .bytes = {16, 10000},
       .threads = {1, 4},
       .connections = {as_many_as_threads}},
      {.title = "values of 1 MB",
       .operations = {"GET", "SET", "HGET", "HSET"},
       .bytes = {1000000},
       .threads = {1},
       .connections = {as_many_as_threads},
       .aims = {{Side::hiredis, 0.95}}},
      {.title = "log at INFO, to a file",
       .operations = {"GET", "SET", "HGET", "SISMEMBER"},
       .bytes = {100},
       .threads = {1, 4},
       .connections = {as_many_as_threads},
       .aims = {{Side::hiredis, 0.80}},
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
                           connections == as_many_as_threads ? threads : connections,
                           part.info_log});
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

void print_head(const Part& part) {
  std::printf("\n%s\n%-11s %8s %3s %5s %9s %9s %9s  %-19s  %-19s %7s\n", part.title, "operation",
              "bytes", "thr", "conn", "library/s", "hiredis/s", "pool/s", "to hiredis",
              "to the pool", "CPU us");
}

void print(const Case& one, const Result& result) {
  const auto ratio = [](const Spread& spread) {
    std::printf("  %5.3f [%5.3f %5.3f]", spread.median, spread.lower, spread.upper);
  };
  std::printf("%-11s %8zu %3zu %5zu", one.operation->name.c_str(), one.operation->bytes,
              one.threads, one.connections);
  for (const SideResult& side : result) {
    std::printf(" %9.0f", side.calls_per_second.median);
  }
  ratio(of(result, Side::hiredis).ratio);
  ratio(of(result, Side::pool).ratio);
  std::printf(" %+7.2f\n", of(result, Side::hiredis).cpu_us_less.median);
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
        "operation,bytes,threads,connections,log,side,calls_per_s,calls_per_s_q1,calls_per_s_q3,"
        "library_ratio,library_ratio_q1,library_ratio_q3,cpu_us,library_cpu_us_more,"
        "p50_us,p90_us,p99_us,p999_us\n",
        file_.get());
  }

  void write(const Case& one, const Result& result) {
    for (std::size_t side = 0; side < sides.size(); ++side) {
      const SideResult& row = result[side];
      const auto us = [&row](double percent) {
        return static_cast<double>(row.latency.percentile(percent)) / 1000;
      };
      std::fprintf(file_.get(), "%s,%zu,%zu,%zu,%s,%s,%.0f,%.0f,%.0f,%.4f,%.4f,%.4f,%.3f,%.3f,",
                   one.operation->name.c_str(), one.operation->bytes, one.threads, one.connections,
                   one.info_log ? "INFO" : "WARN", side_names[side], row.calls_per_second.median,
                   row.calls_per_second.lower, row.calls_per_second.upper, row.ratio.median,
                   row.ratio.lower, row.ratio.upper, row.cpu_us.median, row.cpu_us_less.median);
      std::fprintf(file_.get(), "%.1f,%.1f,%.1f,%.1f\n", us(50), us(90), us(99), us(99.9));
    }
    std::fflush(file_.get());
  }

 private:
  std::unique_ptr<FILE, decltype(&std::fclose)> file_;
};

// How the cases of a part stand to one of its aims, by their medians.
class Standing {
 public:
  Standing(const Part& part, const Aim& aim) : part_(part), aim_(aim) {}

  void look_at(const Case& one, const Result& result) {
    if (one.connections != one.threads) {
      return;
    }
    const Spread& ratio = of(result, aim_.side).ratio;
    ++cases_;
    met_ += ratio.median >= aim_.ratio ? 1 : 0;
    if (cases_ == 1 || ratio.median < lowest_.median) {
      lowest_ = ratio;
      lowest_name_ = one.operation->name + ", threads: " + std::to_string(one.threads);
    }
  }

  void print() const {
    std::printf("%-27s at least %.2f of %-7s: %2d of %2d; lowest %.3f [%.3f %.3f], %s\n",
                part_.title, aim_.ratio, side_names[static_cast<std::size_t>(aim_.side)], met_,
                cases_, lowest_.median, lowest_.lower, lowest_.upper, lowest_name_.c_str());
  }

 private:
  const Part& part_;
  const Aim& aim_;
  int cases_ = 0;
  int met_ = 0;
  Spread lowest_;
  std::string lowest_name_;
};

// Measures and prints a part, but what an earlier one has measured; how it stands to its aims.
std::vector<Standing> run_part(const Part& part, const RedisServer& redis, const Pace& pace,
                               Operations& operations, Csv& csv) {
  static std::set<std::tuple<const Operation*, std::size_t, std::size_t, bool>> done;
  std::vector<Standing> standings;
  for (const Aim& aim : part.aims) {
    standings.emplace_back(part, aim);
  }
  print_head(part);
  for (const Case& one : cases_of(part, operations)) {
    if (!done.emplace(one.operation, one.threads, one.connections, one.info_log).second) {
      continue;
    }
    const Result result = measure(one, redis, pace);
    print(one, result);
    csv.write(one, result);
    for (Standing& standing : standings) {
      standing.look_at(one, result);
    }
  }
  return standings;
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app("The library beside bare hiredis and a hand-written pool");
  app.add_flag("--full", options.full, "Every operation, size, thread count and connect number");
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
      "medians of %zu rounds, slices of %zu ms; [quartiles]; "
      "CPU us: of the library more than of hiredis, for each call\n",
      options.rounds, options.slice_ms);
  const std::vector<Part> parts = parts_of(options);
  std::vector<Standing> standings;
  for (const Part& part : parts) {
    std::ranges::copy(run_part(part, redis, pace, operations, csv), std::back_inserter(standings));
  }
  if (!standings.empty()) {
    std::puts("\nAims, with as many connections as threads: medians that reach them");
  }
  for (const Standing& standing : standings) {
    standing.print();
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

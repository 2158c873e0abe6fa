// The demo's host: threads that keep sessions in the temporary pool and profiles in the persistent
// one, and check every value that they read. Prints a line a second and a summary at the end.
//
//   session_host --config conf/sruvo.conf --seconds 12 --threads 8 --log session_host.log
//
// Any failed operation is a failure of the run. With --outage-expected part of the data may be out
// of reach for a while: failed operations are counted, and the run is good when no value was wrong
// and nothing failed in its last two seconds.
#include <ruvo/ruvo.h>

#include <CLI/CLI.hpp>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log_events.h"
#include "run_main.h"
#include "workload.h"

namespace {

constexpr int calm_seconds = 2;

struct ServerEvents {
  long rebuilds = 0;         // broken connections that were rebuilt
  long failed_rebuilds = 0;  // and those that could not be
  long ejections = 0;        // servers that were left alone for a while
  long retries = 0;          // and were then tried again
};

// The library's log goes to a file, and what it tells of servers is counted. All guarded by
// `log_mutex`: an output is called from every thread that logs.
std::mutex log_mutex;
FILE* log_file = nullptr;
ServerEvents events;
std::set<std::string> ejected;

void take_line(BaseLib::Logger::LogLevel /*level*/, const char* line, std::size_t length) {
  const LogEvent event = read_event({line, length});
  const std::scoped_lock lock(log_mutex);
  static_cast<void>(std::fwrite(line, 1, length, log_file));
  switch (event.kind) {
    case EventKind::rebuild:
      ++events.rebuilds;  // until a later line says that it failed
      break;
    case EventKind::visit_failed:
      --events.rebuilds;
      ++events.failed_rebuilds;
      break;
    case EventKind::passed_over:
      events.ejections += ejected.insert(event.server()).second ? 1 : 0;
      break;
    case EventKind::retry:
      ejected.erase(event.server());
      ++events.retries;
      break;
    default:
      break;
  }
}

bool open_log(const std::string& path) {
  log_file = std::fopen(path.c_str(), "a");
  if (log_file != nullptr) {
    BaseLib::Logger::setOutput(take_line);
    BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  }
  return log_file != nullptr;
}

void close_log() {
  BaseLib::Logger::setOutput(nullptr);
  static_cast<void>(std::fclose(log_file));
}

ServerEvents server_events() {
  const std::scoped_lock lock(log_mutex);
  return events;
}

// A thread: all three pools, round after round.
void work(int thread, Totals& totals, const std::atomic<bool>& stop) {
  CallObserver nobody;
  std::array workers{Worker(thread, eTempServer, totals, nobody),
                     Worker(thread, ePersistServer, totals, nobody),
                     Worker(thread, ePersonalityServer, totals, nobody)};
  for (int round = 0; !stop; ++round) {
    for (Worker& worker : workers) {
      worker.work(round);
    }
  }
}

void print_progress(int second, const Totals& totals) {
  const ServerEvents seen = server_events();
  std::printf("%3d s  %9" PRId64 " operations  %9" PRId64 " values checked  %" PRId64
              " wrong  %" PRId64 " failed  %ld reconnections  %ld ejections\n",
              second, totals.all_operations(), totals.values_checked.load(),
              totals.wrong_values.load(), totals.failed.load(), seen.rebuilds, seen.ejections);
  std::fflush(stdout);
}

void print_summary(const Totals& totals) {
  const ServerEvents seen = server_events();
  std::printf("\noperations done      %" PRId64 "\n", totals.all_operations());
  for (std::size_t family = 0; family < family_names.size(); ++family) {
    std::printf("  %-18s %" PRId64 "\n", family_names[family], totals.operations[family].load());
  }
  std::printf("values checked       %" PRId64 "\nwrong values         %" PRId64
              "\nfailed operations    %" PRId64 "\nrun twice            %" PRId64
              " (sent again after a broken connection)\n"
              "asked again          %" PRId64
              " (raw commands without a reply)\n"
              "reconnections        %ld (and %ld attempts that failed)\n"
              "ejections            %ld (and %ld retries)\n",
              totals.values_checked.load(), totals.wrong_values.load(), totals.failed.load(),
              totals.run_twice.load(), totals.asked_again.load(), seen.rebuilds,
              seen.failed_rebuilds, seen.ejections, seen.retries);
}

int run(int argc, char** argv) {
  std::string config;
  std::string log_path = "session_host.log";
  int seconds = 10;
  int thread_count = 8;
  Totals totals;
  CLI::App app("Stores, reads, counts and expires keys from many threads and checks what it reads");
  app.add_option("--config", config, "Local configuration file")->required();
  app.add_option("--log", log_path, "File for the library's log")->capture_default_str();
  app.add_option("--seconds", seconds, "How long to run")
      ->capture_default_str()
      ->check(CLI::Range(1, 86400));
  app.add_option("--threads", thread_count, "Threads that work")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_flag("--outage-expected", totals.outage_expected,
               "Operations may fail for a while, though not in the last two seconds");
  CLI11_PARSE(app, argc, argv);

  if (!open_log(log_path)) {
    std::fprintf(stderr, "session_host: cannot write %s\n", log_path.c_str());
    return 2;
  }
  const int ret = RUVO_Init(config.c_str());
  if (ret != RUVO_OK) {
    std::fprintf(stderr, "session_host: RUVO_Init: %s (%d), see %s\n", ruvo_result_text(ret), ret,
                 log_path.c_str());
    return 1;
  }
  std::int64_t failures_allowed = 0;
  std::int64_t operations_before_calm = 0;
  {
    std::atomic<bool> stop{false};
    std::vector<std::jthread> threads;
    threads.reserve(static_cast<std::size_t>(thread_count));
    for (int number = 0; number < thread_count; ++number) {
      threads.emplace_back([number, &totals, &stop] { work(number, totals, stop); });
    }
    for (int second = 1; second <= seconds; ++second) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      print_progress(second, totals);
      if (totals.outage_expected && second == seconds - calm_seconds) {
        failures_allowed = totals.failed;
        operations_before_calm = totals.all_operations();
      }
    }
    stop = true;
  }
  RUVO_Fini();
  close_log();
  print_summary(totals);
  const bool good = totals.wrong_values == 0 && totals.failed <= failures_allowed &&
                    totals.all_operations() > operations_before_calm;
  return good ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

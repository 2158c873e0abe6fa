// A small host: threads that keep sessions in the temporary pool and profiles in the persistent
// one, and check every value that they read. Prints a line a second and a summary at the end.
//
//   session_host --config conf/sruvo.conf --seconds 12 --threads 8 --log session_host.log
#include <ruvo/ruvo.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "host_log.h"

namespace {

constexpr int sessions_per_thread = 50;
constexpr int session_seconds = 60;

struct Totals {
  std::atomic<std::int64_t> operations{0};
  std::atomic<std::int64_t> values_checked{0};
  std::atomic<std::int64_t> counted_twice{0};
  std::atomic<std::int64_t> failed{0};
};

// One thread's work. Its keys are its own, so it knows what every one of them must hold.
class Worker {
 public:
  Worker(int number, Totals& totals) : name_(std::to_string(number)), totals_(totals) {}

  void run(const std::atomic<bool>& stop) {
    for (int round = 0; !stop; ++round) {
      keep_session(round);
      count_visit();
      if (round % 10 == 0) {
        update_profile(round);
      }
    }
  }

 private:
  // Every call goes through here: a result that is not the expected one is a failed operation.
  bool expect(const char* what, int result, int expected = RUVO_OK) {
    ++totals_.operations;
    if (result == expected) {
      return true;
    }
    ++totals_.failed;
    std::printf("FAILED: %s: %s (%d)\n", what, ruvo_result_text(result), result);
    return false;
  }

  void check(const char* what, bool right) {
    ++totals_.values_checked;
    if (!right) {
      ++totals_.failed;
      std::printf("WRONG VALUE: %s\n", what);
    }
  }

  void read_back(const std::string& key, const std::string& expected, int pool) {
    const char* data = nullptr;
    unsigned long len = 0;
    if (expect("query", RUVO_QueryKey(key.c_str(), &data, &len, pool, nullptr))) {
      check(key.c_str(), std::string(data, len) == expected);
      RUVO_FreeResult(data);
    }
  }

  // Text that tells whose it is and how old, of a length that varies.
  std::string text_for(const std::string& key, int round) const {
    std::string text = key + " round " + std::to_string(round) + ' ';
    text.append(static_cast<std::size_t>(round * 37 % 900), static_cast<char>('a' + round % 26));
    return text;
  }

  void keep_session(int round) {
    const std::string key = "session:" + name_ + ':' + std::to_string(round % sessions_per_thread);
    const std::string text = text_for(key, round);
    if (expect("insert", RUVO_InsertKey(key.c_str(), text.data(), text.size(), session_seconds,
                                        eTempServer, nullptr))) {
      read_back(key, text, eTempServer);
      expect("expire", RUVO_ExpireKey(key.c_str(), 2 * session_seconds, eTempServer, nullptr));
    }
  }

  // A connection that breaks between the count and its reply has the command sent again, which
  // counts twice. It must never count less than once.
  void count_visit() {
    const std::string key = "visits:" + name_;
    long long visits = 0;
    if (expect("increase", RUVO_IncreaseKey(key.c_str(), &visits, eTempServer, nullptr))) {
      const long long extra = visits - visits_ - 1;
      check(key.c_str(), visits_ == 0 || extra == 0 || extra == 1);
      totals_.counted_twice += visits_ != 0 && extra == 1 ? 1 : 0;
      visits_ = visits;
    }
  }

  void update_profile(int round) {
    const std::string key = "profile:" + name_;
    const std::string text = text_for(key, round);
    if (expect("insert", RUVO_InsertKey(key.c_str(), text.data(), text.size(), -1, ePersistServer,
                                        nullptr))) {
      read_back(key, text, ePersistServer);
      expect("exists", RUVO_ExistsKey(key.c_str(), ePersistServer, nullptr));
      expect("persist", RUVO_PersistKey(key.c_str(), ePersistServer, nullptr));
    }
    if (round % 100 == 0) {
      expect("delete", RUVO_DeleteKey(key.c_str(), ePersistServer, nullptr));
      expect("exists", RUVO_ExistsKey(key.c_str(), ePersistServer, nullptr), RUVO_ABSENT);
    }
  }

  std::string name_;
  Totals& totals_;
  long long visits_ = 0;
};

void print_progress(int second, const Totals& totals) {
  const ServerEvents events = server_events();
  std::printf("%3d s  %9" PRId64 " operations  %9" PRId64 " values checked  %" PRId64
              " failed  %ld reconnections  %ld ejections\n",
              second, totals.operations.load(), totals.values_checked.load(), totals.failed.load(),
              events.rebuilds, events.ejections);
  std::fflush(stdout);
}

void print_summary(const Totals& totals) {
  const ServerEvents events = server_events();
  std::printf("\noperations done      %" PRId64 "\nvalues checked       %" PRId64
              "\nfailed operations    %" PRId64 "\ncounted twice        %" PRId64
              " (resent after a broken connection)\n"
              "reconnections        %ld (and %ld attempts that failed)\n"
              "ejections            %ld (and %ld retries)\n",
              totals.operations.load(), totals.values_checked.load(), totals.failed.load(),
              totals.counted_twice.load(), events.rebuilds, events.failed_rebuilds,
              events.ejections, events.retries);
}

int run(int argc, char** argv) {
  std::string config;
  std::string log_path = "session_host.log";
  int seconds = 10;
  int thread_count = 8;
  CLI::App app("Stores, reads, counts and expires keys from many threads and checks what it reads");
  app.add_option("--config", config, "Local configuration file")->required();
  app.add_option("--log", log_path, "File for the library's log")->capture_default_str();
  app.add_option("--seconds", seconds, "How long to run")
      ->capture_default_str()
      ->check(CLI::Range(1, 86400));
  app.add_option("--threads", thread_count, "Threads that work")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
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
  Totals totals;
  {
    std::atomic<bool> stop{false};
    std::vector<std::jthread> threads;
    threads.reserve(static_cast<std::size_t>(thread_count));
    for (int number = 0; number < thread_count; ++number) {
      threads.emplace_back([number, &totals, &stop] { Worker(number, totals).run(stop); });
    }
    for (int second = 1; second <= seconds; ++second) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      print_progress(second, totals);
    }
    stop = true;
  }
  RUVO_Fini();
  close_log();
  print_summary(totals);
  return totals.failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "session_host: %s\n", failure.what());
    return 2;
  }
}

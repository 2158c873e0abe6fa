// ruvo_chaos: a host under faults, see --help.
#include <ruvo/ruvo.h>

#include <CLI/CLI.hpp>
#include <cinttypes>
#include <cstdio>
#include <random>
#include <thread>

#include "foreign_keys.h"
#include "run_main.h"
#include "started_library.h"
#include "verdict.h"

namespace {

constexpr std::chrono::seconds warm_up(1);
constexpr std::chrono::seconds quiet_period(1);
constexpr std::chrono::seconds progress_interval(5);
constexpr std::chrono::seconds short_progress_interval(1);  // if faults print no lines
constexpr std::chrono::milliseconds longest_sleep(100);
// How often the library may send a command: twice in each of two visits to each of two servers.
constexpr int max_runs = 8;

constexpr const char* description =
    R"(Runs a host while its servers fail, and checks every call: threads use all families of operations
on the three pools and check every value, while faults are injected according to a plan that --seed
determines.

Without --config it starts its own servers on loopback: for each pool a Redis behind two TCP
proxies, which inject the faults. They end with the run. One server of each pool at a time is killed
and restarted, stopped and continued, or paused; or it has its connections reset, stalls on one
connection, sends a reply that no client asked for, or answers everything with READONLY, LOADING or
"max number of clients reached". At times all servers of a pool are down, for less than call_timeout or
for longer. The host starts while all servers are down.

With --config it uses an operator's servers. THEY MUST BE DISPOSABLE: it writes keys of its own to
all pools (ruvo_workload:...) and leaves them there, and a server that loses data or runs commands
late makes values wrong. It refuses a server that has any other key, or that cannot list its keys,
such as a proxy, unless --throwaway allows it.
With --fault-command it takes one server of each pool down at a time and brings it back:
COMMAND down IP:PORT, COMMAND up IP:PORT; the servers of a pool must serve the same data.
With --outside-faults the operator takes servers down, and brings them up before the run ends.

Exit status: 0 all conditions were met, 1 at least one was not, 2 it could not run.)";

struct Options {
  std::uint64_t seed = std::random_device()();
  int seconds = 60;
  int threads = 16;
  OwnSettings own;
  std::string config;
  bool throwaway = false;
  std::string fault_command;
  std::string outside_faults;
  std::string log;
};

// The threads of the host: they use all three pools, round after round, while the object exists.
class Host {
 public:
  Host(int threads, Totals& totals, CallObserver& observer) {
    for (int number = 0; number < threads; ++number) {
      threads_.emplace_back([number, &totals, &observer](const std::stop_token& stop) {
        std::array workers{Worker(number, eTempServer, totals, observer),
                           Worker(number, ePersistServer, totals, observer),
                           Worker(number, ePersonalityServer, totals, observer)};
        for (int round = 0; !stop.stop_requested(); ++round) {
          for (Worker& worker : workers) {
            worker.work(round);
          }
        }
        for (Worker& worker : workers) {
          worker.check_stored_count();
        }
      });
    }
  }
  ~Host() {
    for (std::jthread& thread : threads_) {
      thread.request_stop();
    }
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

 private:
  std::vector<std::jthread> threads_;
};

// When a stopped process continues, its calls look old, but only for a moment.
void end_if_hung(const Judge& judge) {
  if (judge.finds_hang()) {
    std::this_thread::sleep_for(longest_sleep);
    if (judge.finds_hang()) {
      std::puts("HANG: a call has exceeded its upper bound");
      std::fflush(stdout);
      std::_Exit(1);
    }
  }
}

void wait_until(Clock::time_point end, const Judge& judge) {
  for (Clock::time_point now; (now = Clock::now()) < end; end_if_hung(judge)) {
    const Clock::time_point until = std::min(end, now + longest_sleep);
    std::this_thread::sleep_until(until);
    const Clock::duration late = Clock::now() - until;
    if (late > scheduling_tolerance) {
      std::printf("PAUSED for %.1f s: this process did not run\n",
                  std::chrono::duration<double>(late).count());
    }
  }
}

void run_driver(const Options& options, Driver& driver, const Judge& judge, const Totals& totals) {
  const Clock::time_point begin = Clock::now();
  const Clock::time_point end = begin + std::chrono::seconds(options.seconds);
  const auto interval =
      options.outside_faults.empty() ? progress_interval : short_progress_interval;
  Clock::time_point progress = begin + interval;
  while (Clock::now() < end) {
    wait_until(std::min({driver.step(), end, progress}), judge);
    if (Clock::now() >= progress) {
      std::printf("%8.2f s  %" PRId64 " operations, %" PRId64 " values checked, %" PRId64
                  " wrong, %" PRId64 " failed\n",
                  std::chrono::duration<double>(Clock::now() - begin).count(),
                  totals.all_operations(), totals.values_checked.load(), totals.wrong_values.load(),
                  totals.failed.load());
      progress += interval;
    }
    std::fflush(stdout);
  }
  driver.clear_all();
}

// Waits until the calls that began in a fault have ended and every ejected server has been retried.
// The pools that were given up are probed after that.
void wait_for_recovery(const Site& site, const Judge& judge) {
  const Clock::time_point cleared = Clock::now();
  const Clock::time_point last =
      cleared + std::chrono::seconds(site.settings.retry_timeout_s) + judge.bound({raw, "", 1});
  while ((judge.has_call_from_before(cleared) || !server_events().ejected.empty()) &&
         Clock::now() < last) {
    wait_until(Clock::now() + longest_sleep, judge);
  }
  if (site.settings.options.try_ejected_servers) {
    wait_until(Clock::now() + 2 * longest_probe_pause, judge);
  }
}

// While it exists, no server of the run serves.
class EverythingDown : NoCopy {
 public:
  EverythingDown(Site& site, FaultRecord& faults) : site_(site), faults_(faults) {
    for_each([this](Target& target) {
      faults_.begin(target.addr());
      target.inject(killed);
    });
  }
  ~EverythingDown() {
    for_each([this](Target& target) {
      target.clear(killed);
      faults_.end(target.addr());
    });
  }

 private:
  template <typename Action>
  void for_each(const Action& action) {
    for (const auto& pool : site_.pools) {
      for (const auto& target : pool) {
        action(*target);
      }
    }
  }

  Site& site_;
  FaultRecord& faults_;
};

// With servers of its own, the host starts before them if it can.
std::unique_ptr<StartedLibrary> start_library(const Options& options, Site& site,
                                              FaultRecord& faults) {
  std::optional<EverythingDown> down;
  if (options.config.empty() && site.settings.options.start_without_servers) {
    down.emplace(site, faults);
  }
  return std::make_unique<StartedLibrary>(site.config);
}

std::vector<Fault> faults_of(const Options& options, const Settings& settings) {
  if (!options.config.empty()) {
    return options.fault_command.empty() ? std::vector<Fault>() : std::vector{killed};
  }
  std::vector faults{killed, stopped, paused, reset, stalled};
  // Only auto_pipelining sees an extra reply that arrives after the previous one has been read:
  // without it all later replies of the connection are shifted, and every value may be wrong.
  if (settings.options.auto_pipelining) {
    faults.push_back(extra_reply);
  }
  if (!settings.options.failover_replies.empty()) {
    faults.insert(faults.end(), {read_only, loading, at_limit});
  }
  if (settings.options.wait_for_servers) {
    faults.insert(faults.end(), {away, long_away});
  }
  return faults;
}

class Verdict {
 public:
  void add(const Condition& condition) {
    std::printf("%-7s%s\n", condition.held ? "held" : "BROKEN", condition.text);
    all_held_ = all_held_ && condition.held;
  }
  int exit_status() const { return all_held_ ? 0 : 1; }

 private:
  bool all_held_ = true;
};

void print_report(const Totals& totals, const Judge& judge, const Driver& driver,
                  bool has_outside_faults) {
  std::printf("\noperations               %" PRId64 "\n", totals.all_operations());
  for (std::size_t family = 0; family < family_names.size(); ++family) {
    std::printf("  %-22s %" PRId64 "\n", family_names[family], totals.operations[family].load());
  }
  std::printf("values checked           %" PRId64 "\nwrong values             %" PRId64
              "\nfailed operations        %" PRId64 "\nran more than once       %" PRId64
              "\nraw commands repeated    %" PRId64 "\nresults out of step      %" PRId64
              "\nincrements               %" PRId64 " acknowledged, %" PRId64 " failed, %" PRId64
              " stored\nfaults                  ",
              totals.values_checked.load(), totals.wrong_values.load(), totals.failed.load(),
              totals.run_twice.load(), totals.asked_again.load(), totals.out_of_step.load(),
              totals.increments_acknowledged.load(), totals.increments_failed.load(),
              totals.increments_stored.load());
  if (has_outside_faults) {
    std::printf(" from outside");
  }
  for (std::size_t fault = 0; fault < fault_names.size() && !has_outside_faults; ++fault) {
    std::printf("%s %ld %s", fault > 0 ? "," : "", driver.injected().at(fault),
                fault_names.at(fault));
  }
  std::puts("\nfailed calls");
  for (std::size_t why = 0; why < failure_names.size(); ++why) {
    std::printf("  %-36s %ld\n", failure_names[why], judge.failures(static_cast<Failure>(why)));
  }
  const ServerEvents seen = server_events();
  std::printf(
      "reconnections            %ld, and %ld attempts that failed\n"
      "ejections                %ld, retries %ld, ended by a rebuilt connection %ld\n"
      "longest call             %.3f s typed, %.3f s raw\nbound                    %s\n",
      seen.rebuilds, seen.failed_rebuilds, seen.ejections, seen.retries, seen.ended_by_rebuild,
      judge.longest_typed(), judge.longest_raw(), judge.explain_bound().c_str());
}

// Excludes what the run's proxies hold for connections that the host has closed.
Resources resources_in_use(const Site& site) {
  for (const auto& pool : site.pools) {
    for (const auto& target : pool) {
      target->drop_connections();
    }
  }
  return ::resources_in_use();
}

void print_resources(const char* when, const Resources& held) {
  std::printf("%-24s %ld descriptors, %ld KiB allocated, %ld KiB resident\n", when,
              held.descriptors, held.allocated / 1024, held.resident / 1024);
}

int run_chaos(const Options& options, Site& site) {
  std::printf("ruvo_chaos --seed %" PRIu64 " --seconds %d --threads %d%s%s%s\n", options.seed,
              options.seconds, options.threads, options.own.password ? " --password" : "",
              options.own.plain ? " --plain" : "", options.own.send_once ? " --send-once" : "");
  Verdict verdict;
  const bool has_outside_faults = !options.outside_faults.empty();
  FaultRecord faults(has_outside_faults);
  {
    // What the first use of threads, library and log allocates is not a leak.
    Totals totals;
    Judge judge(site, faults, options.threads);
    const StartedLibrary library(site.config);
    {
      const Host host(options.threads, totals, judge);
      wait_until(Clock::now() + warm_up, judge);
    }
    verdict.add(condition_without_faults(totals));
  }
  const Resources before = resources_in_use(site);
  Totals totals;
  totals.outage_expected = true;
  totals.max_runs = site.settings.options.send_once ? 1 : max_runs;
  Judge judge(site, faults, options.threads);
  Driver driver(site, options.seed, faults_of(options, site.settings), faults,
                [&](Clock::time_point time) {
                  return site.settings.one_server_suffices() && judge.has_call_from_before(time);
                });
  std::int64_t failed_late = 0;
  std::int64_t done_late = 0;
  {
    const auto library = start_library(options, site, faults);
    const Host host(options.threads, totals, judge);
    run_driver(options, driver, judge, totals);
    wait_for_recovery(site, judge);
    failed_late = totals.failed;
    done_late = totals.all_operations();
    wait_until(Clock::now() + quiet_period, judge);
    failed_late = totals.failed - failed_late;
    done_late = totals.all_operations() - done_late;
  }
  const Resources after = resources_in_use(site);
  print_report(totals, judge, driver, has_outside_faults);
  print_resources("before", before);
  print_resources("after", after);
  std::puts("");
  const ServerEvents events = server_events();
  for (const Condition& condition : conditions_of({site, totals, judge, events, has_outside_faults,
                                                   failed_late, done_late, before, after})) {
    verdict.add(condition);
  }
  return verdict.exit_status();
}

void add_options(CLI::App& app, Options& options) {
  app.add_option("--seed", options.seed, "Seed of the fault plan [random]");
  app.add_option("--seconds", options.seconds, "How long to inject faults")
      ->capture_default_str()
      ->check(CLI::Range(1, 7 * 86400));
  app.add_option("--threads", options.threads, "Threads of the host")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_option("--log", options.log, "File for the library's WARN and ERROR lines");
  auto* config = app.add_option("--config", options.config,
                                "Local configuration file of a host with disposable servers");
  app.add_flag("--throwaway", options.throwaway,
               "Use the servers of --config whatever keys they have")
      ->needs(config);
  auto* command = app.add_option("--fault-command", options.fault_command,
                                 "Program that takes a configured server down and brings it up")
                      ->needs(config);
  app.add_option("--outside-faults", options.outside_faults,
                 "The operator injects faults: into a 'single' server of a pool at a time, or an "
                 "'outage' of all its servers, in which calls may fail")
      ->needs(config)
      ->excludes(command)
      ->check(CLI::IsMember({"single", "outage"}));
  const auto add_setting = [&](const char* name, int& value, const char* text) {
    app.add_option(name, value, std::string(text) + " of its own servers")
        ->capture_default_str()
        ->check(CLI::Range(1, 60000))
        ->excludes(config);
  };
  add_setting("--connect-timeout", options.own.connect_timeout_ms, "connect_timeout (ms)");
  add_setting("--socket-timeout", options.own.socket_timeout_ms, "socket_timeout (ms)");
  add_setting("--retry-timeout", options.own.retry_timeout_s, "..._server_retry_timeout (s)");
  add_setting("--connections", options.own.connections, "Connections to each");
  app.add_flag(
         "--password", options.own.password,
         "Give its own servers a password: with --plain, servers that hang are then ejected, too")
      ->excludes(config);
  auto* plain = app.add_flag("--plain", options.own.plain,
                             "Without recommended_defaults: a call may then fail where the rules "
                             "of failover allow it")
                    ->excludes(config);
  app.add_flag(
         "--send-once", options.own.send_once,
         "With send_once: no increment may count twice, and a command that may have run fails")
      ->excludes(config)
      ->excludes(plain);
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app(description);
  add_options(app, options);
  CLI11_PARSE(app, argc, argv);
  if (!open_walk_log(options.log)) {
    throw std::runtime_error("cannot write " + options.log);
  }
  int result = 0;
  if (options.config.empty()) {
    OwnServers servers(options.own);
    result = run_chaos(options, servers.site());
  } else {
    Site site = configured_site(options.config, options.fault_command);
    site.outage_expected = options.outside_faults == "outage";
    if (!options.throwaway) {
      refuse_foreign_keys(site);
    }
    result = run_chaos(options, site);
  }
  close_walk_log();
  return result;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

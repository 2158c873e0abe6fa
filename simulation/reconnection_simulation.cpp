// What a site's hosts do to a proxy that has been away: a model of how the library finds its
// connections broken, leaves the proxy alone and comes back. Seeded: it prints the same each time.
//
//   reconnection_simulation                                the table of docs/scaling.md, as CSV
//   reconnection_simulation --hosts 1000 --connections 64  one case; --help lists its parameters
//
// Each call of a host whose turn falls on the proxy takes the next of the host's connections to it,
// and rebuilds it when it is broken. While the proxy is away that is refused at once. When it is
// back, its system completes connections up to the backlog, and the proxy accepts them and answers
// their first requests one after the other; beyond the backlog a connection is not answered and
// fails after connect_timeout. An answer that comes after socket_timeout finds nobody.
// Failures eject the proxy, and the retry comes at a full second, as in the library. Calls on good
// connections cost nothing here: the rate of accepting is what the proxy has left for new ones.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "run_main.h"

namespace {

constexpr std::uint64_t seed = 1;
constexpr double longest = 120;  // seconds after the return

struct Site {
  std::size_t hosts = 1000;
  std::size_t connections = 8;  // of each host to the proxy
  double calls = 60;            // of each host to the proxy, for each second
  double away = 2;              // seconds
  std::size_t backlog = 512;
  double accepts = 20000;  // for each second
  double connect_timeout = 0.2;
  double socket_timeout = 0.5;
  int failure_limit = 5;
  double retry_timeout = 30;
  double retry_spread = 0;  // hosts have retry time-outs up to so much longer, in whole seconds
};

struct Outcome {
  double most_restored = -1;  // seconds after the return until 99 in 100 connections are good
  double all_restored = -1;
  std::size_t attempts = 0;      // after the return
  std::size_t unanswered = 0;    // beyond the backlog
  std::size_t too_late = 0;      // answered after socket_timeout
  std::size_t ejections = 0;     // after the return
  std::size_t busiest_10ms = 0;  // the most attempts in a hundredth of a second
};

class Simulation {
 public:
  explicit Simulation(const Site& site)
      : site_(site),
        hosts_(site.hosts),
        good_(site.hosts * site.connections),
        busy_(site.hosts * site.connections),
        in_10ms_(static_cast<std::size_t>(longest * 100) + 1) {}

  // The proxy goes away at 0.5, in the middle of a second.
  Outcome run() {
    returns_ = 0.5 + site_.away;
    for (std::size_t host = 0; host < hosts_.size(); ++host) {
      hosts_[host].retry_timeout =
          site_.retry_timeout + std::floor(uniform() * (site_.retry_spread + 1));
      schedule(0.5 + time_to_next_call(), Step::call, host, 0);
    }
    while (outcome_.all_restored < 0 && !events_.empty() &&
           events_.top().time < returns_ + longest) {
      const Event event = events_.top();
      events_.pop();
      now_ = event.time;
      take(event);
    }
    outcome_.busiest_10ms = *std::max_element(in_10ms_.begin(), in_10ms_.end());
    return outcome_;
  }

 private:
  enum class Step { call, restored, unanswered, too_late };
  struct Event {
    double time;
    std::uint64_t number;  // orders what happens at the same time
    Step step;
    std::size_t host;
    std::size_t connection;
    bool operator<(const Event& other) const {  // the queue has the greatest on top
      return time != other.time ? time > other.time : number > other.number;
    }
  };
  struct Host {
    int failures = 0;
    double retry_at = 0;
    double retry_timeout = 0;
    std::size_t turn = 0;
  };

  void schedule(double time, Step step, std::size_t host, std::size_t connection) {
    events_.push({time, event_count_++, step, host, connection});
  }

  // By hand: the standard's distributions differ from library to library.
  double uniform() { return (static_cast<double>(random_() >> 11U) + 0.5) * 0x1p-53; }
  double time_to_next_call() { return -std::log(uniform()) / site_.calls; }

  void take(const Event& event) {
    Host& host = hosts_[event.host];
    switch (event.step) {
      case Step::call:
        call(event.host);
        schedule(now_ + time_to_next_call(), Step::call, event.host, 0);
        break;
      case Step::restored:
        busy_[event.connection] = false;
        good_[event.connection] = true;
        ++restored_;
        if (restored_ == good_.size() * 99 / 100) {
          outcome_.most_restored = now_ - returns_;
        }
        if (restored_ == good_.size()) {
          outcome_.all_restored = now_ - returns_;
        }
        break;
      case Step::unanswered:
        busy_[event.connection] = false;
        fail(host);
        break;
      case Step::too_late:
        busy_[event.connection] = false;
        break;
    }
  }

  void call(std::size_t number) {
    Host& host = hosts_[number];
    if (host.failures >= site_.failure_limit) {
      if (host.retry_at > std::floor(now_)) {
        return;  // the call goes to another proxy
      }
      host.failures = 0;
    }
    const std::size_t connection = number * site_.connections + host.turn++ % site_.connections;
    if (good_[connection] || busy_[connection]) {
      return;  // served, or waiting for the thread that rebuilds it
    }
    if (now_ < returns_) {
      fail(host);
      return;
    }
    connect(number, connection);
  }

  void fail(Host& host) {
    ++host.failures;
    host.retry_at = std::floor(now_) + host.retry_timeout;
    if (host.failures == site_.failure_limit && now_ >= returns_) {
      ++outcome_.ejections;
    }
  }

  void connect(std::size_t host, std::size_t connection) {
    busy_[connection] = true;
    ++outcome_.attempts;
    ++in_10ms_[static_cast<std::size_t>((now_ - returns_) * 100)];
    const double begins = std::max(now_, proxy_free_);
    if ((begins - now_) * site_.accepts >= static_cast<double>(site_.backlog)) {
      ++outcome_.unanswered;
      schedule(now_ + site_.connect_timeout, Step::unanswered, host, connection);
      return;
    }
    hosts_[host].failures = 0;  // connected: the library takes the proxy for well
    proxy_free_ = begins + 1 / site_.accepts;
    if (proxy_free_ - now_ > site_.socket_timeout) {
      ++outcome_.too_late;
      schedule(now_ + site_.socket_timeout, Step::too_late, host, connection);
    } else {
      schedule(proxy_free_, Step::restored, host, connection);
    }
  }

  Site site_;
  std::mt19937_64 random_{seed};
  double now_ = 0;
  double returns_ = 0;
  double proxy_free_ = 0;  // when the proxy has answered all that it has accepted
  std::uint64_t event_count_ = 0;
  std::priority_queue<Event> events_;
  std::vector<Host> hosts_;
  std::vector<bool> good_;  // connections, by host and number
  std::vector<bool> busy_;  // a thread is rebuilding it
  std::vector<std::size_t> in_10ms_;
  std::size_t restored_ = 0;
  Outcome outcome_;
};

// The first with one change or two, then what keeps it calm.
std::vector<Site> sites_of_the_table() {
  return {{},
          {.connections = 64},
          {.connections = 2},
          {.connections = 1},
          {.backlog = 8192},
          {.connections = 64, .backlog = 8192},
          {.connections = 64, .backlog = 65535},
          {.failure_limit = 20},
          {.retry_timeout = 5},
          {.retry_spread = 29},
          {.connections = 64, .retry_spread = 29},
          {.backlog = 8192, .retry_timeout = 5, .retry_spread = 10}};
}

void print(const Site& site) {
  const Outcome outcome = Simulation(site).run();
  std::printf("%zu,%zu,%.0f,%.1f,%zu,%.0f,%.1f,%.1f,%d,%.0f,%.0f,", site.hosts, site.connections,
              site.calls, site.away, site.backlog, site.accepts, site.connect_timeout,
              site.socket_timeout, site.failure_limit, site.retry_timeout, site.retry_spread);
  std::printf("%.1f,%.1f,%zu,%zu,%zu,%zu,%zu\n", outcome.most_restored, outcome.all_restored,
              outcome.attempts, outcome.unanswered, outcome.too_late, outcome.ejections,
              outcome.busiest_10ms);
}

int run(int argc, char** argv) {
  Site site;
  CLI::App app("Simulates the return of a proxy to a site's hosts; times are seconds");
  const auto add = [&app](const char* name, auto& value, const char* text, auto range) {
    app.add_option(name, value, text)->capture_default_str()->check(range);
  };
  const CLI::Range number(1, 1000000);
  const CLI::Range seconds(0.0, 600.0);
  add("--hosts", site.hosts, "Hosts", number);
  add("--connections", site.connections, "Connections of each host to the proxy", number);
  add("--calls", site.calls, "Calls of each host to the proxy, for each second", number);
  add("--away", site.away, "How long the proxy is away", seconds);
  add("--backlog", site.backlog, "Connections that wait to be accepted, at most", number);
  add("--accepts", site.accepts, "Connections accepted and answered for each second", number);
  add("--connect-timeout", site.connect_timeout, "connect_timeout", seconds);
  add("--socket-timeout", site.socket_timeout, "socket_timeout", seconds);
  add("--failure-limit", site.failure_limit, "server_failure_limit", number);
  add("--retry-timeout", site.retry_timeout, "server_retry_timeout", seconds);
  add("--retry-spread", site.retry_spread, "How much longer it is on some hosts", seconds);
  CLI11_PARSE(app, argc, argv);

  std::puts(
      "hosts,connections,calls,away,backlog,accepts,connect_timeout,socket_timeout,failure_limit,"
      "retry_timeout,retry_spread,restored_99_s,restored_all_s,attempts,unanswered,too_late,"
      "ejections,busiest_10ms");
  if (argc > 1) {
    print(site);
    return 0;
  }
  for (const Site& one : sites_of_the_table()) {
    print(one);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

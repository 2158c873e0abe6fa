// How throughput and latency change with threads, connections and servers: a closed queueing model
// of hosts that use the library, for the figures of docs/scaling.md. It is seeded, so it prints the
// same each time.
//
//   scaling_simulation                             all points of the figures, as CSV
//   scaling_simulation --threads 16 --servers 1    one point; --help lists its parameters
//
// The threads of a host choose servers and their connections round-robin, and wait for the
// connection's lock. The request travels for half the round trip, waits for the server's single
// thread, is served, and its reply travels back. Then the lock is free, and the thread calls again
// after some work of its own. A freed lock wakes the thread that has waited longest; a thread that
// arrives before the other is awake gets the lock first, as with the system's mutexes. Nothing
// fails.
//
// With auto_pipelining a thread whose connection is in use takes the next unused one of that
// server; if there is none, it shares the connection in full duplex. Its command leaves at once
// while fewer than 4 are in flight, otherwise with the next reply or 100 microseconds after the
// last write. The library's special cases are not modelled: its short pause after a single command,
// and near servers.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "run_main.h"

namespace {

constexpr std::uint64_t seed = 1;
constexpr std::size_t requests_measured = 200000;
constexpr std::size_t requests_before = 50000;  // until the queues are in a steady state

// The values that the figures cover.
constexpr std::array<std::size_t, 3> thread_counts{4, 16, 64};
constexpr std::array<std::size_t, 14> connection_counts{1,  2,  3,  4,  6,  8,  12,
                                                        16, 24, 32, 48, 64, 96, 128};
constexpr std::size_t max_servers = 8;

// The library's general values, src/openlib/ruvo/pipeline.h.
constexpr std::size_t direct_sends = 4;
constexpr double write_pause = 100;  // microseconds

struct Point {
  std::string series = "one";
  std::size_t hosts = 1;
  std::size_t threads = 16;      // of each host
  std::size_t connections = 16;  // of each host, to each server
  std::size_t servers = 2;
  double round_trip = 200;  // microseconds, like the other times
  double service = 10;      // the mean; service and wake-up times are exponentially distributed
  double host_work = 10;    // between a reply and the next call
  double pause = 0;         // the mean of a thread's further idle time, exponentially distributed
  double wake_up = 50;      // from a freed lock until the waiting thread runs
  bool auto_pipelining = false;
};

struct Result {
  double requests_per_second;
  double mean;
  double p50;
  double p99;
};

class Simulation {
 public:
  explicit Simulation(const Point& point)
      : point_(point),
        threads_(point.hosts * point.threads),
        next_server_(point.hosts),
        next_connection_(point.hosts * point.servers),
        connections_(point.hosts * point.servers * point.connections),
        servers_(point.servers) {}

  Result run() {
    for (std::size_t thread = 0; thread < threads_.size(); ++thread) {
      schedule(random_time(std::max(point_.round_trip, point_.pause)), Step::call, thread);
    }
    while (latencies_.size() < requests_before + requests_measured) {
      const Event event = events_.top();
      events_.pop();
      now_ = event.time;
      take(event);
    }
    return evaluate();
  }

 private:
  enum class Step { call, woken, write, arrive, served, reply };
  struct Event {
    double time;
    std::uint64_t number;  // orders simultaneous events
    Step step;
    std::size_t subject;                        // a connection for Step::write, otherwise a thread
    bool operator<(const Event& other) const {  // the queue has the greatest on top
      return time != other.time ? time > other.time : number > other.number;
    }
  };
  struct Thread {
    double called = 0;
    std::size_t connection = 0;
    std::size_t server = 0;
  };
  using Queue = std::deque<std::size_t>;  // of threads
  struct Connection {
    bool locked = false;
    Queue waiting;
    // With auto_pipelining:
    std::size_t in_flight = 0;
    double last_write = -write_pause;
    bool will_write = false;  // when the pause is over
  };

  void schedule(double delay, Step step, std::size_t subject) {
    events_.push({now_ + delay, event_count_++, step, subject});
  }

  // Not a distribution of the standard library, since these differ between implementations.
  double random_time(double mean) {
    const double uniform = (static_cast<double>(random_() >> 11U) + 0.5) * 0x1p-53;
    return -std::log(uniform) * mean;
  }

  void take(const Event& event) {
    if (event.step == Step::write) {
      connections_[event.subject].will_write = false;
      write(event.subject, false);
      return;
    }
    Thread& thread = threads_[event.subject];
    switch (event.step) {
      case Step::call:
        choose(event.subject);
        if (point_.auto_pipelining) {
          connections_[thread.connection].waiting.push_back(event.subject);
          write(thread.connection, false);
        } else {
          lock(event.subject);
        }
        break;
      case Step::woken:
        lock(event.subject);
        break;
      case Step::write:
        break;
      case Step::arrive:
        servers_[thread.server].push_back(event.subject);
        if (servers_[thread.server].size() == 1) {
          schedule(random_time(point_.service), Step::served, event.subject);
        }
        break;
      case Step::served:
        servers_[thread.server].pop_front();
        if (!servers_[thread.server].empty()) {
          schedule(random_time(point_.service), Step::served, servers_[thread.server].front());
        }
        schedule(point_.round_trip / 2, Step::reply, event.subject);
        break;
      case Step::reply:
        if (point_.auto_pipelining) {
          --connections_[thread.connection].in_flight;
          write(thread.connection, true);
        } else {
          unlock(connections_[thread.connection]);
        }
        return_from_call(event.subject);
        break;
    }
  }

  void return_from_call(std::size_t thread) {
    latencies_.push_back(now_ - threads_[thread].called);
    if (latencies_.size() == requests_before) {
      measured_from_ = now_;
    }
    const double idle = point_.pause > 0 ? random_time(point_.pause) : 0;
    schedule(point_.host_work + idle, Step::call, thread);
  }

  void choose(std::size_t number) {
    Thread& thread = threads_[number];
    const std::size_t host = number / point_.threads;
    thread.called = now_;
    thread.server = next_server_[host]++ % point_.servers;
    const std::size_t path = host * point_.servers + thread.server;
    const std::size_t first = path * point_.connections;
    const std::size_t next = next_connection_[path]++;
    thread.connection = first + next % point_.connections;
    for (std::size_t i = 0; point_.auto_pipelining && i < point_.connections; ++i) {
      const std::size_t candidate = first + (next + i) % point_.connections;
      if (connections_[candidate].in_flight + connections_[candidate].waiting.size() == 0) {
        thread.connection = candidate;
        return;
      }
    }
  }

  void lock(std::size_t thread) {
    Connection& connection = connections_[threads_[thread].connection];
    if (connection.locked) {
      connection.waiting.push_back(thread);
      return;
    }
    connection.locked = true;
    schedule(point_.round_trip / 2, Step::arrive, thread);
  }

  // Sends the commands that wait at a connection, now or when the pause is over.
  void write(std::size_t number, bool has_replied) {
    Connection& connection = connections_[number];
    if (connection.waiting.empty()) {
      return;
    }
    const double next_write = connection.last_write + write_pause;
    if (connection.in_flight >= direct_sends && !has_replied && now_ < next_write) {
      if (!connection.will_write) {
        connection.will_write = true;
        schedule(next_write - now_, Step::write, number);
      }
      return;
    }
    for (const std::size_t caller : connection.waiting) {
      schedule(point_.round_trip / 2, Step::arrive, caller);
    }
    connection.in_flight += connection.waiting.size();
    connection.waiting.clear();
    connection.last_write = now_;
  }

  void unlock(Connection& connection) {
    connection.locked = false;
    if (!connection.waiting.empty()) {
      schedule(random_time(point_.wake_up), Step::woken, connection.waiting.front());
      connection.waiting.pop_front();
    }
  }

  Result evaluate() {
    latencies_.erase(latencies_.begin(), latencies_.begin() + requests_before);
    std::sort(latencies_.begin(), latencies_.end());
    double sum = 0;
    for (const double latency : latencies_) {
      sum += latency;
    }
    const auto count = static_cast<double>(latencies_.size());
    return {count / (now_ - measured_from_) * 1e6, sum / count, latencies_[latencies_.size() / 2],
            latencies_[latencies_.size() * 99 / 100]};
  }

  Point point_;
  std::mt19937_64 random_{seed};
  double now_ = 0;
  double measured_from_ = 0;
  std::uint64_t event_count_ = 0;
  std::priority_queue<Event> events_;
  std::vector<Thread> threads_;
  std::vector<std::size_t> next_server_;      // by host
  std::vector<std::size_t> next_connection_;  // by host and server
  std::vector<Connection> connections_;       // by host, server and number
  std::vector<Queue> servers_;                // the first is being served
  std::vector<double> latencies_;
};

// One host shows what its threads gain from more connections, eight hosts what they gain from more
// servers.
std::vector<Point> points_of_figures() {
  std::vector<Point> points;
  for (const std::size_t threads : thread_counts) {
    for (const std::size_t connections : connection_counts) {
      points.push_back({.series = "connections", .threads = threads, .connections = connections});
    }
  }
  for (const std::size_t threads : thread_counts) {
    for (const std::size_t connections : connection_counts) {
      points.push_back({.series = "shared",
                        .threads = threads,
                        .connections = connections,
                        .auto_pipelining = true});
    }
  }
  for (const std::size_t threads : thread_counts) {
    for (std::size_t servers = 1; servers <= max_servers; ++servers) {
      points.push_back({.series = "servers",
                        .hosts = 8,
                        .threads = threads,
                        .connections = 2 * threads,
                        .servers = servers});
    }
  }
  return points;
}

void print(const Point& point) {
  const Result result = Simulation(point).run();
  std::printf("%s,%zu,%zu,%zu,%zu,%.0f,%.1f,%.1f,%.1f\n", point.series.c_str(), point.hosts,
              point.threads, point.connections, point.servers, result.requests_per_second,
              result.mean, result.p50, result.p99);
}

int run(int argc, char** argv) {
  Point point;
  CLI::App app("Simulates hosts that use the library; times are microseconds");
  const auto add = [&app](const char* name, auto& value, const char* text, auto range) {
    app.add_option(name, value, text)->capture_default_str()->check(range);
  };
  const CLI::Range number(1, 10000);
  const CLI::Range microseconds(0.0, 1e6);
  add("--hosts", point.hosts, "Hosts", number);
  add("--threads", point.threads, "Threads of each host", number);
  add("--connections", point.connections, "Connections of each host to each server", number);
  add("--servers", point.servers, "Servers of the pool", number);
  add("--round-trip", point.round_trip, "Network time of a request and its reply", microseconds);
  add("--service", point.service, "Mean time in the server", microseconds);
  add("--host-work", point.host_work, "Time between a reply and the next call", microseconds);
  add("--pause", point.pause, "Mean time that a thread idles beyond that", microseconds);
  app.add_flag("--auto-pipelining", point.auto_pipelining,
               "Threads that meet on a connection pipeline their commands on it");
  add("--wake-up", point.wake_up, "Mean time that a thread takes to wake up for a lock",
      microseconds);
  CLI11_PARSE(app, argc, argv);

  std::printf(
      "series,hosts,threads,connections,servers,requests_per_second,mean_us,p50_us,p99_us\n");
  if (argc > 1) {
    print(point);
    return 0;
  }
  for (const Point& one : points_of_figures()) {
    print(one);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

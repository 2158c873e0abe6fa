// What an outage costs a host of 16 threads: each row injects a fault into its servers and counts
// the failed calls. If a server can still answer within the deadline, no call should fail.
#include <ruvo/ruvo.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "calling_host.h"
#include "run_main.h"
#include "server_states.h"
#include "servers.h"
#include "tcp_proxy.h"

// ---- Connections that this process opens, the library's and those of the fixtures ----

namespace {
std::atomic<long> connections{0};
}  // namespace

// Replaces the system's function, also for the libraries.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system's are reserved
extern "C" __attribute__((visibility("default"))) int connect(int fd, const sockaddr* addr,
                                                              socklen_t length) {
  ++connections;
  return static_cast<int>(syscall(SYS_connect, fd, addr, length));
}

namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

constexpr const char* password = "secret";
constexpr milliseconds fault_at = 500ms;
constexpr milliseconds end_of_state = 1500ms;
constexpr double max_connections = 30;  // per second, to a pool that is down

std::string keys = "recommended_defaults = true";
int thread_count = 16;

struct Outcome {
  SecondOfCalls all;
  SecondOfCalls last;                // the last second
  double connections_a_second = -1;  // negative: not counted
  int keys_in_other_pools = 0;
};

struct Row {
  const char* name;
  const char* text;
  bool is_answerable;  // at any time, a server can answer within the deadline
  std::function<Outcome()> run;
};

HostConfig config_for(const std::string& temp, const std::string& persist,
                      const std::string& server_keys = "") {
  return HostConfig("connect_timeout = 200\nsocket_timeout = 500\n" + keys + "\n" +
                        pools_at(temp, persist, persist),
                    "p_connect_num = 2\n" + server_keys);
}

HostConfig config_for(const std::string& servers) { return config_for(servers, servers); }

std::string with_password() {
  const std::string value = std::string(" = ") + password + "\n";
  return "p_password" + value + "t_password" + value + "ps_password" + value;
}

// Writes and reads alternate: a replica serves reads only.
int write_or_read(int thread) {
  thread_local bool is_write = false;
  is_write = !is_write;
  const std::string key = "outages:" + std::to_string(thread);
  if (is_write) {
    return RUVO_InsertKey(key.c_str(), "value", 5, 60, eTempServer, nullptr);
  }
  const char* data = nullptr;
  unsigned long length = 0;
  const int result = RUVO_QueryKey(key.c_str(), &data, &length, eTempServer, nullptr);
  RUVO_FreeResult(data);
  return result;
}

int write_raw(int thread) {
  void* const reply = RUVO_ExecRedisCmd(eTempServer, "SET outages:%d value", thread);
  if (reply != nullptr) {
    RUVO_FreeReplyObject(reply);
  }
  return reply != nullptr ? RUVO_OK : RUVO_ERR_FAILED;
}

Outcome outcome_of(CallingHost& host, int seconds) {
  host.wait_until(std::chrono::seconds(seconds));
  host.stop();
  Outcome outcome;
  for (const SecondOfCalls& one : host.seconds(seconds)) {
    outcome.all += one;
    outcome.last = one;
  }
  return outcome;
}

// Threads call while a fault begins and ends.
template <typename Fault, typename End>
Outcome run_through(const HostConfig& config, const Fault& fault, milliseconds away, const End& end,
                    int seconds, const CallingHost::Call& call = write_or_read) {
  CallingHost host(config.path(), thread_count, call);
  host.wait_until(fault_at);
  fault();
  host.wait_until(fault_at + away);
  end();
  return outcome_of(host, seconds);
}

Outcome lone_server_restarted(milliseconds away) {
  RedisServer redis;
  return run_through(
      config_for(redis.addr()), [&] { redis.kill(); }, away, [&] { redis.restart(); },
      away < 500ms ? 2 : 3);
}

Outcome both_proxies_restarted() {
  const RedisServer redis;
  Nutcracker first({redis.addr()});
  Nutcracker second({redis.addr()});
  return run_through(
      config_for(first.addr() + "," + second.addr()),
      [&] {
        first.kill();
        second.kill();
      },
      1s,
      [&] {
        first.restart();
        second.restart();
      },
      3);
}

// One of two servers enters a state and leaves it again.
using StateChange = std::function<void(RedisServer& server, const RedisServer& healthy)>;
Outcome one_of_two(const StateChange& enter, const StateChange& leave) {
  const RedisServer healthy;
  RedisServer server;
  return run_through(
      config_for(healthy.addr() + "," + server.addr()), [&] { enter(server, healthy); },
      end_of_state - fault_at, [&] { leave(server, healthy); }, 3);
}

// The server loads from the start: one that restarts could be ejected before it answers LOADING.
Outcome one_of_two_loading() {
  const RedisServer healthy;
  RedisServer server;
  restart_loading(server);
  return run_through(
      config_for(healthy.addr() + "," + server.addr()), [] {}, end_of_state - fault_at,
      [&] { finish_loading(server); }, 3);
}

Outcome one_of_two_at_its_limit() {
  std::optional<ClientLimit> limit;
  return one_of_two([&](RedisServer& server, const RedisServer&) { limit.emplace(server); },
                    [&](RedisServer&, const RedisServer&) { limit.reset(); });
}

// The host starts before its servers.
template <typename Arrival>
Outcome start_before(const HostConfig& config, const Arrival& arrival) {
  return run_through(
      config, [] {}, 0ms, arrival, 3);
}

Outcome start_before_redis() {
  RedisServer redis;
  redis.kill();
  return start_before(config_for(redis.addr()), [&] { redis.restart(); });
}

// The balancer accepts and closes, since it has no server.
Outcome start_before_the_balancers_server() {
  RedisServer redis(std::string("--requirepass ") + password);
  redis.kill();
  const TcpProxy balancer(redis.port());
  return start_before(config_for(balancer.addr(), balancer.addr(), with_password()),
                      [&] { redis.restart(); });
}

// The server has room for one of the pool's two connections, and answers the other's password with
// an error.
Outcome start_with_a_refused_password() {
  const RedisServer redis(std::string("--requirepass ") + password);
  const RedisServer other_pools(std::string("--requirepass ") + password);
  std::optional<ClientLimit> limit(std::in_place, redis, 1, password);
  return start_before(config_for(redis.addr(), other_pools.addr(), with_password()),
                      [&] { limit.reset(); });
}

// Connections are counted after the first second: by then the host has lost those that it had.
template <typename Fault, typename End>
Outcome pool_down(const std::string& addr, const RedisServer& other_pools, const Fault& fault,
                  const End& end) {
  constexpr milliseconds count_from = 1000ms;
  constexpr milliseconds back_at = 3500ms;
  constexpr int seconds = 6;  // in the fourth the server returns; the last is for the verdict
  const HostConfig config = config_for(addr, other_pools.addr());
  CallingHost host(config.path(), thread_count, write_or_read);
  host.wait_until(fault_at);
  fault();
  host.wait_until(count_from);
  const long before = connections;
  host.wait_until(back_at);
  const auto opened = static_cast<double>(connections - before);
  end();
  Outcome outcome = outcome_of(host, seconds);
  outcome.connections_a_second =
      opened / std::chrono::duration<double>(back_at - count_from).count();
  return outcome;
}

Outcome pool_refuses() {
  RedisServer redis;
  const RedisServer other_pools;
  return pool_down(
      redis.addr(), other_pools, [&] { redis.kill(); }, [&] { redis.restart(); });
}

Outcome pool_at_its_limit() {
  const RedisServer redis;
  const RedisServer other_pools;
  std::optional<ClientLimit> limit;
  return pool_down(
      redis.addr(), other_pools, [&] { limit.emplace(redis); }, [&] { limit.reset(); });
}

// The pool's second server fails: without raw_commands_stay_in_pool the command fails over to the
// second pool.
Outcome raw_command_stays() {
  const RedisServer healthy;
  RedisServer redis;
  const RedisServer other_pools;
  Outcome outcome = run_through(
      config_for(healthy.addr() + "," + redis.addr(), other_pools.addr()), [&] { redis.kill(); },
      1s, [&] { redis.restart(); }, 3, write_raw);
  outcome.keys_in_other_pools = std::stoi(other_pools.ask("dbsize"));
  return outcome;
}

const std::vector<Row>& rows() {
  static const std::vector<Row> all{
      {"restart", "a lone Redis restarted at once", true,
       [] { return lone_server_restarted(0ms); }},
      {"away-0.05", "a lone Redis away for 0.05 s", true,
       [] { return lone_server_restarted(50ms); }},
      {"away-0.2", "a lone Redis away for 0.2 s", true,
       [] { return lone_server_restarted(200ms); }},
      {"away-0.5", "a lone Redis away for 0.5 s", true,
       [] { return lone_server_restarted(500ms); }},
      {"away-1", "a lone Redis away for 1 s", true, [] { return lone_server_restarted(1s); }},
      {"proxies", "both proxies away for 1 s", true, both_proxies_restarted},
      {"readonly", "one of two becomes a replica", true,
       [] {
         return one_of_two(become_replica, [](const RedisServer& server, const RedisServer&) {
           become_primary(server);
         });
       }},
      {"masterdown", "one of two a replica without its primary", true,
       [] {
         return one_of_two(
             [](const RedisServer& server, const RedisServer&) {
               become_replica_without_primary(server);
             },
             [](const RedisServer& server, const RedisServer&) { become_primary(server); });
       }},
      {"loading", "one of two is loading", true, one_of_two_loading},
      {"client-limit", "one of two at its limit of clients", true, one_of_two_at_its_limit},
      {"noauth", "one of two wants a password", true,
       [] {
         return one_of_two(
             [](const RedisServer& server, const RedisServer&) { want_password(server, password); },
             [](const RedisServer& server, const RedisServer&) {
               want_no_password(server, password);
             });
       }},
      {"start-balancer", "start with a password, balancer without a server", true,
       start_before_the_balancers_server},
      {"start-auth", "start, one of two connections refused AUTH", true,
       start_with_a_refused_password},
      {"start-alone", "start before Redis", true, start_before_redis},
      {"pool-refuses", "pool down, connections refused", false, pool_refuses},
      {"pool-limit", "pool down, at its limit of clients", false, pool_at_its_limit},
      {"raw", "raw commands, one of two away for 1 s", true, raw_command_stays},
  };
  return all;
}

// Which expectations are not met; empty if all are.
std::string judge(const Row& row, const Outcome& outcome) {
  std::string wrong;
  const auto add = [&wrong](bool is_wrong, const char* text) {
    wrong += is_wrong ? (wrong.empty() ? "" : ", ") + std::string(text) : "";
  };
  add(row.is_answerable && outcome.all.failed > 0, "calls failed");
  add(outcome.last.failed > 0 || outcome.last.calls == 0, "did not recover");
  add(outcome.keys_in_other_pools > 0, "written in another pool");
  add(outcome.connections_a_second > max_connections, "too many connections");
  return wrong;
}

// In a process of its own, so that no row inherits the state of the library from another.
bool run_row(const Row& row) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    int status = 2;
    try {
      const Outcome outcome = row.run();
      const std::string wrong = judge(row, outcome);
      const std::string rate = outcome.connections_a_second < 0
                                   ? "-"
                                   : std::to_string(std::lround(outcome.connections_a_second));
      std::printf("| %-48s | %9ld | %9ld | %9ld | %7.0f | %13s | %6ld | %s |\n", row.text,
                  outcome.all.calls, outcome.all.failed, outcome.last.failed,
                  outcome.all.slowest_ms, rate.c_str(), outcome.all.lines,
                  wrong.empty() ? "good" : wrong.c_str());
      status = wrong.empty() ? 0 : 1;
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "%s: %s\n", row.name, failure.what());
    }
    std::fflush(stdout);
    _exit(status);
  }
  int status = 0;
  if (child == -1 || waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
      WEXITSTATUS(status) > 1) {
    throw std::runtime_error(std::string("row ") + row.name + " could not be run");
  }
  return WEXITSTATUS(status) == 0;
}

int run(int argc, char** argv) {
  std::vector<std::string> only;
  std::vector<std::string> lines;
  bool require_none = false;
  std::vector<std::string> names;
  for (const Row& row : rows()) {
    names.emplace_back(row.name);
  }
  CLI::App app("Injects faults into the servers of a host and counts the calls that fail");
  app.add_option("rows", only, "Rows to run, all by default")->check(CLI::IsMember(names));
  app.add_option("--threads", thread_count, "Threads of the host, on 2 connections to each server")
      ->capture_default_str()
      ->check(CLI::Range(1, 300));
  app.add_option("--key", lines,
                 "A line of section common in place of 'recommended_defaults = true'; may be "
                 "repeated, and empty for none");
  app.add_flag(
      "--require-none", require_none,
      "Exit with 1 when a call failed that a server could have answered, when the host did "
      "not recover, or when a row broke another rule");
  CLI11_PARSE(app, argc, argv);
  if (!lines.empty()) {
    keys.clear();
    for (const std::string& line : lines) {
      keys += line + "\n";
    }
  }
  std::puts(
      "| What happened                                    |     Calls |    Failed | in last s | "
      "Slowest | Connections/s |  Lines | |\n"
      "|---|---:|---:|---:|---:|---:|---:|---|");
  int bad = 0;
  for (const Row& row : rows()) {
    if (only.empty() || std::find(only.begin(), only.end(), row.name) != only.end()) {
      bad += run_row(row) ? 0 : 1;
    }
  }
  std::printf("%d rows are not good\n", bad);
  return require_none && bad > 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

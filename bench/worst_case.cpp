// What happens to a host while one of its two servers hangs, is down, restarts, or becomes a
// replica: without any key and with a new site's configuration. Writes a row for each second;
// scripts/plot_worst_case.sh draws it.
#include <ruvo/ruvo.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <functional>
#include <numeric>
#include <stdexcept>

#include "calling_host.h"
#include "run_main.h"
#include "server_states.h"

namespace {

using std::chrono::seconds;

struct Configuration {
  const char* name;
  const char* keys;
};

constexpr Configuration configurations[] = {
    {"no key", ""},
    {"recommended", "recommended_defaults = true\n"},
};

struct Fault {
  const char* name;
  seconds lasts;
  std::function<void(RedisServer& server, const RedisServer& other)> begin;
  std::function<void(RedisServer& server)> end;
};

const std::vector<Fault>& faults() {
  static const std::vector<Fault> all{
      {"hang", seconds(60), [](RedisServer& server, const RedisServer&) { server.signal(SIGSTOP); },
       [](RedisServer& server) { server.signal(SIGCONT); }},
      {"kill", seconds(15), [](RedisServer& server, const RedisServer&) { server.kill(); },
       [](RedisServer& server) { server.restart(); }},
      {"restart", seconds(5),
       [](RedisServer& server, const RedisServer&) {
         server.kill();
         server.restart();
       },
       [](RedisServer&) {}},
      // Connections stay on the server that is now a replica, and writes are refused.
      {"failover", seconds(15), become_replica, become_primary},
  };
  return all;
}

struct RunSettings {
  int threads = 16;
  int before = 10;  // seconds
  int after = 10;
};

int write(int thread) {
  return RUVO_InsertKey(("worst_case:" + std::to_string(thread)).c_str(), "value", 5, 60,
                        eTempServer, nullptr);
}

std::vector<SecondOfCalls> calls_through(const Fault& fault, const char* keys,
                                         const RunSettings& settings) {
  const RedisServer good;
  RedisServer faulty;
  const std::string addrs = good.addr() + "," + faulty.addr();
  const HostConfig config("connect_timeout = 200\nsocket_timeout = 500\n" + std::string(keys) +
                              pools_at(addrs, good.addr(), good.addr()),
                          "p_connect_num = 2");
  CallingHost host(config.path(), settings.threads, write);
  if (host.start_result() != RUVO_OK) {
    throw std::runtime_error(std::string("RUVO_Init: ") + ruvo_result_text(host.start_result()));
  }
  const seconds begin(settings.before);
  const seconds all = begin + fault.lasts + seconds(settings.after);
  host.wait_until(begin);
  fault.begin(faulty, good);
  host.wait_until(begin + fault.lasts);
  fault.end(faulty);
  host.wait_until(all);
  host.stop();
  return host.seconds(static_cast<int>(all.count()));
}

double served(const std::vector<SecondOfCalls>& calls, int from, int to) {
  return std::accumulate(calls.begin() + from, calls.begin() + to, 0.0,
                         [](double sum, const SecondOfCalls& one) {
                           return sum + static_cast<double>(one.calls - one.failed);
                         });
}

// To standard error: standard output has the rows.
void print_summary(const char* fault, const char* name, const std::vector<SecondOfCalls>& calls,
                   int before, int end) {
  const int window = std::min(10, end - before);
  double worst = served(calls, before, before + window);
  for (int from = before; from + window <= end; ++from) {
    worst = std::min(worst, served(calls, from, from + window));
  }
  SecondOfCalls summary;
  for (const SecondOfCalls& one : calls) {
    summary.failed += one.failed;
    summary.slowest_ms = std::max(summary.slowest_ms, one.slowest_ms);
    summary.lines = std::max(summary.lines, one.lines);
  }
  std::fprintf(
      stderr,
      "%s, %s: goodput %.3f times that before the fault in the worst %d seconds, slowest call "
      "%.0f ms, %ld failed, at most %ld lines a second\n",
      fault, name, worst / (served(calls, 0, before) / before * window), window, summary.slowest_ms,
      summary.failed, summary.lines);
}

int run(int argc, char** argv) {
  RunSettings settings;
  std::vector<std::string> only;
  std::vector<std::string> names;
  for (const Fault& fault : faults()) {
    names.emplace_back(fault.name);
  }
  CLI::App app("Injects faults into one of a host's two servers, and counts the host's calls");
  app.add_option("faults", only, "Faults, all by default")->check(CLI::IsMember(names));
  const auto add = [&app](const char* name, int& value, const char* text) {
    app.add_option(name, value, text)->capture_default_str()->check(CLI::Range(1, 300));
  };
  add("--threads", settings.threads, "Threads of the host, on 2 connections to each server");
  add("--before", settings.before, "Seconds before the fault");
  add("--after", settings.after, "Seconds after it");
  CLI11_PARSE(app, argc, argv);
  std::puts("fault,keys,second,calls,failed,slowest_ms,log_lines");
  for (const Fault& fault : faults()) {
    if (!only.empty() && std::find(only.begin(), only.end(), fault.name) == only.end()) {
      continue;
    }
    for (const auto& [name, keys] : configurations) {
      const std::vector<SecondOfCalls> calls = calls_through(fault, keys, settings);
      for (std::size_t second = 0; second < calls.size(); ++second) {
        const SecondOfCalls& one = calls[second];
        std::printf("%s,%s,%zu,%ld,%ld,%.1f,%ld\n", fault.name, name, second + 1, one.calls,
                    one.failed, one.slowest_ms, one.lines);
      }
      print_summary(fault.name, name, calls, settings.before,
                    settings.before + static_cast<int>(fault.lasts.count()));
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

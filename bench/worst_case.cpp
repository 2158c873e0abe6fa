// What happens to a host while one of its two servers hangs: without any key and with a new site's
// configuration. Writes a row for each second; scripts/plot_worst_case.sh draws it.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "run_main.h"
#include "stopped_server.h"

namespace {

struct Configuration {
  const char* name;
  const char* keys;
};

constexpr Configuration configurations[] = {
    {"no key", ""},
    {"recommended", "recommended_defaults = true\n"},
};

void print_summary(const char* name, const std::vector<SecondOfCalls>& seconds,
                   const StoppedServer& run) {
  const int from = run.before + 2;
  const int to = run.before + run.stopped;
  SecondOfCalls worst;
  for (const SecondOfCalls& one : seconds) {
    worst.failed += one.failed;
    worst.slowest_ms = std::max(worst.slowest_ms, one.slowest_ms);
    worst.lines = std::max(worst.lines, one.lines);
  }
  std::fprintf(stderr,
               "%s: throughput %.3f of before over the worst ten seconds, slowest call %.0f ms, "
               "%ld failed, at most %ld lines a second\n",
               name, worst_share(seconds, run.before, from, to, std::min(10, to - from)),
               worst.slowest_ms, worst.failed, worst.lines);
}

int run(int argc, char** argv) {
  StoppedServer run;
  CLI::App app("Stops one of two servers below a host, and counts its calls");
  const auto add = [&app](const char* name, int& value, const char* text) {
    app.add_option(name, value, text)->capture_default_str()->check(CLI::Range(1, 300));
  };
  add("--threads", run.threads, "Threads of the host, on 2 connections to each server");
  add("--before", run.before, "Seconds before the stop");
  add("--stopped", run.stopped, "Seconds that the server is stopped for, 3 at least");
  add("--after", run.after, "Seconds after it");
  CLI11_PARSE(app, argc, argv);
  std::puts("keys,second,calls,failed,slowest_ms,log_lines");
  for (const auto& [name, keys] : configurations) {
    run.keys = keys;
    const std::vector<SecondOfCalls> seconds = calls_with_a_stopped_server(run);
    for (std::size_t second = 0; second < seconds.size(); ++second) {
      const SecondOfCalls& one = seconds[second];
      std::printf("%s,%zu,%ld,%ld,%.1f,%ld\n", name, second + 1, one.calls, one.failed,
                  one.slowest_ms, one.lines);
    }
    print_summary(name, seconds, run);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

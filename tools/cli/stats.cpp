// The command `stats`: the counts of a host's statistics file, once or repeatedly.
#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "console.h"
#include "prometheus.h"
#include "stats_file.h"

namespace {

constexpr double nanoseconds_per_second = 1e9;

struct Percentile {
  const char* name;
  double percent;
};
constexpr std::array percentiles{Percentile{"p50", 50}, Percentile{"p90", 90},
                                 Percentile{"p99", 99}, Percentile{"p99.9", 99.9}};

// Capped at the end of the last bucket that has an end.
std::uint64_t percentile_of(const PoolNumbers& pool, double percent) {
  return std::min(ruvo_stats_percentile(pool.buckets.data(), percent),
                  ruvo_stats_bucket_limit(RUVO_STATS_BUCKETS - 2));
}

std::string duration_text(std::uint64_t nanoseconds) {
  const auto value = static_cast<double>(nanoseconds);
  const auto digits = [](double number) { return number < 10 ? 2 : number < 100 ? 1 : 0; };
  const auto text = [&](double number, const char* unit) {
    return format("%.*f %s", digits(number), number, unit);
  };
  return nanoseconds == 0 ? "-"
         : value < 1e6    ? text(value / 1e3, "us")
         : value < 1e9    ? text(value / 1e6, "ms")
                          : text(value / 1e9, "s");
}

std::string time_text(std::int64_t nanoseconds) {
  const std::time_t seconds = nanoseconds / 1'000'000'000;
  tm local{};
  std::array<char, 32> text{};
  if (localtime_r(&seconds, &local) == nullptr) {
    return "unknown";
  }
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local)};
}

std::string per_second(std::uint64_t count, double seconds) {
  return format("%.1f", static_cast<double>(count) / seconds);
}

// What a reading of the file gave; `counted` covers the time since the previous one.
struct Reading {
  Statistics now;
  Statistics counted;
  double seconds = 0;
  bool is_since_start = true;
};

std::string head_text(const Reading& reading) {
  const Statistics& now = reading.now;
  const std::string process = std::to_string(now.process_id);
  const std::string state = now.is_ended ? "has shut the library down"
                            : now.is_gone
                                ? "does not exist: it has ended, or runs in another container"
                                : "runs";
  return "process " + process + " " + state + "; started " + time_text(now.start_time) +
         (reading.is_since_start ? format("; rates since then, %.0f s\n", reading.seconds)
                                 : format("; rates of the last %.1f s\n", reading.seconds));
}

std::string pools_text(const Reading& reading) {
  std::vector<std::vector<std::string>> rows{{"pool", "calls", "calls/s", "failed", "failed/s"}};
  for (const Percentile& one : percentiles) {
    rows.front().emplace_back(one.name);
  }
  std::string results;
  for (std::size_t i = 0; i < reading.now.pools.size(); ++i) {
    const PoolNumbers& now = reading.now.pools[i];
    const PoolNumbers& counted = reading.counted.pools[i];
    std::vector<std::string> row{
        now.name, std::to_string(now.calls()), per_second(counted.calls(), reading.seconds),
        std::to_string(now.failed()), per_second(counted.failed(), reading.seconds)};
    for (const Percentile& one : percentiles) {
      row.push_back(duration_text(percentile_of(counted, one.percent)));
    }
    rows.push_back(std::move(row));
    std::string list;
    for (std::uint32_t result = RUVO_STATS_OK + 1; result < RUVO_STATS_RESULTS; ++result) {
      if (const std::uint64_t count = now.results.at(result); count > 0) {
        list += (list.empty() ? "" : ", ") + std::string(ruvo_stats_result_name(result)) + " " +
                std::to_string(count);
      }
    }
    results += list.empty() ? "" : "of " + now.name + ": " + list + "\n";
  }
  return columns(rows, 1) + results;
}

std::string servers_text(const Reading& reading) {
  std::vector<std::vector<std::string>> rows{{"server", "state", "calls/s", "in flight", "waiting",
                                              "no reply", "errors", "sent twice", "rebuilt",
                                              "not rebuilt", "ejected", "retried"}};
  for (std::size_t i = 0; i < reading.now.pools.size(); ++i) {
    const PoolNumbers& pool = reading.now.pools[i];
    for (std::size_t j = 0; j < pool.servers.size(); ++j) {
      const ServerNumbers& server = pool.servers[j];
      const ServerNumbers& counted = reading.counted.pools[i].servers[j];
      const auto total = [&server](std::uint64_t ruvo_server_counters::*counter) {
        return std::to_string(server.count(counter));
      };
      rows.push_back(
          {pool.name + " " + server.name, state_text(server, reading.now.read_time),
           per_second(counted.count(&ruvo_server_counters::calls), reading.seconds),
           std::to_string(server.in_flight), std::to_string(server.waiting),
           total(&ruvo_server_counters::no_replies), total(&ruvo_server_counters::error_replies),
           total(&ruvo_server_counters::second_sends), total(&ruvo_server_counters::reconnects),
           total(&ruvo_server_counters::failed_reconnects), total(&ruvo_server_counters::ejections),
           total(&ruvo_server_counters::retries)});
    }
  }
  return columns(rows, 2);
}

nlohmann::json json_of(const PoolNumbers& now, const PoolNumbers& counted, double seconds) {
  nlohmann::json results;
  for (std::uint32_t i = 0; i < RUVO_STATS_RESULTS; ++i) {
    results[ruvo_stats_result_name(i)] = now.results.at(i);
  }
  nlohmann::json times{{"sum", static_cast<double>(now.time_sum) / nanoseconds_per_second}};
  for (const Percentile& one : percentiles) {
    times[one.name] =
        static_cast<double>(percentile_of(counted, one.percent)) / nanoseconds_per_second;
  }
  nlohmann::json json{{"pool", now.name},
                      {"calls", now.calls()},
                      {"calls_per_second", static_cast<double>(counted.calls()) / seconds},
                      {"failed", now.failed()},
                      {"results", results},
                      {"seconds", times},
                      {"servers", nlohmann::json::array()}};
  for (std::size_t i = 0; i < now.servers.size(); ++i) {
    json["servers"].push_back(to_json(now.servers[i], counted.servers[i], seconds));
  }
  return json;
}

nlohmann::json json_of(const Reading& reading) {
  nlohmann::json json{
      {"process_id", reading.now.process_id},
      {"running", reading.now.is_running()},
      {"start_time", static_cast<double>(reading.now.start_time) / nanoseconds_per_second},
      {"rates_of_seconds", reading.seconds},
      {"pools", nlohmann::json::array()}};
  for (std::size_t i = 0; i < reading.now.pools.size(); ++i) {
    json["pools"].push_back(
        json_of(reading.now.pools[i], reading.counted.pools[i], reading.seconds));
  }
  return json;
}

Reading take_reading(const std::string& path, const std::optional<Statistics>& before) {
  Reading reading;
  reading.now = read_statistics(path);
  reading.counted = before ? since(reading.now, *before) : reading.now;
  reading.is_since_start = !before || before->start_time != reading.now.start_time;
  reading.seconds = before ? covered_seconds(reading.now, *before) : covered_seconds(reading.now);
  return reading;
}

}  // namespace

ExitStatus stats(const Options& options, const StatsOptions& wanted) {
  Labels labels;
  for (const std::string& label : wanted.labels) {
    labels.push_back(parse_label(label));
  }
  if (wanted.prometheus) {
    print(to_prometheus(read_statistics(wanted.file), labels));
    return succeeded;
  }
  catch_end_signals();
  std::optional<Statistics> before;
  for (int round = 0;; ++round) {
    // A host that restarts may have no file for a moment: only the first reading must succeed.
    try {
      Reading reading = take_reading(wanted.file, before);
      if (options.json) {
        print_json(json_of(reading));
      } else {
        const bool in_place = wanted.seconds > 0 && is_terminal(0);
        print((in_place ? "\033[H\033[J" : "") + head_text(reading) + "\n" + pools_text(reading) +
              "\n" + servers_text(reading) + (wanted.seconds > 0 && !in_place ? "\n" : ""));
      }
      before = std::move(reading.now);
    } catch (const Failure& failure) {
      if (round == 0 || failure.status() != unreadable_input) {
        throw;
      }
      std::fprintf(stderr, "ruvo_cli: stats: %s\n", failure.what());
    }
    if (wanted.seconds == 0 || round + 1 == wanted.rounds || wait_for_end(wanted.seconds * 1000)) {
      return succeeded;
    }
  }
}

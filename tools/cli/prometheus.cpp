#include "prometheus.h"

#include <algorithm>
#include <array>
#include <functional>

#include "console.h"
#include "exit_status.h"

namespace {

constexpr double nanoseconds_per_second = 1e9;

// Every fourth bucket of the file ends at a power of two, or halfway to the next power. Those from
// about 16 us to 13 s are exported, and +Inf. Each also counts all shorter times, as the format
// requires.
constexpr std::uint64_t shortest_le = std::uint64_t{1} << 14U;
constexpr std::uint64_t longest_le = std::uint64_t{3} << 32U;

constexpr std::array own_labels{"pool", "server", "result", "le"};

std::string escaped(const std::string& value) {
  std::string text;
  for (const char c : value) {
    if (c == '\n') {
      text += "\\n";
      continue;
    }
    if (c == '\\' || c == '"') {
      text += '\\';
    }
    text += c;
  }
  return text;
}

// Builds the text family by family, as the format requires.
class Exposition {
 public:
  explicit Exposition(const Labels& site) : site_(site) {}

  void begin_family(const std::string& name, const char* type, const std::string& help) {
    name_ = "ruvo_" + name;
    text_ += "# HELP " + name_ + " " + help + ".\n# TYPE " + name_ + " " + type + "\n";
  }

  void add(const Labels& labels, const std::string& value, const char* suffix = "") {
    text_ += name_ + suffix;
    const char* mark = "{";
    for (const Labels* all : {&site_, &labels}) {
      for (const auto& [name, text] : *all) {
        text_ += mark + name + "=\"" + escaped(text) + "\"";
        mark = ",";
      }
    }
    text_ += (*mark == ',' ? "} " : " ") + value + "\n";
  }

  const std::string& text() const { return text_; }

 private:
  const Labels& site_;
  std::string name_;
  std::string text_;
};

// Formatted for a label, and for a value that must keep its last digits.
std::string seconds_text(std::uint64_t nanoseconds) {
  return format("%.12g", static_cast<double>(nanoseconds) / nanoseconds_per_second);
}
std::string exact_seconds_text(std::uint64_t nanoseconds) {
  constexpr std::uint64_t second = 1'000'000'000;
  return format("%llu.%09llu", static_cast<unsigned long long>(nanoseconds / second),
                static_cast<unsigned long long>(nanoseconds % second));
}

void add_times(Exposition& out, const PoolNumbers& pool) {
  std::uint64_t calls = 0;
  for (std::uint32_t i = 0; i < RUVO_STATS_BUCKETS; ++i) {
    calls += pool.buckets.at(i);
    const std::uint64_t limit = ruvo_stats_bucket_limit(i);
    if (limit >= shortest_le && limit <= longest_le && i % 4 == 0) {
      out.add({{"pool", pool.name}, {"le", seconds_text(limit)}}, std::to_string(calls), "_bucket");
    }
  }
  out.add({{"pool", pool.name}, {"le", "+Inf"}}, std::to_string(calls), "_bucket");
  out.add({{"pool", pool.name}}, exact_seconds_text(pool.time_sum), "_sum");
  out.add({{"pool", pool.name}}, std::to_string(calls), "_count");
}

void add_pools(Exposition& out, const std::vector<PoolNumbers>& pools) {
  out.begin_family("calls_total", "counter", "Calls of the library, by result");
  for (const PoolNumbers& pool : pools) {
    for (std::uint32_t i = 0; i < RUVO_STATS_RESULTS; ++i) {
      out.add({{"pool", pool.name}, {"result", ruvo_stats_result_name(i)}},
              std::to_string(pool.results.at(i)));
    }
  }
  out.begin_family("call_duration_seconds", "histogram", "Times of the calls");
  for (const PoolNumbers& pool : pools) {
    add_times(out, pool);
  }
}

struct ServerGauge {
  const char* name;
  const char* help;
  std::function<std::string(const ServerNumbers&)> value;
};

void add_servers(Exposition& out, const std::vector<PoolNumbers>& pools) {
  const auto add_family = [&](const auto& value) {
    for (const PoolNumbers& pool : pools) {
      for (const ServerNumbers& server : pool.servers) {
        out.add({{"pool", pool.name}, {"server", server.name}}, value(server));
      }
    }
  };
  for (std::size_t i = 0; i < server_counters.size(); ++i) {
    const ServerCounter& counter = server_counters.at(i);
    out.begin_family(std::string("server_") + counter.name + "_total", "counter", counter.help);
    add_family([i](const ServerNumbers& server) { return std::to_string(server.counts.at(i)); });
  }
  const std::array gauges{
      ServerGauge{"ejected", "Whether the server is ejected now",
                  [](const ServerNumbers& server) {
                    return server.state == RUVO_SERVER_EJECTED ? "1" : "0";
                  }},
      ServerGauge{"failures", "Failures of the server since the last event that cleared them",
                  [](const ServerNumbers& server) { return std::to_string(server.failure_count); }},
      ServerGauge{
          "next_retry_timestamp_seconds", "When the server's ejection ends; 0: not set",
          [](const ServerNumbers& server) { return std::to_string(server.next_retry_time); }},
      ServerGauge{"calls_waiting", "Calls that wait for a connection to the server",
                  [](const ServerNumbers& server) { return std::to_string(server.waiting); }},
      ServerGauge{"calls_in_flight", "Calls in flight on a connection to the server",
                  [](const ServerNumbers& server) { return std::to_string(server.in_flight); }},
  };
  for (const ServerGauge& gauge : gauges) {
    out.begin_family(std::string("server_") + gauge.name, "gauge", gauge.help);
    add_family(gauge.value);
  }
}

bool is_label_name(const std::string& name) {
  const auto is_good = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  };
  return !name.empty() && std::ranges::all_of(name, is_good) &&
         !(name[0] >= '0' && name[0] <= '9') && !name.starts_with("__") &&
         std::ranges::find(own_labels, name) == own_labels.end();
}

}  // namespace

std::pair<std::string, std::string> parse_label(const std::string& text) {
  const std::size_t equals = text.find('=');
  const std::string name = text.substr(0, equals);
  if (equals == std::string::npos || !is_label_name(name)) {
    throw Failure(wrong_usage, "--label: not NAME=VALUE, or NAME is reserved: " + text);
  }
  return {name, text.substr(equals + 1)};
}

std::string to_prometheus(const Statistics& statistics, const Labels& site) {
  Exposition out(site);
  out.begin_family("up", "gauge",
                   "1 if the library runs; 0 if it has shut down or its process does not exist");
  out.add({}, statistics.is_running() ? "1" : "0");
  out.begin_family("start_time_seconds", "gauge", "When the library was started");
  out.add({}, exact_seconds_text(static_cast<std::uint64_t>(statistics.start_time)));
  add_pools(out, statistics.pools);
  add_servers(out, statistics.pools);
  return out.text();
}

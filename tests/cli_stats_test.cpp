// ruvo_cli stats, on files that the library's own module writes.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "cli_tool.h"
#include "server_pool.h"
#include "servers.h"
#include "statistics.h"

namespace {

using nlohmann::json;
using std::chrono::microseconds;

// A host's pools, with their file.
class Host {
 public:
  explicit Host(const std::string& path, const std::string& ip = "127.0.0.1", int port = 6379)
      : path_(path) {
    temp_.failure_limit_ = 3;
    for (const int offset : {0, 1, 0}) {
      server_node& server = temp_.servers_.emplace_back();
      server.addr_ = {ip, static_cast<std::uint32_t>(port + offset)};
    }
    begin();
  }

  void begin() {
    const std::array pools{statistics_file::counted_pool{eTempServer, temp_, 2},
                           statistics_file::counted_pool{ePersistServer, persist_, 2}};
    if (!file_.begin(path_, pools)) {
      throw std::runtime_error("no file");
    }
  }

  void calls(int number, ruvo_stats_result result, microseconds time) {
    for (int i = 0; i < number; ++i) {
      count(server(0), &server_counters::calls);
      count(server(0), &server_counters::replies);
      record_call(*file_.pool(0), result, time);
    }
  }
  server_stats* server(std::size_t position) { return file_.server(0, position); }
  void end() { file_.end(); }

 private:
  std::string path_;
  server_pool temp_;
  server_pool persist_;
  statistics_file file_;
};

ProgramResult stats(const std::string& arguments) {
  return shell(RUVO_CLI " " + arguments + " 2>&1");
}

TEST(CliStats, ShowsATable) {
  const TempDir dir;
  Host host(dir.path("s"));
  host.calls(98, RUVO_STATS_OK, microseconds(100));
  host.calls(2, RUVO_STATS_NO_SERVER, microseconds(2'000'000));
  note_failures(host.server(1), 3, std::time(nullptr) + 1000);
  note_failures(host.server(2), 2, 0);
  const std::string show = "stats " + dir.path("s");
  expect_result(stats(show), show, 0,
                {"process " + std::to_string(getpid()) + " runs; started ",
                 "  106 us  106 us  2.01 s  2.01 s\n", "of temp: no_server 2\n",
                 "temp 127.0.0.1:6379  ", "  ejected, ", "temp 127.0.0.1:6379#2  failing, 2 "});
  host.end();
  expect_result(stats(show), show, 0, {"has shut the library down; "});
}

TEST(CliStats, ShowsRatesSinceTheLastReading) {
  const TempDir dir;
  Host host(dir.path("s"));
  host.calls(1'000'000, RUVO_STATS_OK, microseconds(10));
  ProgramResult run{};
  std::jthread watch([&] {
    run = stats("--json stats --watch 1 --rounds 3 " + dir.path("s") + " | tee " + dir.path("out"));
  });
  const auto wait_for_lines = [&dir](int number) {
    EXPECT_TRUE(eventually([&] {
      const std::string lines = content_of(dir.path("out"));
      return std::count(lines.begin(), lines.end(), '\n') == number;
    }));
  };
  wait_for_lines(1);
  host.calls(500, RUVO_STATS_OK, microseconds(50'000));
  wait_for_lines(2);
  host.begin();
  watch.join();
  std::istringstream lines(run.output);
  std::vector<json> readings;
  for (std::string line; std::getline(lines, line);) {
    readings.push_back(json::parse(line)["pools"][0]);
  }
  ASSERT_EQ(readings.size(), 3U);
  EXPECT_EQ(readings[0]["results"]["ok"], 1'000'000);
  EXPECT_LT(readings[0]["seconds"]["p99"], 0.000'012);
  EXPECT_EQ(readings[1]["calls"], 1'000'500);
  EXPECT_LE(readings[1]["calls_per_second"], 500);
  EXPECT_GT(readings[1]["calls_per_second"], 5);
  EXPECT_GT(readings[1]["seconds"]["p50"], 0.05);
  EXPECT_EQ(readings[2]["calls"], 0);  // the host has restarted
  EXPECT_EQ(readings[2]["calls_per_second"], 0.0);
  EXPECT_EQ(readings[2]["servers"].size(), 3U);
}

TEST(CliStats, IsReadByPrometheus) {
  const TempDir dir;
  Host host(dir.path("s"), "a\"\\b");
  host.calls(3, RUVO_STATS_OK, microseconds(40));
  host.calls(1, RUVO_STATS_ERROR_REPLY, microseconds(20'000'000));
  note_failures(host.server(1), 3, std::time(nullptr) + 1000);
  const ProgramResult run =
      stats("stats --prometheus --label host=h1 --label 'unit=x y' " + dir.path("s"));
  const std::string site = R"({host="h1",unit="x y")";
  const std::string histogram = "ruvo_call_duration_seconds";
  expect_result(
      run, "stats", 0,
      {"# TYPE ruvo_up gauge\nruvo_up" + site + "} 1\n",
       "# TYPE ruvo_calls_total counter\nruvo_calls_total" + site +
           R"(,pool="temp",result="ok"} 3)" + "\n",
       histogram + "_bucket" + site + R"(,pool="temp",le="3.2768e-05"} 0)" + "\n",
       histogram + "_bucket" + site + R"(,pool="temp",le="4.9152e-05"} 3)" + "\n",
       histogram + "_bucket" + site + R"(,pool="temp",le="12.884901888"} 3)" + "\n",
       histogram + "_bucket" + site + R"(,pool="temp",le="+Inf"} 4)" + "\n",
       histogram + "_sum" + site + R"(,pool="temp"} 20.000120000)" + "\n",
       histogram + "_count" + site + R"(,pool="temp"} 4)" + "\n",
       "ruvo_server_replies_total" + site + R"(,pool="temp",server="a\"\\b:6379"} 4)" + "\n",
       "ruvo_server_ejected" + site + R"(,pool="temp",server="a\"\\b:6380"} 1)" + "\n"});
  const std::string check = "stats --prometheus " + dir.path("s") + " | promtool check metrics";
  if (shell("command -v promtool").status == 0) {
    EXPECT_EQ(stats(check).output, "");
  }
  // No series twice: the collector would drop the file.
  std::istringstream lines(run.output);
  std::set<std::string> series;
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(series.insert(line.substr(0, line.rfind(' '))).second) << line;
  }
}

TEST(CliStats, SaysWhatIsWrong) {
  const TempDir dir;
  const Host host(dir.path("s"));
  const std::string good = content_of(dir.path("s"));
  const std::string cut = dir.write("cut", good.substr(0, good.size() / 2));
  std::string newer = good;
  newer.at(offsetof(ruvo_stats_header, version)) = 9;
  const std::string other = dir.write("other", newer);
  ASSERT_EQ(shell("mkfifo " + dir.path("pipe")).status, 0);
  const std::string s = dir.path("s");
  // clang-format off
  const struct { std::string arguments; int status; std::string output_part; } cases[] = {
      {"stats", 64, "FILE is required"}, {"get k", 64, "--config is required, or RUVO_CONFIG"},
      {"stats --watch 0 " + s, 64, "--watch: not a whole number from 1 to 86400: 0"},
      {"stats --label a=b " + s, 64, "--label requires --prometheus"},
      {"stats --json --prometheus " + s, 64, "excludes"},
      {"stats --prometheus --label le=1 " + s, 64, "or NAME is reserved: le=1"},
      {"stats --prometheus --label 1a=1 " + s, 64, "not NAME=VALUE"},
      {"stats /none", 66, "cannot read /none: No such file or directory"},
      {"stats /", 66, "/: not a statistics file of libruvo"},
      {"stats " + dir.path("pipe"), 66, "not a statistics file of libruvo"},
      {"stats " + dir.write("empty", ""), 66, "not a statistics file of libruvo"},
      {"stats " + cut, 66, cut + ": shorter than its header says"},
      {"stats --prometheus " + other, 66, other + ": of another version"},
      {"watch --stats-file /none --config x", 66, "cannot read /none"},
      {"stats " + s + " >/dev/full", 74, ""},
  };
  // clang-format on
  for (const auto& one : cases) {
    expect_result(stats(one.arguments), one.arguments, one.status, {one.output_part});
  }
}

TEST(CliStats, AFileThatIsReplacedIsReadWhole) {
  const TempDir dir;
  Host host(dir.path("s"));
  std::atomic<bool> stop{false};
  std::jthread restarts([&] {
    while (!stop) {
      host.begin();
      host.calls(100, RUVO_STATS_OK, microseconds(10));
    }
  });
  for (int i = 0; i < 20; ++i) {
    const ProgramResult run = stats("--json stats " + dir.path("s"));
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_LE(json::parse(run.output)["pools"][0]["calls"], 100);
  }
  stop = true;
}

TEST(CliStats, TheToolWritesNoFileOfTheHost) {
  const RedisServer redis;
  const TempDir dir;
  const Tool tool(all_pools_at(redis.addr()) + "stats_file = " + dir.path("s"));
  for (const std::string command : {"check", "set k v", "load --seconds 1", "watch --rounds 1"}) {
    EXPECT_EQ(tool.run(command).status, 0) << command;
    EXPECT_FALSE(std::filesystem::exists(dir.path("s"))) << command;
  }
}

TEST(CliStats, WatchShowsTheHostsView) {
  const RedisServer redis;
  const Tool tool(all_pools_at(redis.addr()));
  const TempDir dir;
  Host host(dir.path("s"), "127.0.0.1", redis.port());
  note_failures(host.server(0), 3, std::time(nullptr) + 1000);
  expect_output(tool, "watch --rounds 1 --stats-file " + dir.path("s"), 0,
                {redis.addr() + "  up  ", "  host: ejected, ", " s  calls/s 0.0  in flight 0"});
  expect_output(tool, "--pool persist watch --rounds 1 --stats-file " + dir.path("s"), 0,
                {"  host: does not list this server\n"});
  const ProgramResult run = tool.run("--json watch --rounds 1 --stats-file " + dir.path("s"));
  EXPECT_EQ(json::parse(run.output)["host"]["state"], "ejected");
}

}  // namespace

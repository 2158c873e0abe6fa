// Each operation through the exports, beside the same work with bare hiredis on a connection of its
// own, in the same run against a Redis that the benchmark starts. Ends with a table of ratios: the
// library's rate over the bare one, medians over the repetitions.
//
//   ruvo_bench                                  everything
//   ruvo_bench --benchmark_filter='GET'         some
//
// The library gets two connections for each thread: with fewer, threads often find the one whose
// turn it is in use by another.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <ruvo/ruvo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host.h"
#include "redis_server.h"

namespace {

constexpr int repetitions = 7;
constexpr int connections_per_thread = 2;

std::unique_ptr<RedisServer> redis;

// ---- The two sides ----

using Context = std::unique_ptr<redisContext, decltype(&redisFree)>;

Context connect() {
  Context context(redisConnect("127.0.0.1", redis->port()), redisFree);
  if (!context || context->err != 0) {
    throw std::runtime_error("cannot connect");
  }
  return context;
}

void require(bool succeeded) {
  if (!succeeded) {
    throw std::runtime_error("an operation failed");
  }
}

// Runs a command as a program does that uses hiredis alone; the reply's type tells that it worked.
template <typename... Args>
void bare(redisContext& context, int type, const char* format, Args... args) {
  auto* reply = static_cast<redisReply*>(redisCommand(&context, format, args...));
  require(reply != nullptr && reply->type == type);
  benchmark::DoNotOptimize(reply->str);
  freeReplyObject(reply);
}

void query(const char* key) {
  const char* data = nullptr;
  unsigned long len = 0;
  require(RUVO_QueryKey(key, &data, &len, eTempServer, nullptr) == RUVO_OK);
  benchmark::DoNotOptimize(data);
  RUVO_FreeResult(data);
}

struct Pair {
  std::string name;
  std::function<void()> through_ruvo;
  std::function<void(redisContext&)> through_hiredis;
};

std::vector<Pair> pairs() {
  std::vector<Pair> all;
  for (const std::size_t size : {100U, 100000U}) {
    const auto value = std::make_shared<std::string>(size, 'x');
    const std::string key = "value" + std::to_string(size);
    const std::string bytes = "/" + std::to_string(size) + "B";
    all.push_back({"SET" + bytes,
                   [=] {
                     require(RUVO_InsertKey(key.c_str(), value->data(), value->size(), -1,
                                            eTempServer, nullptr) == RUVO_OK);
                   },
                   [=](redisContext& context) {
                     bare(context, REDIS_REPLY_STATUS, "SET %s %b", key.c_str(), value->data(),
                          value->size());
                   }});
    all.push_back(
        {"GET" + bytes, [=] { query(key.c_str()); },
         [=](redisContext& context) { bare(context, REDIS_REPLY_STRING, "GET %s", key.c_str()); }});
  }
  return all;
}

// Fills Redis with what the reading operations expect.
void fill() {
  const Context context = connect();
  for (const std::size_t size : {100U, 100000U}) {
    const std::string value(size, 'x');
    bare(*context, REDIS_REPLY_STATUS, "SET value%u %b", static_cast<unsigned>(size), value.data(),
         value.size());
  }
}

// ---- The library's life around one benchmark ----

std::unique_ptr<HostConfig> config;

void start_library(const benchmark::State& state) {
  config = std::make_unique<HostConfig>(
      all_pools_at(redis->addr()),
      "p_connect_num = " + std::to_string(connections_per_thread * state.threads()));
  const int console = dup(STDOUT_FILENO);  // the progress lines do not belong into the table
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  const int ret = RUVO_Init(config->path());
  dup2(console, STDOUT_FILENO);
  close(null);
  close(console);
  require(ret == RUVO_OK);
}

void stop_library(const benchmark::State&) { RUVO_Fini(); }

// ---- The ratios ----

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        rates_[run.run_name.function_name + " threads:" + std::to_string(run.threads)].push_back(
            run.counters.at("items_per_second"));
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void print_ratios() {
    std::printf("\n%-28s %14s %14s %8s\n", "operation", "ruvo/s", "hiredis/s", "ratio");
    const std::string mark = "ruvo ";
    for (auto& [name, rates] : rates_) {
      if (name.starts_with(mark)) {
        const std::string operation = name.substr(mark.size());
        const double ruvo = median(rates);
        const double hiredis = median(rates_.at("hiredis " + operation));
        std::printf("%-28s %14.0f %14.0f %8.3f\n", operation.c_str(), ruvo, hiredis,
                    ruvo / hiredis);
      }
    }
  }

 private:
  static double median(std::vector<double>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
  }

  std::map<std::string, std::vector<double>> rates_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  BaseLib::Logger::setLogLevel(BaseLib::Logger::FATAL);
  redis = std::make_unique<RedisServer>();
  fill();
  for (const Pair& pair : pairs()) {
    const auto register_one = [](const std::string& name, auto&& run) {
      return benchmark::RegisterBenchmark(name.c_str(), run)
          ->Threads(1)
          ->Threads(4)
          ->Threads(16)
          ->UseRealTime()
          ->MinTime(0.2)
          ->Repetitions(repetitions)
          ->ReportAggregatesOnly(false);
    };
    register_one("ruvo " + pair.name,
                 [pair](benchmark::State& state) {
                   for (auto _ : state) {
                     pair.through_ruvo();
                   }
                   state.SetItemsProcessed(state.iterations());
                 })
        ->Setup(start_library)
        ->Teardown(stop_library);
    register_one("hiredis " + pair.name, [pair](benchmark::State& state) {
      const Context context = connect();
      for (auto _ : state) {
        pair.through_hiredis(*context);
      }
      state.SetItemsProcessed(state.iterations());
    });
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.print_ratios();
  redis.reset();
  return 0;
}

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
#include <hiredis/hiredis.h>
#include <ruvo/ruvo.h>
#include <stream_log/logger.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox.h"

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

template <typename... Args>
void raw(int type, const char* format, Args... args) {
  auto* reply = static_cast<redisReply*>(RUVO_ExecRedisCmd(eTempServer, format, args...));
  require(reply != nullptr && reply->type == type);
  benchmark::DoNotOptimize(reply->str);
  RUVO_FreeReplyObject(reply);
}

// A value that the library has copied out.
struct Buffer {
  ~Buffer() { RUVO_FreeResult(data); }
  const char* data = nullptr;
  unsigned long len = 0;
};

struct Pair {
  std::string name;
  std::function<void()> through_ruvo;
  std::function<void(redisContext&)> through_hiredis;
};

constexpr int pool = eTempServer;
constexpr std::array<std::size_t, 2> value_sizes{100, 100000};
constexpr int list_length = 1000;
constexpr std::string_view element = "eeeeeeeeeeeeeeeeeeee";

std::string value_key(std::size_t size) { return "value" + std::to_string(size); }

void require_ok(int result) { require(result == RUVO_OK); }

std::vector<Pair> pairs() {
  std::vector<Pair> all;
  for (const std::size_t size : value_sizes) {
    const auto value = std::make_shared<std::string>(size, 'x');
    const std::string key = value_key(size);
    const std::string bytes = "/" + std::to_string(size) + "B";
    all.push_back(
        {"SET" + bytes,
         [=] { require_ok(RUVO_InsertKey(key.c_str(), value->data(), size, -1, pool, nullptr)); },
         [=](redisContext& context) {
           bare(context, REDIS_REPLY_STATUS, "SET %s %b", key.c_str(), value->data(), size);
         }});
    all.push_back(
        {"GET" + bytes,
         [=] {
           Buffer value_read;
           require_ok(RUVO_QueryKey(key.c_str(), &value_read.data, &value_read.len, pool, nullptr));
         },
         [=](redisContext& context) { bare(context, REDIS_REPLY_STRING, "GET %s", key.c_str()); }});
    all.push_back(
        {"raw GET" + bytes, [=] { raw(REDIS_REPLY_STRING, "GET %s", key.c_str()); },
         [=](redisContext& context) { bare(context, REDIS_REPLY_STRING, "GET %s", key.c_str()); }});
  }
  all.push_back({"HSET",
                 [] {
                   require_ok(RUVO_HashSet("hash", "field", 5, element.data(), element.size(), -1,
                                           pool, nullptr));
                 },
                 [](redisContext& context) {
                   bare(context, REDIS_REPLY_INTEGER, "HSET hash %b %b", "field", std::size_t{5},
                        element.data(), element.size());
                 }});
  all.push_back({"HGET",
                 [] {
                   Buffer value;
                   require_ok(
                       RUVO_HashGet("hash", "field", 5, &value.data, &value.len, pool, nullptr));
                 },
                 [](redisContext& context) {
                   bare(context, REDIS_REPLY_STRING, "HGET hash %b", "field", std::size_t{5});
                 }});
  // One after the other, so that the list stays as short as it is.
  all.push_back(
      {"LPUSH+RPOP",
       [] {
         long long count = 0;
         std::string popped;
         require_ok(RUVO_LPush("queue", element.data(), element.size(), 0, &count, pool, nullptr));
         require_ok(RUVO_RPop("queue", popped, pool, nullptr));
       },
       [](redisContext& context) {
         bare(context, REDIS_REPLY_INTEGER, "LPUSH queue %b", element.data(), element.size());
         bare(context, REDIS_REPLY_STRING, "RPOP queue");
       }});
  all.push_back({"SADD",
                 [] {
                   require(RUVO_SAdd("set", element.data(), element.size(), pool, nullptr) ==
                           RUVO_NOTHING_DONE);
                 },
                 [](redisContext& context) {
                   bare(context, REDIS_REPLY_INTEGER, "SADD set %b", element.data(),
                        element.size());
                 }});
  all.push_back(
      {"SISMEMBER",
       [] { require_ok(RUVO_SIsmember("set", element.data(), element.size(), pool, nullptr)); },
       [](redisContext& context) {
         bare(context, REDIS_REPLY_INTEGER, "SISMEMBER set %b", element.data(), element.size());
       }});
  // The library hands out strings; the bare side leaves the elements in the reply.
  all.push_back(
      {"LRANGE/1000",
       [] {
         std::vector<std::string> elements;
         require_ok(RUVO_LRange("list", 0, -1, elements, pool, nullptr));
         require(elements.size() == list_length);
       },
       [](redisContext& context) { bare(context, REDIS_REPLY_ARRAY, "LRANGE list 0 -1"); }});
  all.push_back(
      {"SMEMBERS/1000",
       [] {
         std::vector<std::string> members;
         require_ok(RUVO_SMembers("members", members, pool, nullptr));
         require(members.size() == list_length);
       },
       [](redisContext& context) { bare(context, REDIS_REPLY_ARRAY, "SMEMBERS members"); }});
  return all;
}

// Fills Redis with what the operations expect to find.
void fill() {
  const Context context = connect();
  for (const std::size_t size : value_sizes) {
    const std::string value(size, 'x');
    bare(*context, REDIS_REPLY_STATUS, "SET %s %b", value_key(size).c_str(), value.data(), size);
  }
  bare(*context, REDIS_REPLY_INTEGER, "HSET hash field %s", element.data());
  bare(*context, REDIS_REPLY_INTEGER, "SADD set %s", element.data());
  for (int i = 0; i < list_length; ++i) {
    bare(*context, REDIS_REPLY_INTEGER, "RPUSH list %s%d", element.data(), i);
    bare(*context, REDIS_REPLY_INTEGER, "SADD members %s%d", element.data(), i);
  }
}

// ---- The library's life around one benchmark ----

std::unique_ptr<HostConfig> config;

void start_library(const benchmark::State& state) {
  config = std::make_unique<HostConfig>(
      all_pools_at(redis->addr()),
      "p_connect_num = " + std::to_string(connections_per_thread * state.threads()));
  const QuietConsole quiet;  // the progress lines do not belong into the table
  require_ok(RUVO_Init(config->path()));
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

int main(int argc, char** argv) try {
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
} catch (const std::exception& failure) {
  std::fprintf(stderr, "ruvo_bench: %s\n", failure.what());
  return 1;
}

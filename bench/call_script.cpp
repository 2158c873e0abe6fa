// A fixed script of calls, for counting instructions and for timing everything but the network:
// each operation many times, with Redis' replies from memory.
//
//   valgrind --tool=callgrind --collect-atstart=no call_script
//       instructions, in a dump for each operation and side; scripts/count_instructions.sh reads
//       them
//   call_script --time
//       nanoseconds of user space for each call, through the library and with hiredis alone
#include <stream_log/logger.h>
#include <valgrind/callgrind.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "operations.h"
#include "run_main.h"
#include "sides.h"
#include "tape.h"

namespace {

constexpr std::size_t value_bytes = 100;
constexpr int calls_counted = 100;
constexpr int calls_timed = 2000;
constexpr std::size_t rounds = 51;

using Call = std::function<void()>;

void repeat(int times, const Call& call) {
  for (int i = 0; i < times; ++i) {
    call();
  }
}

// Counts only after buffers and symbols have been set up.
void count(const std::string& name, const Call& call) {
  repeat(calls_counted, call);
  CALLGRIND_TOGGLE_COLLECT;
  repeat(calls_counted, call);
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT(name.c_str());
}

double nanoseconds(const Call& call) {
  const auto begin = std::chrono::steady_clock::now();
  repeat(calls_timed, call);
  const std::chrono::duration<double, std::nano> passed = std::chrono::steady_clock::now() - begin;
  return passed.count() / calls_timed;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

struct Timed {
  double library;
  double hiredis;
  double more;
};

Timed time(const Call& through_library, const Call& bare) {
  std::vector<double> library;
  std::vector<double> hiredis;
  std::vector<double> more;
  for (std::size_t round = 0; round < rounds; ++round) {
    library.push_back(nanoseconds(through_library));
    hiredis.push_back(nanoseconds(bare));
    more.push_back(library.back() - hiredis.back());
  }
  return {median(std::move(library)), median(std::move(hiredis)), median(std::move(more))};
}

int run(int argc, char** argv) {
  bool timed = false;
  CLI::App app("A fixed script of calls, answered from memory");
  app.add_flag("--time", timed, "Print nanoseconds for each call");
  CLI11_PARSE(app, argc, argv);

  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  const RedisServer redis;
  const Context context = connect_to(redis.port());
  prepare(*context, value_bytes);
  if (timed) {
    std::printf("%-11s %9s %9s %9s   nanoseconds for each call\n", "operation", "library",
                "hiredis", "more");
  }
  for (const Operation& operation : operations_on(value_bytes)) {
    const Call bare = [&] { run_bare(operation, *context); };
    auto library = std::make_unique<Library>(redis.addr(), redis.addr(), 2, Pipelining::off);
    Tape tape;
    tape.record();
    bare();
    tape.play();
    if (timed) {
      const Timed one = time(operation.through_library, bare);
      Tape::stop();
      std::printf("%-11s %9.0f %9.0f %+9.0f\n", operation.name.c_str(), one.library, one.hiredis,
                  one.more);
    } else {
      count("library " + operation.name, operation.through_library);
      if (operation.through_cpp) {
        count("ruvo.hpp " + operation.name, operation.through_cpp);
      }
      count("hiredis " + operation.name, bare);
      if (operation.name == "GET") {
        const LogFile log;
        count("INFO " + operation.name, operation.through_library);
      }
      if (operation.through_cpp) {  // one that stores, one that reads and a raw one suffice
        Tape::stop();
        library.reset();
        library = std::make_unique<Library>(redis.addr(), redis.addr(), 2, Pipelining::on);
        tape.play();
        count("pipelined " + operation.name, operation.through_library);
      }
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run_main(run, argc, argv); }

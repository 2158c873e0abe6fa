// One allocation after the other fails, through a start-up, every operation and a shut-down.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "every_operation.h"
#include "failing_memory.h"
#include "host.h"
#include "servers.h"

namespace {

// A start-up that fails is final for its process, so each pass has one of its own. Says on standard
// error what is wrong.
class Pass {
 public:
  explicit Pass(const char* config) : config_(config) {}

  // True when the allocation with this number was asked for.
  bool run(int failing) {
    const QuietConsole quiet;
    const int descriptors = open_descriptors();
    const int live = live_allocations;
    allocations = 0;
    failing_allocation = failing;
    const int started = RUVO_Init(config_);
    const bool ready = started >= RUVO_OK && started < RUVO_INIT_BOTH_POOLS_FAILED;
    const bool known = ready || started == RUVO_INIT_BOTH_POOLS_FAILED || started == RUVO_ERR_NO_MEMORY ||
                       started == RUVO_ERR_CONFIG_FILE || started == RUVO_ERR_FAILED ||
                       started == RUVO_ERR_NO_REDIS_CONFIG;
    expect(known, "RUVO_Init", started);
    for (const Operation& operation : operations) {
      const int ret = operation.call(operation.name);
      const bool raw = operation.call == every_operation::raw;  // a null reply
      expect(ready ? operation.may_return(ret) || ret == RUVO_ERR_NO_MEMORY
                   : ret == (raw ? RUVO_ERR_FAILED : RUVO_ERR_NOT_INITIALIZED),
             operation.name, ret);
    }
    const int ended = RUVO_Fini();
    expect(ended == (ready ? RUVO_OK : RUVO_ERR_NOT_INITIALIZED), "RUVO_Fini", ended);
    failing_allocation = -1;
    const bool reached = allocations > failing;
    if (ready) { expect(live_allocations == live, "allocations left", live_allocations - live); }
    expect(open_descriptors() == descriptors, "descriptors", open_descriptors() - descriptors);
    return reached;
  }
  bool good() const { return good_; }

 private:
  void expect(bool holds, const char* what, int value) {
    if (holds) { return; }
    std::fprintf(stderr, "allocation %d: %s: %d\n", failing_allocation, what, value);
    good_ = false;
  }

  const char* config_;
  bool good_ = true;
};

enum Outcome { reached = 0, passed = 1, wrong = 2 };

TEST(MemoryFailure, OneAllocationAfterTheOther) {
  const RedisServer redis;
  const HostConfig config(all_pools_at(redis.addr()));
  BaseLib::Logger::setOutput([](BaseLib::Logger::LogLevel, const char*, std::size_t) {});
  BaseLib::Logger::setLogLevel(BaseLib::Logger::DEBUG);  // lines are built, and may have no memory
  {
    const QuietConsole quiet;
    ASSERT_EQ(RUVO_Init(config.path()), RUVO_OK);  // the process takes what it takes once
    for (const Operation& operation : operations) { operation.call(operation.name); }
    ASSERT_EQ(RUVO_Fini(), RUVO_OK);
  }
  int failing = 0;
  for (int status = reached; status == reached; ++failing) {
    const pid_t child = fork();
    if (child == 0) {
      Pass pass(config.path());
      const bool more = pass.run(failing);
      _exit(!pass.good() ? wrong : more ? reached : passed);
    }
    waitpid(child, &status, 0);
    status = WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
    EXPECT_LE(status, passed) << "allocation " << failing;
    status = status == passed ? passed : reached;
  }
  EXPECT_GT(failing, 100);
}

}  // namespace

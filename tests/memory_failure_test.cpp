// One allocation after the other fails, through a start-up, every operation and a shut-down.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <set>

#include "every_operation.h"
#include "failing_memory.h"
#include "host.h"
#include "servers.h"

namespace {

enum Outcome { met = 0, not_met = 1, wrong = 2 };

// Says on standard error what is wrong.
Outcome pass(const char* config, int failing) {
  bool good = true;
  const auto expect = [&](bool holds, const char* what, int value) {
    if (!holds) { std::fprintf(stderr, "allocation %d: %s: %d\n", failing, what, value); }
    good = good && holds;
  };
  const QuietConsole quiet;
  const int descriptors = open_descriptors();
  const int live = live_allocations;
  allocations = 0;
  failing_allocation = failing;
  const int started = RUVO_Init(config);
  const bool ready = started >= RUVO_OK && started < RUVO_INIT_BOTH_POOLS_FAILED;
  for (const Operation& one : operations) {
    const int ret = one.call(one.name);
    expect(ready ? one.may_return(ret) || ret == RUVO_ERR_NO_MEMORY : ret == one.unready(), one.name, ret);
  }
  const int ended = RUVO_Fini();
  const Outcome outcome = allocations > failing ? met : not_met;
  failing_allocation = -1;
  expect(ready || std::set<int>{RUVO_INIT_BOTH_POOLS_FAILED, RUVO_ERR_NO_MEMORY, RUVO_ERR_CONFIG_FILE, RUVO_ERR_FAILED}
                      .contains(started),
         "RUVO_Init", started);
  expect(ended == (ready ? RUVO_OK : RUVO_ERR_NOT_INITIALIZED), "RUVO_Fini", ended);
  expect(open_descriptors() == descriptors, "descriptors", open_descriptors() - descriptors);
  // A start-up that failed is final, and keeps what it has read.
  if (ready) { expect(live_allocations == live, "allocations left", live_allocations - live); }
  return good ? outcome : wrong;
}

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
  for (int status = met; status != not_met; ++failing) {  // a process for each, since a failed start-up is final
    const pid_t child = fork();
    if (child == 0) { _exit(pass(config.path(), failing)); }
    waitpid(child, &status, 0);
    status = WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
    ASSERT_LT(status, wrong) << "allocation " << failing;
  }
  EXPECT_GT(failing, 100);
}

}  // namespace

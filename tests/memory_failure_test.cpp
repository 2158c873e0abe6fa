// Each allocation of a start-up, of every operation and of a shutdown fails once.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "every_operation.h"
#include "failing_memory.h"
#include "host.h"
#include "servers.h"

namespace {

class MemoryFailure : public testing::Test {
 protected:
  MemoryFailure() {
    BaseLib::Logger::setOutput([](BaseLib::Logger::LogLevel level, const char* line, std::size_t) {
      const auto has = [&](const char* text) { return std::strstr(line, text) != nullptr; };
      if (level == BaseLib::Logger::ERROR) {
        seen_ |= has("init_server_pool | memory overflow.") ? no_lock : 0;
        seen_ |= (seen_ & no_lock) != 0 && has("fini | ") ? no_lock_and_end : 0;
      }
    });
    BaseLib::Logger::setLogLevel(BaseLib::Logger::DEBUG);  // building a line may fail
    // Makes the allocations that happen only once in a process.
    EXPECT_EQ(start(config_), RUVO_OK);
    for (const Operation& one : operations) {
      one.call(one.name);
    }
    EXPECT_EQ(RUVO_Fini(), RUVO_OK);
  }
  // Calls while the allocation with this number fails, and stores the result. False if the call
  // met no failure.
  template <typename Call>
  static bool fails(int number, int& result, Call call) {
    allocations = 0;
    failing_allocation = number;
    result = call();
    failing_allocation = -1;
    return allocations > number;
  }

  enum Seen { no_lock = 1, no_lock_and_end = 2 };
  static inline int seen_ = 0;  // lines of the log
  RedisServer redis_;
  HostConfig config_{all_pools_at(redis_.addr()), "p_connect_num = 2"};
};

TEST_F(MemoryFailure, InAStartUp) {
  const int descriptors = open_descriptors();
  const int live = live_allocations;
  int code = 0;
  bool has_lacked_lock = false;
  for (int number = 0; code != 1; ++number) {  // in a process each: a failed start-up is final
    const pid_t child = fork();
    if (child == 0) {
      int ret = 0;
      seen_ = 0;
      const bool met_failure = fails(number, ret, [this] { return start(config_); });
      const bool lacked_lock = seen_ == (no_lock | no_lock_and_end) && ret != RUVO_OK;
      const bool ready = ret >= RUVO_OK && ret < RUVO_INIT_BOTH_POOLS_FAILED;
      bool good = ready || ret == RUVO_INIT_BOTH_POOLS_FAILED || ret == RUVO_ERR_NO_MEMORY ||
                  ret == RUVO_ERR_CONFIG_FILE || ret == RUVO_ERR_FAILED;
      for (const Operation& one : operations) {
        const int called = one.call(one.name);
        good = good && (ready ? one.may_return(called) : called == one.result_before_start());
      }
      good = good && RUVO_Fini() == (ready ? RUVO_OK : RUVO_ERR_NOT_INITIALIZED);
      good = good && (!ready || live_allocations == live) && open_descriptors() == descriptors;
      _exit(!good ? 2 : !met_failure ? 1 : lacked_lock ? 3 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    code = WEXITSTATUS(status);
    has_lacked_lock = has_lacked_lock || code == 3;
    ASSERT_TRUE(WIFEXITED(status) && code != 2) << "allocation " << number << ": " << status;
  }
  EXPECT_TRUE(has_lacked_lock);
}

TEST_F(MemoryFailure, InAnOperationOrAShutDown) {
  const int descriptors = open_descriptors();
  const int live = live_allocations;
  int ret = 0;
  ASSERT_EQ(start(config_), RUVO_OK);
  for (const Operation& one : operations) {
    bool met_failure = true;
    for (int number = 0; met_failure; ++number) {
      met_failure = fails(number, ret, [&] { return one.call(one.name); });
      EXPECT_TRUE(one.may_return(ret) || ret == RUVO_ERR_NO_MEMORY)
          << one.name << " " << number << ": " << ret;
    }
    EXPECT_NE(ret, RUVO_ERR_FAILED) << one.name;  // the library recovers once there is memory
  }
  for (int number = 0; fails(number, ret, RUVO_Fini); ++number) {
    EXPECT_EQ(ret, RUVO_OK);
    ASSERT_EQ(start(config_), RUVO_OK);
  }
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(live_allocations, live);
}

}  // namespace

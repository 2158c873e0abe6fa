// Start and end, repeatedly and from many threads; use before and after.
#include <gtest/gtest.h>

#include <barrier>
#include <thread>

#include "every_operation.h"
#include "host.h"

namespace {

// Every operation, from several threads at once, returns that the library is not ready.
void expect_nothing_works() {
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (const Operation& one : operations) {
        EXPECT_EQ(one.call("k"), one.result_before_start()) << one.name;
      }
      EXPECT_EQ(RUVO_Fini(), RUVO_ERR_NOT_INITIALIZED);
    });
  }
}

class LifeCycle : public testing::Test {
 protected:
  // The first call of all, from one thread.
  LifeCycle() { EXPECT_EQ(RUVO_Fini(), RUVO_ERR_NOT_INITIALIZED); }

  RedisServer redis_;
  HostConfig config_{all_pools_at(redis_.addr())};
  QuietConsole quiet_;
  LogCapture silence_{BaseLib::Logger::FATAL};
};

TEST_F(LifeCycle, StartsAndEndsRepeatedly) {
  expect_nothing_works();
  const int descriptors = open_descriptors();
  for (std::size_t cycle = 0; cycle < 2 * operations.size(); ++cycle) {
    ASSERT_EQ(RUVO_Init(config_.path()), RUVO_OK);
    const Operation& operation = operations[cycle % operations.size()];
    // Each operation has its own key, so that none meets another type.
    const int ret = operation.call(operation.name);
    EXPECT_TRUE(ret != RUVO_ERR_FAILED && operation.may_return(ret))
        << operation.name << ": " << ret;
    ASSERT_EQ(RUVO_Fini(), RUVO_OK);
  }
  EXPECT_EQ(open_descriptors(), descriptors);
  expect_nothing_works();
}

TEST_F(LifeCycle, ManyStartAndEndAtOnce) {
  constexpr int callers = 8;
  for (int round = 0; round < 20; ++round) {
    std::barrier together(callers);
    std::vector<std::jthread> threads;
    for (int t = 0; t < callers; ++t) {
      threads.emplace_back([&, t] {
        together.arrive_and_wait();
        EXPECT_EQ(RUVO_Init(config_.path()), RUVO_OK);
        together.arrive_and_wait();  // now one of them has made the library ready
        const std::string key = std::to_string(t);
        EXPECT_EQ(RUVO_InsertKey(key.c_str(), "v", 1, -1, t, nullptr), RUVO_OK);
        together.arrive_and_wait();
        EXPECT_EQ(RUVO_Fini(), RUVO_OK);
      });
    }
    threads.clear();
    EXPECT_EQ(RUVO_Fini(), RUVO_ERR_NOT_INITIALIZED);
  }
}

}  // namespace

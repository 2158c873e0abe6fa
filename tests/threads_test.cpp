// Many threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "every_operation.h"
#include "fixtures.h"
#include "host.h"

namespace {

TEST(Threads, ManyShareFewConnectionsThatBreakAndEachGetsItsOwnReply) {
  const RedisServer redis;
  const HostConfig config(all_pools_at(redis.addr()), "p_connect_num = 2");
  const LogCapture log(BaseLib::Logger::WARN);
  ASSERT_EQ(start(config), RUVO_OK);
  std::atomic<int> wrong{0};
  std::atomic<int> calls{0};
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t](const std::stop_token& stop) {
        const std::string own = "thread" + std::to_string(t);
        for (const char* data = nullptr; !stop.stop_requested(); ++calls) {
          unsigned long len = 0;
          wrong += RUVO_InsertKey(own.c_str(), own.data(), own.size(), -1, t % 4, nullptr);
          wrong += RUVO_QueryKey(own.c_str(), &data, &len, t % 4, nullptr) != RUVO_OK ||
                   std::string(data, len) != own;
          RUVO_FreeResult(data);
        }
      });
    }
    for (int round = 0; round < 5; ++round) {
      redis.ask("client kill type normal");
      ASSERT_TRUE(eventually([&calls, target = calls + 200] { return calls >= target; }));
    }
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GE(log.count_containing("reset connection"), 5);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

}  // namespace

// Many threads at once, while connections break or a server stops.
#include <gtest/gtest.h>

#include "callers.h"
#include "every_operation.h"
#include "host.h"
#include "servers.h"

namespace {

TEST(Threads, ManyShareFewConnectionsThatBreakAndEachGetsItsOwnReply) {
  const RedisServer redis;
  const HostConfig config(all_pools_at(redis.addr()), "p_connect_num = 2");
  const LogCapture log(BaseLib::Logger::WARN);
  ASSERT_EQ(start(config), RUVO_OK);
  Callers callers(8, [](int thread) {
    const std::string own = "thread" + std::to_string(thread);
    const int pool = thread % 4;
    const char* data = nullptr;
    unsigned long len = 0;
    const bool is_right =
        RUVO_InsertKey(own.c_str(), own.data(), own.size(), -1, pool, nullptr) == RUVO_OK &&
        RUVO_QueryKey(own.c_str(), &data, &len, pool, nullptr) == RUVO_OK &&
        std::string(data, len) == own;
    RUVO_FreeResult(data);
    return is_right;
  });
  for (int round = 0; round < 5; ++round) {
    redis.ask("client kill type normal");
    ASSERT_TRUE(callers.make(200));
  }
  EXPECT_EQ(callers.stop(), 0);
  EXPECT_GE(log.count_containing("reset connection"), 5);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

// One of the two servers of a host with the recommended defaults hangs. The costs are counted, not
// timed: visits that wait for the server, and calls that fail.
TEST(Threads, EjectAStoppedServerAfterAFewVisitsAndFailNoCall) {
  constexpr int threads = 4;
  constexpr int needed = 2 + 3;  // connections of start-up, and failures until it is ejected
  std::atomic<bool> is_stopped{false};
  const ScriptedServer good(std::string(":0\r\n"));
  const ScriptedServer stops(
      [&](const std::vector<std::string>&) { return is_stopped ? "" : ":0\r\n"; });
  // Long timeouts, so that no call fails just because the machine is busy.
  const HostConfig config(
      "recommended_defaults = true\ncall_timeout = 60000\n"
      "connect_timeout = 5000\nsocket_timeout = 500\n" +
          pools_at(stops.addr() + "," + good.addr(), good.addr(), good.addr()),
      "p_connect_num = 2\np_server_failure_limit = 3");
  const LogCapture log(BaseLib::Logger::WARN);
  ASSERT_EQ(start(config), RUVO_OK);
  Callers callers(threads,
                  [](int) { return RUVO_ExistsKey("key", eTempServer, nullptr) == RUVO_ABSENT; });
  EXPECT_TRUE(callers.make(100));
  is_stopped = true;
  EXPECT_TRUE(eventually([&] { return log.count_containing(" invalid, failure count:") > 0; }));
  EXPECT_TRUE(callers.make(5000));
  EXPECT_EQ(callers.stop(), 0);
  EXPECT_GE(stops.connections(), needed);
  EXPECT_LE(stops.connections(), needed + threads);  // which may all be waiting for it
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

}  // namespace

// What a host's calls write to its statistics file.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <ruvo/stats.h>

#include <functional>
#include <future>
#include <numeric>
#include <thread>

#include "every_operation.h"
#include "host.h"
#include "servers.h"
#include "stats_copy.h"

namespace {

void raw(const char* command) { RUVO_FreeReplyObject(RUVO_ExecRedisCmd(eTempServer, command)); }
int insert(const char* key) { return RUVO_InsertKey(key, "v", 1, -1, eTempServer, nullptr); }

class HostStatistics : public testing::Test {
 protected:
  ~HostStatistics() override { EXPECT_EQ(RUVO_Fini(), RUVO_OK); }
  void start_at(const std::string& addrs, const std::string& common = "") const {
    const std::string file = "stats_file = " + dir_.path("s");
    ASSERT_EQ(start(HostConfig(all_pools_at(addrs) + common + file)), RUVO_OK);
  }
  StatsCopy read() const {
    StatsCopy copy(dir_.path("s"));
    EXPECT_EQ(copy.error(), "");
    return copy;
  }
  ruvo_pool_counters pool() const { return read().sums_of_pool(0); }
  ruvo_server_counters server() const { return read().sums_of_server(0); }

  const TempDir dir_;
  const LogCapture log_{BaseLib::Logger::FATAL};
};

TEST_F(HostStatistics, EveryCallIsCountedByItsResult) {
  RedisServer redis;
  start_at(redis.addr());
  insert("k");
  EXPECT_EQ(RUVO_HashGet("none", "f", 1, nullptr, nullptr, eTempServer, nullptr),
            RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(RUVO_ExistsKey("none", eTempServer, nullptr), RUVO_ABSENT);
  RUVO_SAdd("s", "m", 1, eTempServer, nullptr);
  RUVO_SAdd("s", "m", 1, eTempServer, nullptr);
  insert(nullptr);
  EXPECT_EQ(RUVO_HashFieldsNum("k", nullptr, eTempServer, nullptr), RUVO_ERR_FAILED);  // a string
  raw("GET k");
  raw("GET none");
  raw("FLY");
  RUVO_FreeResult(nullptr);
  const ruvo_pool_counters counted = pool();
  const auto& results = counted.results;
  EXPECT_EQ(results[RUVO_STATS_OK], 3U);
  EXPECT_EQ(results[RUVO_STATS_ABSENT], 3U);
  EXPECT_EQ(results[RUVO_STATS_NOTHING_DONE], 1U);
  EXPECT_EQ(results[RUVO_STATS_BAD_ARGUMENT], 1U);
  EXPECT_EQ(results[RUVO_STATS_ERROR_REPLY], 2U);
  EXPECT_EQ(server().calls, 9U);
  EXPECT_EQ(server().replies, 9U);
  EXPECT_EQ(server().error_replies, 2U);
  EXPECT_GT(pool().time_sum, 0U);

  redis.kill();
  insert("k");
  raw("GET k");
  EXPECT_EQ(pool().results[RUVO_STATS_NO_SERVER], 2U);
  EXPECT_EQ(server().no_replies, server().failed_reconnects);
  EXPECT_GE(server().failed_reconnects, 2U);
  EXPECT_EQ(server().second_sends, 0U);  // nothing has been sent
  redis.restart();
  EXPECT_EQ(insert("k"), RUVO_OK);
  EXPECT_EQ(server().reconnects, 1U);
  EXPECT_EQ(server().second_sends, 0U);  // the first attempt sent nothing
  EXPECT_EQ(read().in_flight(0) + server().waiting, 0U);
  EXPECT_EQ(read().pool(2).type, static_cast<std::uint32_t>(ePersonalityServer));
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
  EXPECT_EQ(read().head().state, RUVO_STATS_ENDED);
  ASSERT_EQ(start(HostConfig(all_pools_at(redis.addr()))), RUVO_OK);  // without the file
  EXPECT_EQ(insert("k"), RUVO_OK);
}

TEST_F(HostStatistics, ACommandThatIsSentAgainIsCountedAsSuch) {
  const ScriptedServer hangs_up_first([](Peer& peer) {
    constexpr int at_start = 3;  // connections
    if (peer.number() < at_start) {
      peer.read_command();
    } else {
      peer.answer_all("+OK\r\n");
    }
  });
  start_at(hangs_up_first.addr());
  EXPECT_EQ(insert("k"), RUVO_OK);
  EXPECT_EQ(server().second_sends, 1U);
}

TEST_F(HostStatistics, ACallPastItsDeadlineIsCountedAsSuch) {
  const ScriptedServer silent([](Peer& peer) { peer.hang(); });
  start_at(silent.addr(), "call_timeout = 50\n");
  EXPECT_EQ(insert("k"), RUVO_ERR_FAILED);
  EXPECT_EQ(pool().results[RUVO_STATS_DEADLINE], 1U);
  EXPECT_EQ(server().no_replies, 1U);
  const ruvo_pool_counters counted = pool();
  const auto* const buckets = counted.buckets;
  EXPECT_EQ(
      std::accumulate(buckets + ruvo_stats_bucket(49'000'000), buckets + RUVO_STATS_BUCKETS, 0U),
      1U);
}

TEST_F(HostStatistics, ShowsAServerThatWillNotServe) {
  const ScriptedServer replica("-READONLY You can't write against a read only replica.\r\n");
  start_at(replica.addr(), "failover_replies = READONLY\n");
  EXPECT_EQ(insert("k"), RUVO_ERR_FAILED);
  EXPECT_EQ(pool().results[RUVO_STATS_ERROR_REPLY], 1U);
  EXPECT_GE(server().error_replies, 1U);
  EXPECT_EQ(server().replies, 0U);
  EXPECT_EQ(server().no_replies, 1U);
}

// Without auto_pipelining the second call waits for the connection; with it both are in flight.
TEST_F(HostStatistics, ShowsCallsInProgress) {
  std::promise<void> asked;
  const ScriptedServer slow([released = asked.get_future().share()](Peer& peer) {
    peer.read_command();
    released.wait();
    peer.send("+OK\r\n");
    peer.read_command();
    peer.send("+OK\r\n");
    peer.hang();
  });
  start_at(slow.addr(), "socket_timeout = 10000\n");
  {
    const std::jthread first([] { insert("a"); });
    const std::jthread second([] { insert("b"); });
    const char* mode = std::getenv("RUVO_TEST_COMMON");  // NOLINT: no thread sets it
    const std::uint64_t in_flight = mode != nullptr && *mode != '\0' ? 2 : 1;
    EXPECT_TRUE(eventually([&] {
      const StatsCopy now = read();
      return now.in_flight(0) == in_flight && in_flight + now.sums_of_server(0).waiting == 2;
    }));
    asked.set_value();
  }
  EXPECT_EQ(read().in_flight(0) + server().waiting, 0U);
  EXPECT_EQ(server().replies, 2U);
}

}  // namespace

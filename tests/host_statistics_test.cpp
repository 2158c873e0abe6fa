// What a host's calls write to its statistics file.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <ruvo/stats.h>

#include <cstdarg>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "every_operation.h"
#include "host.h"
#include "servers.h"

namespace {

struct Numbers {
  explicit Numbers(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    std::vector<std::uint64_t> words(bytes.size() / 8 + 1);
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(words.data()));
    const char* error = ruvo_stats_check(words.data(), bytes.size());
    EXPECT_EQ(error, nullptr) << error;
    state = ruvo_stats_head(words.data())->state;
    last_type = ruvo_stats_pool(words.data(), 2)->type;
    ruvo_stats_read_pool(ruvo_stats_pool(words.data(), 0), &pool);
    ruvo_stats_read_server(ruvo_stats_server(words.data(), 0), &server);
  }
  std::uint64_t in_flight() const { return ruvo_stats_in_flight(&server); }

  std::uint32_t state;
  std::uint32_t last_type;      // of the last pool
  ruvo_pool_counters pool;      // of the temporary one
  ruvo_server_counters server;  // its first
};

void raw(const char* format, ...) {
  va_list args;
  va_start(args, format);
  RUVO_FreeReplyObject(RUVO_ExecRedisvCmd(eTempServer, format, args));
  va_end(args);
}

int insert(const char* key) { return RUVO_InsertKey(key, "v", 1, -1, eTempServer, nullptr); }

TEST(HostStatistics, EveryCallIsCountedByItsResult) {
  RedisServer redis;
  const TempDir dir;
  const HostConfig config(all_pools_at(redis.addr()) + "stats_file = " + dir.path("s"));
  const LogCapture log(BaseLib::Logger::FATAL);
  ASSERT_EQ(start(config), RUVO_OK);
  const char* data = nullptr;
  unsigned long length = 0;
  insert("k");
  EXPECT_EQ(RUVO_QueryKey("none", &data, &length, eTempServer, nullptr), RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(RUVO_ExistsKey("none", eTempServer, nullptr), RUVO_ABSENT);
  RUVO_SAdd("s", "m", 1, eTempServer, nullptr);
  RUVO_SAdd("s", "m", 1, eTempServer, nullptr);
  insert(nullptr);
  EXPECT_EQ(RUVO_HashFieldsNum("k", nullptr, eTempServer, nullptr), RUVO_ERR_FAILED);  // a string
  raw("GET k");
  raw("GET none");
  raw("FLY");
  RUVO_FreeResult(nullptr);
  Numbers numbers(dir.path("s"));
  EXPECT_EQ(numbers.pool.results[RUVO_STATS_OK], 3U);
  EXPECT_EQ(numbers.pool.results[RUVO_STATS_ABSENT], 3U);
  EXPECT_EQ(numbers.pool.results[RUVO_STATS_NOTHING_DONE], 1U);
  EXPECT_EQ(numbers.pool.results[RUVO_STATS_BAD_ARGUMENT], 1U);
  EXPECT_EQ(numbers.pool.results[RUVO_STATS_ERROR_REPLY], 2U);
  EXPECT_EQ(numbers.server.calls, 9U);
  EXPECT_EQ(numbers.server.replies, 9U);
  EXPECT_EQ(numbers.server.error_replies, 2U);
  EXPECT_GT(numbers.pool.time_sum, 0U);

  redis.kill();
  insert("k");
  raw("GET k");
  numbers = Numbers(dir.path("s"));
  EXPECT_EQ(numbers.pool.results[RUVO_STATS_NO_SERVER], 2U);
  EXPECT_EQ(numbers.server.no_replies, numbers.server.failed_reconnects);
  EXPECT_GE(numbers.server.failed_reconnects, 2U);
  EXPECT_EQ(numbers.server.second_sends, 0U);  // nothing has been sent
  redis.restart();
  EXPECT_EQ(insert("k"), RUVO_OK);
  numbers = Numbers(dir.path("s"));
  EXPECT_EQ(numbers.server.reconnects, 1U);
  EXPECT_EQ(numbers.server.second_sends, 0U);  // the first attempt sent nothing
  EXPECT_EQ(numbers.in_flight() + numbers.server.waiting, 0U);
  EXPECT_EQ(numbers.last_type, static_cast<std::uint32_t>(ePersonalityServer));
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
  EXPECT_EQ(Numbers(dir.path("s")).state, RUVO_STATS_ENDED);
  ASSERT_EQ(start(HostConfig(all_pools_at(redis.addr()))), RUVO_OK);  // without the file
  EXPECT_EQ(insert("k"), RUVO_OK);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

TEST(HostStatistics, ACommandThatIsSentAgainIsCountedAsSuch) {
  const ScriptedServer hangs_up_first([](Peer& peer) {
    constexpr int at_start = 3;  // connections
    if (peer.number() < at_start) {
      peer.read_command();
    } else {
      peer.answer_all("+OK\r\n");
    }
  });
  const TempDir dir;
  const HostConfig config(all_pools_at(hangs_up_first.addr()) + "stats_file = " + dir.path("s"));
  const LogCapture log(BaseLib::Logger::FATAL);
  ASSERT_EQ(start(config), RUVO_OK);
  EXPECT_EQ(insert("k"), RUVO_OK);
  EXPECT_EQ(Numbers(dir.path("s")).server.second_sends, 1U);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

TEST(HostStatistics, ACallPastItsDeadlineIsCountedAsSuch) {
  const ScriptedServer silent([](Peer& peer) { peer.hang(); });
  const TempDir dir;
  const HostConfig config(all_pools_at(silent.addr()) +
                          "call_timeout = 50\nstats_file = " + dir.path("s"));
  const LogCapture log(BaseLib::Logger::FATAL);
  ASSERT_EQ(start(config), RUVO_OK);
  EXPECT_EQ(insert("k"), RUVO_ERR_FAILED);
  const Numbers numbers(dir.path("s"));
  EXPECT_EQ(numbers.pool.results[RUVO_STATS_DEADLINE], 1U);
  EXPECT_EQ(numbers.server.no_replies, 1U);
  std::uint64_t longer = 0;
  for (std::uint32_t i = ruvo_stats_bucket(49'000'000); i < RUVO_STATS_BUCKETS; ++i) {
    longer += numbers.pool.buckets[i];
  }
  EXPECT_EQ(longer, 1U);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

TEST(HostStatistics, ShowsAServerThatWillNotServe) {
  const ScriptedServer replica("-READONLY You can't write against a read only replica.\r\n");
  const TempDir dir;
  const HostConfig config(all_pools_at(replica.addr()) +
                          "failover_replies = READONLY\nstats_file = " + dir.path("s"));
  const LogCapture log(BaseLib::Logger::FATAL);
  ASSERT_EQ(start(config), RUVO_OK);
  EXPECT_EQ(insert("k"), RUVO_ERR_FAILED);
  const Numbers numbers(dir.path("s"));
  EXPECT_EQ(numbers.pool.results[RUVO_STATS_ERROR_REPLY], 1U);
  EXPECT_GE(numbers.server.error_replies, 1U);
  EXPECT_EQ(numbers.server.replies, 0U);
  EXPECT_EQ(numbers.server.no_replies, 1U);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

// Without auto_pipelining the second call waits for the connection; with it both are in flight.
TEST(HostStatistics, ShowsCallsInProgress) {
  std::promise<void> asked;
  const ScriptedServer slow([released = asked.get_future().share()](Peer& peer) {
    peer.read_command();
    released.wait();
    peer.send("+OK\r\n");
    peer.read_command();
    peer.send("+OK\r\n");
    peer.hang();
  });
  const TempDir dir;
  const HostConfig config(all_pools_at(slow.addr()) +
                          "socket_timeout = 10000\nstats_file = " + dir.path("s"));
  const LogCapture log(BaseLib::Logger::FATAL);
  ASSERT_EQ(start(config), RUVO_OK);
  {
    const std::jthread first([] { insert("a"); });
    const std::jthread second([] { insert("b"); });
    const char* mode = std::getenv("RUVO_TEST_COMMON");  // NOLINT: no thread sets it
    const std::uint64_t in_flight = mode != nullptr && *mode != '\0' ? 2 : 1;
    for (Numbers now(dir.path("s"));
         now.in_flight() != in_flight || now.in_flight() + now.server.waiting != 2;) {
      now = Numbers(dir.path("s"));
    }
    asked.set_value();
  }
  const Numbers numbers(dir.path("s"));
  EXPECT_EQ(numbers.in_flight() + numbers.server.waiting, 0U);
  EXPECT_EQ(numbers.server.replies, 2U);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

}  // namespace

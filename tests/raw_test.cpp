// Any command: the walk over all pools, and the reply that the caller gets.
#include <gtest/gtest.h>

#include <cstdarg>

#include "client.h"
#include "servers.h"

namespace {

constexpr auto INFO = BaseLib::Logger::INFO;
constexpr auto WARN = BaseLib::Logger::WARN;
constexpr auto ERROR = BaseLib::Logger::ERROR;

class Raw : public testing::Test {
 protected:
  void start(const std::string& pools, const std::string& server = "") {
    const std::string timeouts = "connect_timeout = 1000\nsocket_timeout = 1000";
    init_client(client_, HostConfig(pools + timeouts, server));
    log_.clear();
  }
  // The texts of the replies to a command that is sent so often, or "null" for each that is
  // missing.
  std::string ask(int times, RedisServerType pool, const char* format, ...) {
    std::string texts;
    va_list args;
    va_start(args, format);
    for (int i = 0; i < times; ++i) {
      auto* reply = static_cast<redisReply*>(client_.exec_redis_cmd(format, args, pool));
      texts += reply != nullptr ? reply->str : "null";
      freeReplyObject(reply);
    }
    va_end(args);
    return texts;
  }
  std::string ping(RedisServerType pool) { return ask(1, pool, "PING"); }

  DownServer down_;
  DownServer also_down_;
  const ScriptedServer closes_{[](Peer& peer) { peer.read_command(); }};
  ruvo_redis client_;
  LogCapture log_;
};

TEST_F(Raw, LeavesItsArgumentsUnchanged) {
  const RedisServer redis;
  start(pools_at(redis.addr(), down_.addr(), ""));
  EXPECT_EQ(ask(2, eTempServer, "ECHO %s-%d", "a", 7), "a-7a-7");
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::exec_redis_cmd | ECHO %s-%d redis server type:1"), 2);
}

TEST_F(Raw, FailsOverToThePoolOfTheNextNumber) {
  const ScriptedServer temp{std::string("+temp\r\n")};
  const ScriptedServer persist{std::string("+persist\r\n")};
  start(pools_at(down_.addr() + "," + temp.addr(), persist.addr() + "," + closes_.addr(),
                 down_.addr() + "," + also_down_.addr()));
  // Position 0 failed: the temporary pool, whose next server is its first, at the same position.
  EXPECT_EQ(ping(ePersonalityServer), "null");
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::exec_redis_cmd | can not find an available server"), 1);
  // Position 1 failed: the persistent pool, whose next server is its first.
  EXPECT_EQ(ping(ePersonalityServer), "persist");
  EXPECT_EQ(log_.count(WARN,
                       "ruvo_redis::exec_redis_cmd | key:temp, connection err,try reset,ret:1, "
                       "err:Connection refused"),
            2);
  EXPECT_EQ(log_.count_containing("ruvo_redis::exec_redis_cmd | key:temp, null reply and reset"),
            2);
  EXPECT_EQ(ping(eTempServer), "temp");
  // The second server of the persistent pool closes. Position 1 leads to that pool, where
  // round-robin chooses the first server.
  EXPECT_EQ(ping(ePersistServer), "persist");
  EXPECT_EQ(pool_in(client_, ePersonalityServer).servers_[1].failure_count_, 1);
}

TEST_F(Raw, MakesTwoVisitsForEachServerOfThePoolsAtMost) {
  const ScriptedServer good{std::string("+good\r\n")};
  const ScriptedServer also_closes([](Peer& peer) { peer.read_command(); });
  start(pools_at(also_closes.addr(), closes_.addr(), good.addr() + "," + closes_.addr()));
  EXPECT_EQ(ping(ePersonalityServer), "good");
  // Begins at position 1, and then finds only servers at position 0: four servers, so eight visits,
  // of which the temporary pool has all but two.
  EXPECT_EQ(ping(ePersonalityServer), "null");
  EXPECT_EQ(also_closes.connections(), 1 + 6);
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::exec_redis_cmd | can not find an available server"), 1);
}

TEST_F(Raw, LogsAPoolWithoutAServerAtTheStart) {
  const ScriptedServer good{std::string("+good\r\n")};
  start(pools_at(down_.addr(), good.addr(), ""), "p_server_failure_limit = 1");
  for (const int error_lines : {0, 1}) {  // the first call ejects the only server
    log_.clear();
    EXPECT_EQ(ping(eTempServer), "null");
    EXPECT_EQ(log_.count(ERROR, "temp"), error_lines);
  }
}

}  // namespace

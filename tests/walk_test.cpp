// The walk over servers, its ends, and the result codes of replies.
#include <gtest/gtest.h>
#include <pthread.h>

#include <utility>

#include "client.h"
#include "servers.h"

namespace {
const pthread_mutex_t* broken_mutex = nullptr;
}

// ACE_OS::mutex_lock
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names, see --wrap
extern "C" int __real__ZN6ACE_OS10mutex_lockEP15pthread_mutex_t(pthread_mutex_t* mutex);
extern "C" int __wrap__ZN6ACE_OS10mutex_lockEP15pthread_mutex_t(pthread_mutex_t* mutex) {
  return mutex == broken_mutex ? -1 : __real__ZN6ACE_OS10mutex_lockEP15pthread_mutex_t(mutex);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

constexpr auto WARN = BaseLib::Logger::WARN;
constexpr auto ERROR = BaseLib::Logger::ERROR;

class Walk : public testing::Test {
 protected:
  void start(const std::string& addrs, const std::string& server_settings = "") {
    const HostConfig config(all_pools_at(addrs), server_settings);
    init_client(client_, config);
    log_.clear();
  }
  int get(const char* key, RedisServerType type = eTempServer) {
    redisReply* reply = nullptr;
    const int ret = client_.do_exec_command(key, reply, true, type, "GET %s", key);
    freeReplyObject(reply);
    return ret;
  }
  server_node& server(std::size_t position) { return pool_in(client_).servers_.at(position); }

  DownServer down_;
  DownServer also_down_;
  ruvo_redis client_;
  LogCapture log_;
};

TEST_F(Walk, ANilReplyNamesItsPool) {
  const ScriptedServer redis{std::string("$-1\r\n")};
  start(redis.addr());
  const auto line = [](const std::string& word) {
    return "ruvo_redis::do_exec_command | redis key:k, persistence:" + word +
           ", redis reply is nil";
  };
  for (const int type : {1, 2, 3, -1}) {
    EXPECT_EQ(get("k", static_cast<RedisServerType>(type)), 10402);
  }
  EXPECT_EQ(log_.count(WARN, line("true")), 4);
  EXPECT_EQ(get("k", static_cast<RedisServerType>(0)), 10402);
  EXPECT_EQ(log_.count(WARN, line("false")), 1);
  EXPECT_EQ(get(nullptr), 10107);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::do_exec_command | key is NULL"), 1);
}

TEST_F(Walk, HandsOverAReplyOnlyOnSuccessAndOnDemand) {
  // clang-format off
  const struct { std::string reply; bool needed; int result; bool handed_over; } cases[] = {
      {"$1\r\nv\r\n", true, RUVO_OK, true}, {"$1\r\nv\r\n", false, RUVO_OK, false},
      {"$-1\r\n", true, RUVO_ERR_NOT_FOUND, false}, {"-ERR no\r\n", true, RUVO_ERR_FAILED, false},
  };
  // clang-format on
  for (const auto& one : cases) {
    const ScriptedServer redis(one.reply);
    ruvo_redis client;
    init_client(client, HostConfig(all_pools_at(redis.addr())));
    redisReply untouched{};
    redisReply* reply = &untouched;
    EXPECT_EQ(client.do_exec_command("k", reply, one.needed, eTempServer, "GET k"), one.result);
    EXPECT_EQ(reply != &untouched, one.handed_over) << one.reply;
    if (one.handed_over) {
      EXPECT_STREQ(reply->str, "v");
      freeReplyObject(reply);
    }
  }
  EXPECT_EQ(
      log_.count(ERROR, "ruvo_redis::do_exec_command | exec key:k failed, redis reply str:ERR no."),
      1);
}

TEST_F(Walk, RebuildsABrokenConnectionAndSendsAgain) {
  RedisServer redis;
  redis.kill();
  start(redis.addr() + "," + redis.addr());  // down at the start: connected on first use
  for (int round = 0; round < 2; ++round) {
    redis.restart();
    for (const std::size_t position : {0U, 1U}) {
      client_.update_server_failed(&server(position), eTempServer);
      EXPECT_EQ(get("k"), 10402);
      EXPECT_EQ(server(position).failure_count_ + server(position).next_retry_time_, 0);
    }
    EXPECT_EQ(
        log_.count_containing("ruvo_redis::do_exec_command | key:k, connection err,try reset,"), 2);
    log_.clear();
    EXPECT_EQ(get("k") + get("k"), 2 * 10402);
    EXPECT_EQ(log_.count_containing("reset"), 0);
  }
}

TEST_F(Walk, FailsOverAfterASecondSendWithoutAReply) {
  const ScriptedServer closes([](Peer& peer) { peer.read_command(); });
  const ScriptedServer good{std::string("+OK\r\n")};
  start(closes.addr() + "," + good.addr());
  EXPECT_EQ(get("k"), 0);
  EXPECT_EQ(get("k"), 0);                  // round-robin chooses the good server
  EXPECT_EQ(closes.connections(), 3 + 1);  // one for each pool, and one rebuild
  EXPECT_EQ(server(0).failure_count_, 0);  // the rebuild has worked
  EXPECT_EQ(log_.count_containing("ruvo_redis::reset_connection | reset connection"), 1);
}

TEST_F(Walk, EndsWhereItBegan) {
  start(down_.addr() + "," + also_down_.addr() + "," + down_.addr());
  EXPECT_EQ(get("100%% %s"), -1);
  for (const std::size_t position : {0U, 1U, 2U}) {
    EXPECT_EQ(server(position).failure_count_, 1);
  }
  EXPECT_EQ(log_.count(WARN,
                       "ruvo_redis::do_exec_command | key:100%% %s, connection err,try "
                       "reset,ret:1, err:Connection refused"),
            3);
  EXPECT_EQ(log_.count(ERROR,
                       "ruvo_redis::do_exec_command | key:100%% %s, null reply and reset "
                       "connection to server 127.0.0.1 port:" +
                           std::to_string(also_down_.port()) + " failed."),
            1);
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::do_exec_command | can not find an available server"), 1);
  EXPECT_EQ(log_.count(ERROR, "100% (null)"), 1);
}

TEST_F(Walk, EndsWhenNoServerIsLeft) {
  start(down_.addr(), "p_server_failure_limit = 1");
  for (const char* key : {"first", "second"}) {  // the first ejects the only server
    EXPECT_EQ(get(key), -1);
    EXPECT_EQ(log_.count(ERROR, key), 1);
  }
  EXPECT_EQ(log_.count_containing("can not find an available server"), 0);
}

TEST_F(Walk, MakesTwoVisitsForEachServerAtMost) {
  // The first server is ejected by its first failure, so that the walk never returns to it; the
  // second always accepts and closes, which counts as no failure.
  const ScriptedServer closes([](Peer& peer) { peer.read_command(); });
  start(down_.addr() + "," + closes.addr(), "p_server_failure_limit = 1");
  EXPECT_EQ(get("k"), -1);
  EXPECT_EQ(closes.connections(), 3 + 3);  // one for each pool; visits 2 to 4 rebuild once each
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::do_exec_command | can not find an available server"), 1);
  EXPECT_EQ(log_.count(ERROR, "k"), 1);
}

TEST_F(Walk, SlotsThatAreMissingOrEmpty) {
  const RedisServer guarded("--requirepass other");
  const RedisServer open;
  // The open server refuses a password as well, so it joins the pool without one.
  server_pool& pool = pool_in(client_);
  ASSERT_EQ(ruvo_cfg.open("[server]\np_password = wrong", true), 0);
  ASSERT_EQ(client_.init_server_pool(guarded.addr(), pool, eTempServer), 0);
  ASSERT_EQ(ruvo_cfg.open("[server]", true), 0);
  ASSERT_EQ(client_.init_server_pool(open.addr(), pool, eTempServer), 0);
  EXPECT_EQ(get("k"), 10402);
  EXPECT_EQ(server(0).failure_count_, 1);
  EXPECT_EQ(log_.count_containing("ruvo_redis::get_conn | no connection 0 on server"), 1);
  redisFree(std::exchange(server(1).context_arr_[0].context_, nullptr));
  log_.clear();
  EXPECT_EQ(get("k"), 10402);
  EXPECT_EQ(log_.count_containing("connection err"), 0);
  EXPECT_EQ(log_.count_containing("reset connection"), 1);
}

TEST_F(Walk, AFailedLockFailsTheCallSilently) {
  const RedisServer redis;
  start(redis.addr());
  broken_mutex = &server(0).context_arr_[0].lock_->lock();
  EXPECT_EQ(get("k"), -1);
  broken_mutex = nullptr;
  for (const LogCapture::Line& line : log_.take()) {
    EXPECT_LT(line.level, WARN) << line;
  }
  EXPECT_EQ(server(0).failure_count_, 0);
}

}  // namespace

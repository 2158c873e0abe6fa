// The walk over servers, its ends, and the result codes of replies.
#include <pthread.h>

#include <utility>

#include "client_test.h"

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

const std::string typed = "ruvo_redis::do_exec_command | ";

class Walk : public ClientTest {};

TEST_F(Walk, ANilReplyNamesItsPool) {
  const ScriptedServer redis(nil);
  start(redis.addr());
  for (const int pool : {1, 2, 3, -1, 0}) {
    log_.clear();
    EXPECT_EQ(get("k", pool), RUVO_ERR_NOT_FOUND);
    EXPECT_EQ(log_.count(WARN, typed + "redis key:k, persistence:" +
                                   (pool == 0 ? "false" : "true") + ", redis reply is nil"),
              1);
  }
  EXPECT_EQ(get(nullptr), 10107);
  EXPECT_EQ(log_.count(ERROR, typed + "key is NULL"), 1);
}

TEST_F(Walk, HandsOverAReplyOnlyOnSuccessAndOnDemand) {
  // clang-format off
  const struct { std::string reply; bool needed; int result; bool handed_over; } cases[] = {
      {"$1\r\nv\r\n", true, RUVO_OK, true}, {"$1\r\nv\r\n", false, RUVO_OK, false},
      {nil, true, RUVO_ERR_NOT_FOUND, false}, {"-ERR no\r\n", true, RUVO_ERR_FAILED, false},
  };
  // clang-format on
  for (const auto& one : cases) {
    const ScriptedServer redis(one.reply);
    start(redis.addr());
    redisReply untouched{};
    redisReply* reply = &untouched;
    EXPECT_EQ(client_->do_exec_command("k", reply, one.needed, eTempServer, "GET k"), one.result);
    EXPECT_EQ(reply != &untouched, one.handed_over) << one.reply;
    if (one.handed_over) {
      EXPECT_STREQ(reply->str, "v");
      freeReplyObject(reply);
    }
  }
  EXPECT_EQ(log_.count(ERROR, typed + "exec key:k failed, redis reply str:ERR no."), 1);
}

TEST_F(Walk, RebuildsABrokenConnectionAndSendsAgain) {
  RedisServer redis;
  redis.kill();
  start(redis.addr() + "," + redis.addr());  // down at the start: connected on first use
  for (int round = 0; round < 2; ++round) {
    redis.restart();
    for (const std::size_t position : {0U, 1U}) {
      client_->update_server_failed(&server(position), eTempServer);
      EXPECT_EQ(get(), RUVO_ERR_NOT_FOUND);
      EXPECT_EQ(failures(position) + server(position).next_retry_time_, 0);
    }
    EXPECT_EQ(log_.count_containing(typed + "key:k, connection err,try reset,"), 2);
    log_.clear();
    EXPECT_EQ(get() + get(), 2 * RUVO_ERR_NOT_FOUND);
    EXPECT_EQ(log_.count_containing("reset"), 0);
  }
}

TEST_F(Walk, FailsOverAfterASecondSendWithoutAReply) {
  const ScriptedServer closes(close_it);
  const ScriptedServer good(nil);
  start(closes.addr() + "," + good.addr());
  EXPECT_EQ(get(), RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(get(), RUVO_ERR_NOT_FOUND);           // round-robin chooses the good server
  EXPECT_EQ(closes.connections(), at_start + 1);  // one rebuild
  EXPECT_EQ(failures(0), 0);                      // the rebuild has worked
  EXPECT_EQ(log_.count_containing("ruvo_redis::reset_connection | reset connection"), 1);
}

TEST_F(Walk, EndsWhereItBegan) {
  const DownServer also_down;
  start(down_.addr() + "," + also_down.addr() + "," + down_.addr());
  EXPECT_EQ(get("100%% %s"), RUVO_ERR_FAILED);
  for (const std::size_t position : {0U, 1U, 2U}) {
    EXPECT_EQ(failures(position), 1);
  }
  const std::string key = typed + "key:100%% %s, ";
  EXPECT_EQ(log_.count(WARN, key + "connection err,try reset,ret:1, err:Connection refused"), 3);
  EXPECT_EQ(log_.count(ERROR, key + "null reply and reset connection to server 127.0.0.1 port:" +
                                  std::to_string(also_down.port()) + " failed."),
            1);
  EXPECT_EQ(log_.count(WARN, typed + "can not find an available server"), 1);
  EXPECT_EQ(log_.count(ERROR, "100% (null)"), 1);
}

TEST_F(Walk, EndsWhenNoServerIsLeft) {
  start(down_.addr(), "", "p_server_failure_limit = 1");
  for (const char* key : {"first", "second"}) {  // the first ejects the only server
    EXPECT_EQ(get(key), RUVO_ERR_FAILED);
    EXPECT_EQ(log_.count(ERROR, key), 1);
  }
  EXPECT_EQ(log_.count_containing("can not find an available server"), 0);
}

TEST_F(Walk, MakesTwoVisitsForEachServerAtMost) {
  // The first server is ejected by its first failure, so that the walk never returns to it; the
  // second always accepts and closes, which counts as no failure.
  const ScriptedServer closes(close_it);
  start(down_.addr() + "," + closes.addr(), "", "p_server_failure_limit = 1");
  EXPECT_EQ(get(), RUVO_ERR_FAILED);
  EXPECT_EQ(closes.connections(), at_start + 3);  // visits 2 to 4 rebuild once each
  EXPECT_EQ(log_.count(WARN, typed + "can not find an available server"), 1);
  EXPECT_EQ(log_.count(ERROR, "k"), 1);
}

TEST_F(Walk, SlotsThatAreMissingOrEmpty) {
  const RedisServer guarded("--requirepass other");
  const RedisServer open;
  // The open server refuses a password as well, so it joins the pool without one.
  server_pool& pool = pool_in(*client_);
  ASSERT_EQ(ruvo_cfg.open("[server]\np_password = wrong", true), 0);
  ASSERT_EQ(client_->init_server_pool(guarded.addr(), pool, eTempServer), 0);
  ASSERT_EQ(ruvo_cfg.open("[server]", true), 0);
  ASSERT_EQ(client_->init_server_pool(open.addr(), pool, eTempServer), 0);
  EXPECT_EQ(get(), RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(failures(0), 1);
  EXPECT_EQ(log_.count_containing("ruvo_redis::get_conn | no connection 0 on server"), 1);
  redisFree(std::exchange(server(1).context_arr_[0].context_, nullptr));
  log_.clear();
  EXPECT_EQ(get(), RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(log_.count_containing("connection err"), 0);
  EXPECT_EQ(log_.count_containing("reset connection"), 1);
}

TEST_F(Walk, AFailedLockFailsTheCallSilently) {
  const RedisServer redis;
  start(redis.addr());
  broken_mutex = &server(0).context_arr_[0].lock_->lock();
  EXPECT_EQ(get(), RUVO_ERR_FAILED);
  broken_mutex = nullptr;
  for (const LogCapture::Line& line : log_.take()) {
    EXPECT_LT(line.level, WARN) << line;
  }
  EXPECT_EQ(failures(0), 0);
}

}  // namespace

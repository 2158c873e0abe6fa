// The walk over servers, its ends, and the codes that replies become.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "client.h"
#include "key_format.h"
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

class Execution : public testing::Test {
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
  // The text of the reply to a raw command, or "null".
  std::string raw(int type, ...) {
    va_list none;
    va_start(none, type);
    auto* reply = static_cast<redisReply*>(
        client_.exec_redis_cmd("PING", none, static_cast<RedisServerType>(type)));
    va_end(none);
    std::string text = reply != nullptr ? reply->str : "null";
    freeReplyObject(reply);
    return text;
  }
  server_node& server(std::size_t position) { return pool_in(client_).servers_.at(position); }

  DownServer down_;
  DownServer also_down_;
  ruvo_redis client_;
  LogCapture log_;
};

TEST_F(Execution, ANilReplyNamesItsPool) {
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
  redisReply untouched{};
  redisReply* reply = &untouched;
  EXPECT_EQ(client_.do_exec_command("k", reply, true, eTempServer, "GET k"), 10402);
  EXPECT_EQ(reply, &untouched);
  EXPECT_EQ(get(nullptr), 10107);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::do_exec_command | key is NULL"), 1);
}

TEST_F(Execution, RebuildsABrokenConnectionAndSendsAgain) {
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

TEST_F(Execution, EveryWayToBreakAConnectionLeadsToTheNextServer) {
  const ScriptedServer::Script ways[] = {
      [](Peer& peer) { peer.read_command(); },  // closes
      [](Peer& peer) {                          // closes within a long reply
        peer.read_command();
        peer.send("*100\r\n$3\r\nabc\r\n$100\r\nhalf");
      },
      [](Peer& peer) {  // sends garbage
        peer.read_command();
        peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        peer.hang();
      },
      [](Peer& peer) { peer.hang(); },
  };
  const RedisServer good;
  for (const auto& way : ways) {
    const ScriptedServer bad(way);
    ruvo_redis client;
    const HostConfig config("connect_timeout = 1000\nsocket_timeout = 200\n" +
                            pools_at(bad.addr() + "," + good.addr(), good.addr(), good.addr()));
    ASSERT_EQ(init_client(client, config), 0);
    log_.clear();
    EXPECT_EQ(client.insert_key("k", "v", 1, -1, eTempServer, nullptr), 0);
    EXPECT_EQ(bad.connections(), 2);  // one rebuild, one resend
    EXPECT_EQ(log_.count_containing("ruvo_redis::reset_connection | reset connection"), 1);
    // The rebuild succeeded, so no failure is counted, although the second send failed as well.
    EXPECT_EQ(client.getPool(eTempServer).servers_[0].failure_count_, 0);
  }
}

TEST_F(Execution, AWalkEndsWhereItBegan) {
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

TEST_F(Execution, AWalkEndsWhenNoServerIsLeft) {
  start(down_.addr(), "p_server_failure_limit = 1");
  for (const char* key : {"first", "second"}) {  // the first ejects the only server
    EXPECT_EQ(get(key), -1);
    EXPECT_EQ(log_.count(ERROR, key), 1);
  }
  EXPECT_EQ(log_.count_containing("can not find an available server"), 0);
}

TEST_F(Execution, AWalkMakesTwoVisitsForEachServerAtMost) {
  // The first server is ejected by its first failure, so that the walk never comes round to it; the
  // second accepts and closes for ever, which counts as no failure.
  const ScriptedServer closes([](Peer& peer) { peer.read_command(); });
  start(down_.addr() + "," + closes.addr(), "p_server_failure_limit = 1");
  EXPECT_EQ(get("k"), -1);
  EXPECT_EQ(closes.connections(), 3 + 3);  // one for each pool; visits 2 to 4 rebuild once each
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::do_exec_command | can not find an available server"), 1);
  EXPECT_EQ(log_.count(ERROR, "k"), 1);
}

TEST_F(Execution, ARawWalkGoesOnInThePoolOfTheNextNumber) {
  const ScriptedServer temp{std::string("+temp\r\n")};
  const ScriptedServer persist{std::string("+persist\r\n")};
  const ScriptedServer closes([](Peer& peer) { peer.read_command(); });
  const HostConfig config(pools_at(down_.addr() + "," + temp.addr(),
                                   persist.addr() + "," + closes.addr(),
                                   down_.addr() + "," + also_down_.addr()) +
                          "connect_timeout = 1000\nsocket_timeout = 1000");
  init_client(client_, config);
  log_.clear();
  // Position 0 failed: the temporary pool, whose turn is its first server, at the same position.
  EXPECT_EQ(raw(ePersonalityServer), "null");
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::exec_redis_cmd | can not find an available server"), 1);
  // Position 1 failed: the persistent pool, whose turn is its first server.
  EXPECT_EQ(raw(ePersonalityServer), "persist");
  EXPECT_EQ(log_.count(WARN,
                       "ruvo_redis::exec_redis_cmd | key:temp, connection err,try reset,ret:1, "
                       "err:Connection refused"),
            2);
  EXPECT_EQ(log_.count_containing("ruvo_redis::exec_redis_cmd | key:temp, null reply and reset"),
            2);
  EXPECT_EQ(raw(eTempServer), "temp");
  // Persistent pool, second server: closes; position 1 leads to the persistent pool, turn 2.
  EXPECT_EQ(raw(ePersistServer), "persist");
  EXPECT_EQ(pool_in(client_, ePersonalityServer).servers_[1].failure_count_, 1);
}

TEST_F(Execution, SlotsThatAreMissingOrEmpty) {
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

TEST_F(Execution, AFailedLockFailsTheCallSilently) {
  const RedisServer redis;
  start(redis.addr());
  broken_mutex = &server(0).context_arr_[0].lock_->lock();
  EXPECT_EQ(get("k"), -1);
  EXPECT_EQ(raw(eTempServer), "null");
  broken_mutex = nullptr;
  for (const LogCapture::Line& line : log_.take()) {
    EXPECT_LT(line.level, WARN) << line;
  }
  EXPECT_EQ(server(0).failure_count_, 0);
}

// ---- Signals ----

TEST_F(Execution, AStaleConnectionRaisesNoSignal) {
  RedisServer redis;
  start(redis.addr());
  sigset_t pipe_only;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  for (const bool host_blocks : {false, true}) {
    pthread_sigmask(host_blocks ? SIG_BLOCK : SIG_UNBLOCK, &pipe_only, nullptr);
    for (const bool pending : {false, true}) {
      if (pending && !host_blocks) {
        continue;
      }
      if (pending) {
        pthread_kill(pthread_self(), SIGPIPE);
      }
      redis.restart();
      // Larger than one write: the second one meets the reset connection.
      const std::string large(8000000, 'x');
      EXPECT_EQ(client_.insert_key("k", large.data(), large.size(), -1, eTempServer, nullptr), 0);
      sigset_t after;
      pthread_sigmask(SIG_BLOCK, nullptr, &after);
      EXPECT_EQ(sigismember(&after, SIGPIPE), host_blocks);
      sigpending(&after);
      EXPECT_EQ(sigismember(&after, SIGPIPE), pending);
    }
  }
  const timespec at_once{};
  sigtimedwait(&pipe_only, nullptr, &at_once);
  pthread_sigmask(SIG_UNBLOCK, &pipe_only, nullptr);
}

volatile std::sig_atomic_t raised = 0;

// Calls, and its server vanishes after each answer; then writes to a pipe that nobody reads.
[[noreturn]] void lose_the_server_a_hundred_times() {
  std::atomic<int> gone{0};
  const ScriptedServer vanishes([&](Peer& peer) {
    peer.read_command();
    peer.send("+OK\r\n");
    peer.vanish();
    gone = peer.number();
  });
  ruvo_redis client;
  init_client(client, HostConfig(all_pools_at(vanishes.addr())));
  const LogCapture log;
  for (int call = 0; call <= 100; ++call) {
    const int connections = vanishes.connections();
    if (client.insert_key("k", "v", 1, -1, eTempServer, nullptr) != 0) {
      std::_Exit(1);
    }
    while (gone < (call == 0 ? 0 : connections)) {
      std::this_thread::yield();
    }
  }
  // Where the news of the end is late, a read finds it out instead of a write.
  if (log.count_containing("err:Broken pipe") < 50 || raised != 0) {
    std::_Exit(2);
  }
  std::fputs("lived", stderr);
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0 || close(ends[0]) != 0 || write(ends[1], "x", 1) != -1) {
    std::_Exit(3);
  }
  std::_Exit(raised == 1 ? 0 : 4);
}

TEST(HostSignals, AHostLivesThroughLostServersAndGetsItsOwnSigpipe) {
  EXPECT_EXIT((std::signal(SIGPIPE, SIG_DFL), lose_the_server_a_hundred_times()),
              testing::KilledBySignal(SIGPIPE), "lived");
  EXPECT_EXIT(
      (std::signal(SIGPIPE, [](int) { raised = raised + 1; }), lose_the_server_a_hundred_times()),
      testing::ExitedWithCode(0), "lived");
}

// ---- Keys as formats ----

TEST(KeyFormat, ExpandsAsPrintfWouldWithZeros) {
  const std::string full(1023, 'x');
  const std::string spaces(1022, ' ');
  std::string nothing_much;
  for (int i = 0; i < 5000; ++i) {
    nothing_much += "%n";
  }
  // clang-format off
  struct { std::string key; std::string text; } const cases[] = {
      {"plain", "plain"}, {"", ""}, {"100%%", "100%"}, {"%s|%d|%i|%u|%c", "(null)|0|0|0|"}, {"a%nb%hhn%5lln", "ab"},
      {"%5d|%-5d|%05d|%+d|%.3d|%#x", "    0|0    |00000|+0|000|0"}, {"%lld %zu %jd %hhx", "0 0 0 0"},
      {"%f %.1Lf %e %g", "0.000000 0.0 0.000000e+00 0"}, {"%p|%10s|%.3s|%.6s|%ls", "(nil)|    (null)||(null)|(null)"},
      {"%2$d %1$s", "0 (null)"}, {"%*d|%.*f|%-*d", "0|0|0"}, {"%y %w d", "%y %w d"}, {"ends in %", "ends in "},
      {":%49:%39", ":%49:%39"}, {"%99999999999d", spaces + " "}, {"%.99999999999f", "0." + std::string(1021, '0')},
      {full + "yyy", full}, {full.substr(3) + "%s", full.substr(3) + "(nu"}, {nothing_much, ""},
      {"%-----------------------5d|", "0    |"},
  };
  // clang-format on
  for (const auto& one : cases) {
    std::array<char, log_buffer_size> text{};
    expand_key_format(one.key.c_str(), text);
    EXPECT_EQ(std::string(text.data()), one.text) << one.key.substr(0, 40);
  }
}

}  // namespace

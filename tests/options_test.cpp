// The effect of each key that a site may switch on.
#include "options.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <thread>

#include "client.h"
#include "outage.h"
#include "servers.h"

namespace {

using std::chrono::milliseconds;
constexpr auto WARN = BaseLib::Logger::WARN;
constexpr auto ERROR = BaseLib::Logger::ERROR;

constexpr int at_start = 3;     // connections to a server that is in each pool
constexpr milliseconds S(200);  // socket timeout if a server hangs
const std::string hanging = "socket_timeout = 200\n";
const std::string nil = "$-1\r\n";

// Answers by the number of the connection: those from start-up first, then later ones.
ScriptedServer::Script later(ScriptedServer::Script first, ScriptedServer::Script then) {
  return [first, then](Peer& peer) { (peer.number() < at_start ? first : then)(peer); };
}
void close_it(Peer& peer) { peer.read_command(); }
void hang(Peer& peer) { peer.hang(); }
void answer(Peer& peer) { peer.answer_all(nil); }

// Answers AUTH slowly on later connections; closes the first ones.
void slow_login(Peer& peer) {
  for (auto words = peer.read_command(); !words.empty(); words = peer.read_command()) {
    std::this_thread::sleep_for(words[0] == "AUTH" && peer.number() >= at_start ? S * 3 / 4
                                                                                : milliseconds());
    if (words[0] != "AUTH" && peer.number() < at_start) {
      return;
    }
    peer.send(words[0] == "AUTH" ? "+OK\r\n" : nil);
  }
}
const std::string passwords = "p_password = x\nt_password = x\nps_password = x\n";

class Options : public testing::Test {
 protected:
  void start(const std::string& options, const std::string& addrs, const std::string& server = "") {
    client_ = std::make_unique<ruvo_redis>();
    init_client(*client_, HostConfig(options + "\nconnect_timeout = 2000\nsocket_timeout = 2000\n" +
                                         pools_at(addrs, addrs, addrs),
                                     server));
    log_.clear();
  }
  int get(const char* command = "GET k") {
    redisReply* reply = nullptr;
    return client_->do_exec_command("k", reply, false, eTempServer, command);
  }
  bool get_raw(const char* format, ...) {
    va_list none;
    va_start(none, format);
    const reply_ptr got(
        static_cast<redisReply*>(client_->exec_redis_cmd(format, none, eTempServer)));
    va_end(none);
    return got != nullptr;
  }
  server_node& server(std::size_t position) { return pool_in(*client_).servers_.at(position); }
  int failures(std::size_t position) { return server(position).failure_count_; }

  DownServer down_;
  std::unique_ptr<ruvo_redis> client_;
  LogCapture log_;
};

TEST_F(Options, EjectSilentServersCountsVisitsWithoutAReplyUntilOneComes) {
  // clang-format off
  const struct { ScriptedServer::Script script; bool on; std::vector<int> failures; const char* command = "GET k"; } cases[] = {
      {hang, true, {0, 1, 2, 2}},
      {close_it, true, {0, 1, 2, 2}},  // accepts every new connection
      {close_it, false, {1, 0, 0}}, {later(close_it, answer), true, {1, 0}},
      {answer, true, {0, 0}, "GET %z"},  // a template that hiredis refuses is no server's failure
  };
  // clang-format on
  const ScriptedServer good(nil);
  for (const auto& one : cases) {
    const ScriptedServer faulty(one.script);
    start(hanging + (one.on ? "eject_silent_servers = true" : ""),
          faulty.addr() + "," + good.addr(), "p_server_failure_limit = 2");
    server(0).failure_count_ = one.failures[0];
    for (std::size_t i = 1; i < one.failures.size(); ++i) {
      const int ret = one.command == std::string("GET k") ? RUVO_ERR_NOT_FOUND : RUVO_ERR_FAILED;
      // The second call goes to the good server by round-robin.
      EXPECT_EQ(get(one.command) + get(one.command), 2 * ret);
      EXPECT_EQ(failures(0), one.failures[i]);
    }
    EXPECT_EQ(log_.count_containing("invalid, failure count:2") > 0, one.failures.back() == 2);
  }
}

// The deadline ends the wait for the password; a reply on the new connection clears the failures.
TEST_F(Options, EjectSilentServersClearsFailuresWithAnyReplyOnTheNewConnection) {
  const ScriptedServer slow(slow_login);
  start("eject_silent_servers = true\ncall_timeout = 5000", slow.addr(), passwords);
  server(0).failure_count_ = 4;
  EXPECT_EQ(get(), RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(failures(0), 0);
  server(0).failure_count_ = 1;  // of another connection
  EXPECT_EQ(get(), RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(failures(0), 1);
}

TEST_F(Options, EjectSilentServersCountsEachCallThatEndsWhileTheServerIsSilent) {
  // clang-format off
  const struct { ScriptedServer::Script script; std::string server; } cases[] = {
      {hang, ""}, {hang_at_later_login(at_start), passwords}};  // the deadline ends the wait for a reply, or a rebuild
  // clang-format on
  for (const auto& one : cases) {
    for (const std::string pipelining : {"", "auto_pipelining = true\n"}) {
      const ScriptedServer silent(one.script);
      start(pipelining + "eject_silent_servers = true\ncall_timeout = 100", silent.addr(),
            one.server);
      for (int calls = 1; calls <= 2; ++calls) {
        EXPECT_EQ(get(), -1);
        EXPECT_EQ(failures(0), calls) << pipelining << one.server;
      }
    }
  }
}

// A refusal says that the command has not run. After a second send without a reply it may have run.
TEST_F(Options, SendOnceHoldsWhatIsSentAgainAfterARefusal) {
  const auto refuse = [](Peer& peer) { peer.answer_all("-READONLY no\r\n"); };
  const auto log_in_and_refuse = [&](Peer& peer) {
    peer.read_command();
    peer.send("+OK\r\n");
    refuse(peer);
  };
  for (const std::string pipelining : {"", "auto_pipelining = true\n"}) {
    const std::string options =
        pipelining + "failover_replies = READONLY\nraw_commands_stay_in_pool = true\n";
    std::atomic<int> commands{0};
    const ScriptedServer other([&](const std::vector<std::string>& words) {
      commands += words[0] == "AUTH" ? 0 : 1;
      return words[0] == "AUTH" ? "+OK\r\n" : nil;
    });
    const ScriptedServer closes(later(refuse, close_it));
    start(options + "send_once = true", closes.addr() + "," + other.addr());
    EXPECT_FALSE(get_raw("INCR k")) << pipelining;
    EXPECT_EQ(commands, 0);
    EXPECT_EQ(log_.count_containing("not sent again: it may have run"), 1);
    // Without a new connection there is no second send, so the other server gets the command.
    const ScriptedServer shuts(later(log_in_and_refuse, close_it));
    start(options + "send_once = true", shuts.addr() + "," + other.addr(), passwords);
    EXPECT_TRUE(get_raw("INCR k")) << pipelining;
    EXPECT_EQ(commands, 1);
    // Without send_once a call that runs out of time ends with the refusal.
    const ScriptedServer hangs(later(refuse, hang));
    start(options + "call_timeout = 200", hangs.addr());
    EXPECT_TRUE(get_raw("GET k"));
  }
}

// The next server has just gone down; the other is up, but ejected for an earlier fault.
TEST_F(Options, TryEjectedServersAnswersFromASkippedServer) {
  const ScriptedServer up(answer);
  for (const bool tries : {false, true}) {
    start(tries ? "try_ejected_servers = true" : "", down_.addr() + "," + up.addr());
    server(1).failure_count_ = 5;
    server(1).next_retry_time_ = std::time(nullptr) + 100;
    EXPECT_EQ(get(), tries ? RUVO_ERR_NOT_FOUND : -1);  // the answer is nil
    EXPECT_EQ(failures(0), 1);
    EXPECT_EQ(failures(1), tries ? 0 : 5);  // its reply ends the ejection
  }
}

TEST_F(Options, TryEjectedServersFollowsTheRoundRobin) {
  start("try_ejected_servers = true", down_.addr() + "," + down_.addr() + "," + down_.addr(),
        "p_server_failure_limit = 1");
  EXPECT_EQ(get(), -1);  // ejects all three
  const std::time_t retry = server(1).next_retry_time_;
  log_.clear();
  EXPECT_EQ(client_->get_server_node(eTempServer, 1), &server(1));
  EXPECT_EQ(failures(1), 1);
  EXPECT_EQ(server(1).next_retry_time_, retry);
  EXPECT_EQ(log_.count(BaseLib::Logger::INFO, "ruvo_redis::get_server_node | all servers invalid"),
            1);
  EXPECT_EQ(get(), -1);
  EXPECT_EQ(log_.count_containing("reset_connection | reset connection"), 3);  // each once
  // Each has its pause now, and a call that finds no other server fails without a probe.
  EXPECT_EQ(get(), -1);
  EXPECT_EQ(log_.count_containing("reset_connection | reset connection"), 3);
  client_->fini_server_pool(pool_in(*client_));
  EXPECT_EQ(client_->get_server_node(eTempServer, -1), nullptr);
}

// The README's first configuration: its one server may be down for as long as a call may take.
TEST_F(Options, TheReadmesServerMayRestart) {
  RedisServer redis;
  std::ifstream readme(RUVO_README);
  std::string common;
  std::string line;
  while (std::getline(readme, line) && line.find("[common]") == std::string::npos) {
  }
  while (std::getline(readme, line) && line.find("```") == std::string::npos) {
    common += std::regex_replace(line, std::regex("6379"), std::to_string(redis.port())) + "\n";
  }
  client_ = std::make_unique<ruvo_redis>();
  ASSERT_EQ(init_client(*client_, HostConfig(common + "call_timeout = 30000")), RUVO_OK);
  EXPECT_TRUE(client_->options().wait_for_servers);
  std::atomic<int> failed{0};
  std::atomic<int> done{0};
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        failed += get() != RUVO_ERR_NOT_FOUND ? 1 : 0;
        ++done;
      }
    });
  }
  for (int restart = 0; restart < 3; ++restart) {
    const int before = done;
    ASSERT_TRUE(eventually([&] { return done > before + 100; }));
    redis.kill();
    redis.restart();
  }
  const int before = done;
  ASSERT_TRUE(eventually([&] { return done > before + 1000; }));
  threads.clear();
  EXPECT_EQ(failed, 0);
}

TEST_F(Options, TryEjectedServersFailsNoCallWhileOneIsUp) {
  RedisServer one;
  RedisServer other;
  start("try_ejected_servers = true", one.addr() + "," + other.addr(),
        "p_server_failure_limit = 1");
  for (int round = 0; round < 4; ++round) {  // a fault in one while the other is still ejected
    RedisServer& target = round % 2 == 0 ? one : other;
    target.kill();
    for (int call = 0; call < 4; ++call) {
      EXPECT_EQ(get(), RUVO_ERR_NOT_FOUND);
    }
    target.restart();
  }
  EXPECT_GT(log_.count_containing("all servers invalid"), 0);
}

// What a call with a deadline of 100 ms still starts once a step has taken longer.
TEST_F(Options, CallTimeoutStartsNothingMoreWhenItHasPassed) {
  // clang-format off
  const struct { const char* before; ScriptedServer::Script script; int connections; } cases[] = {
      {"a rebuild", hang, at_start}, {"a second send", slow_login, at_start + 1},
      {"a visit", later(close_it, hang), at_start + 1},
  };
  // clang-format on
  std::atomic<int> good_visits{0};
  const ScriptedServer good([&](const std::vector<std::string>& words) {
    good_visits += words[0] == "GET" ? 1 : 0;
    return words[0] == "GET" ? nil : "+OK\r\n";
  });
  for (const char* sharing : {"", "auto_pipelining = true\n"}) {
    for (const auto& one : cases) {
      for (const bool raw : {false, true}) {
        SCOPED_TRACE(one.before);
        const ScriptedServer faulty(one.script);
        start(hanging + sharing + "call_timeout = 100", faulty.addr() + "," + good.addr(),
              std::string(one.before) == "a second send" ? passwords : "");
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(raw ? get_raw("GET k") : get() != -1, false);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(100) + 2 * S);
        EXPECT_EQ(faulty.connections(), one.connections);
        EXPECT_EQ(good_visits, 0);
        EXPECT_EQ(log_.count(WARN, (raw ? "ruvo_redis::exec_redis_cmd | key:temp"
                                        : "ruvo_redis::do_exec_command | key:k") +
                                       std::string(", call time-out of 100 ms has passed")),
                  1);
        EXPECT_EQ(log_.count(ERROR, "k"), raw ? 0 : 1);
      }
    }
  }
}

// The second command needs a new connection after the first has used the time of one command.
TEST_F(Options, CallTimeoutIsSharedWithTheSecondCommand) {
  const ScriptedServer server([&](Peer& peer) {
    for (auto words = peer.read_command(); !words.empty(); words = peer.read_command()) {
      if (words[0] != "EXPIRE") {
        std::this_thread::sleep_for(milliseconds(300));
        peer.send(":1\r\n");
      }
    }
  });
  start("socket_timeout = 10000\ncall_timeout = 1000", server.addr());
  long long count = 0;
  const auto expect_in_time = [](int expected, const auto& call) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(call(), expected);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, milliseconds(990));
    EXPECT_LT(took, milliseconds(1200));
  };
  expect_in_time(RUVO_OK, [&] { return client_->increase_key("k", &count, eTempServer, nullptr); });
  expect_in_time(RUVO_OK,
                 [&] { return client_->hash_set("k", "f", 1, "v", 1, 9, eTempServer, nullptr); });
  expect_in_time(RUVO_ERR_FAILED,
                 [&] { return client_->list_push("k", "v", 1, 9, &count, eTempServer, nullptr); });
  EXPECT_EQ(log_.count_containing("call time-out of 1000 ms has passed"), 3);
}

TEST(PoolOutage, IsGivenUpAtTheFirstDeadlineOfItsWaiters) {
  constexpr pool_outage::log_names names{"test", 1};
  constexpr std::chrono::seconds T(1);
  const time_point begin = std::chrono::steady_clock::now();
  const time_point later = begin + milliseconds(1);
  pool_outage outage;
  EXPECT_TRUE(outage.join(names, later, later + T, true));
  EXPECT_TRUE(outage.join(names, begin, begin + T, true));  // took longer to find no server
  EXPECT_TRUE(outage.join(names, begin, begin + T, false));
  EXPECT_FALSE(outage.join(names, begin + T, begin + 2 * T, true));
  const LogCapture log(BaseLib::Logger::INFO);
  outage.note_answer(names);
  EXPECT_EQ(log.count_containing(" ms, 2 calls waited"), 1);
}

}  // namespace

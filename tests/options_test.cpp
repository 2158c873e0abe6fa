// The effect of each key that a site may switch on.
#include "options.h"

#include <fstream>
#include <regex>

#include "callers.h"
#include "client_test.h"
#include "outage.h"

namespace {

const std::string modes[] = {"", "auto_pipelining = true\n"};

// Answers AUTH slowly on later connections; closes the first ones.
void slow_login(Peer& peer) {
  for (auto words = peer.read_command(); !words.empty(); words = peer.read_command()) {
    const bool is_later = peer.number() >= at_start;
    if (words[0] == "AUTH" && is_later) {
      std::this_thread::sleep_for(milliseconds(700));
    } else if (words[0] != "AUTH" && !is_later) {
      return;
    }
    peer.send(words[0] == "AUTH" ? "+OK\r\n" : nil);
  }
}

// Counts the commands for data, and answers them with nil.
ScriptedServer::Answer counting(std::atomic<int>& commands) {
  return [&commands](const std::vector<std::string>& words) {
    commands += words[0] == "AUTH" ? 0 : 1;
    return words[0] == "AUTH" ? "+OK\r\n" : nil;
  };
}

class Options : public ClientTest {};

TEST_F(Options, EjectSilentServersCountsVisitsWithoutAReplyUntilOneComes) {
  // clang-format off
  const struct { const char* what; ScriptedServer::Script script; bool on; std::vector<int> failures; const char* command = "GET %s"; } cases[] = {
      {"hangs", hang, true, {0, 1, 2, 2}},
      {"accepts and closes", close_it, true, {0, 1, 2, 2}}, {"off", close_it, false, {1, 0, 0}},
      {"answers later", later(close_it, answer(nil)), true, {1, 0}},
      {"a template that hiredis refuses is no server's failure", answer(nil), true, {0, 0}, "GET %z"},
  };
  // clang-format on
  const ScriptedServer good(nil);
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    const ScriptedServer faulty(one.script);
    start(faulty.addr() + "," + good.addr(),
          std::string("socket_timeout = 200\n") + (one.on ? "eject_silent_servers = true" : ""),
          "p_server_failure_limit = 2");
    server(0).failure_count_ = one.failures[0];
    for (std::size_t i = 1; i < one.failures.size(); ++i) {
      const int ret = one.command == std::string("GET %s") ? RUVO_ERR_NOT_FOUND : RUVO_ERR_FAILED;
      for (int call = 0; call < 2; ++call) {  // the second one to the good server by round-robin
        EXPECT_EQ(get("k", eTempServer, one.command), ret);
      }
      EXPECT_EQ(failures(0), one.failures[i]);
    }
    EXPECT_EQ(log_.count_containing("invalid, failure count:2") > 0, one.failures.back() == 2);
  }
}

TEST_F(Options, EjectSilentServersClearsFailuresWithAnyReplyOnTheNewConnection) {
  const ScriptedServer slow(slow_login);
  start(slow.addr(), "eject_silent_servers = true\nsocket_timeout = 5000\ncall_timeout = 9000",
        passwords);
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
    for (const std::string& mode : modes) {
      const ScriptedServer silent(one.script);
      start(silent.addr(), mode + "eject_silent_servers = true\ncall_timeout = 100", one.server);
      for (int calls = 1; calls <= 2; ++calls) {
        EXPECT_EQ(get(), RUVO_ERR_FAILED);
        EXPECT_EQ(failures(0), calls) << mode << one.server;
      }
    }
  }
}

// A refusal says that the command has not run. After a second send without a reply it may have run.
TEST_F(Options, SendOnceHoldsWhatIsSentAgainAfterARefusal) {
  const ScriptedServer::Script refuse = answer("-READONLY no\r\n");
  const auto log_in_and_refuse = [&](Peer& peer) {
    peer.read_command();
    peer.send("+OK\r\n");
    refuse(peer);
  };
  // clang-format off
  const struct { const char* what; ScriptedServer::Script script; std::string option; std::string server; bool gets_reply; int elsewhere; } cases[] = {
      {"second send unanswered", later(refuse, close_it), "send_once = true", "", false, 0},
      {"no new connection, so no second send", later(log_in_and_refuse, close_it), "send_once = true", passwords, true, 1},
      {"out of time without send_once: the refusal", later(refuse, hang), "call_timeout = 200", "", true, 0},
  };
  // clang-format on
  for (const std::string& mode : modes) {
    for (const auto& one : cases) {
      SCOPED_TRACE(mode + one.what);
      std::atomic<int> elsewhere{0};
      const ScriptedServer other(counting(elsewhere));
      const ScriptedServer refuses(one.script);
      start(refuses.addr() + "," + other.addr(),
            mode + one.option + "\nfailover_replies = READONLY\nraw_commands_stay_in_pool = true",
            one.server);
      EXPECT_EQ(get_raw() != nullptr, one.gets_reply);
      EXPECT_EQ(elsewhere, one.elsewhere);
      EXPECT_EQ(log_.count_containing("not sent again: it may have run"), one.gets_reply ? 0 : 1);
    }
  }
}

// The next server has just gone down; the other is up, but ejected for an earlier fault.
TEST_F(Options, TryEjectedServersAnswersFromASkippedServer) {
  const ScriptedServer up(nil);
  for (const bool tries : {false, true}) {
    start(down_.addr() + "," + up.addr(), tries ? "try_ejected_servers = true" : "");
    server(1).failure_count_ = 5;
    server(1).next_retry_time_ = std::time(nullptr) + 100;
    EXPECT_EQ(get(), tries ? RUVO_ERR_NOT_FOUND : RUVO_ERR_FAILED);
    EXPECT_EQ(failures(0), 1);
    EXPECT_EQ(failures(1), tries ? 0 : 5);  // its reply ends the ejection
  }
}

TEST_F(Options, TryEjectedServersFollowsTheRoundRobin) {
  start(down_.addr() + "," + down_.addr() + "," + down_.addr(), "try_ejected_servers = true",
        "p_server_failure_limit = 1");
  EXPECT_EQ(get(), RUVO_ERR_FAILED);  // ejects all three
  const std::time_t retry = server(1).next_retry_time_;
  log_.clear();
  EXPECT_EQ(client_->get_server_node(eTempServer, 1), &server(1));
  EXPECT_EQ(failures(1), 1);
  EXPECT_EQ(server(1).next_retry_time_, retry);
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::get_server_node | all servers invalid"), 1);
  // Each is probed once. It then has its pause, and a call that finds no other server fails.
  for (int call = 0; call < 2; ++call) {
    EXPECT_EQ(get(), RUVO_ERR_FAILED);
    EXPECT_EQ(log_.count_containing("reset_connection | reset connection"), 3);
  }
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
  ASSERT_EQ(init_client(*client_, HostConfig(common + "call_timeout = 30000")), RUVO_OK);
  EXPECT_TRUE(client_->options().wait_for_servers);
  Callers callers(8, [this](int) { return get() == RUVO_ERR_NOT_FOUND; });
  for (int restart = 0; restart < 3; ++restart) {
    ASSERT_TRUE(callers.make(100));
    redis.kill();
    redis.restart();
  }
  ASSERT_TRUE(callers.make(1000));
  EXPECT_EQ(callers.stop(), 0);
}

// A step takes longer than the whole call may. What the steps before it need, and the time until
// socket_timeout, are far from the deadline, so that a busy machine changes no result.
TEST_F(Options, CallTimeoutStartsNothingMoreWhenItHasPassed) {
  // clang-format off
  const struct { const char* before; ScriptedServer::Script script; int connections; const std::string server; } cases[] = {
      {"a rebuild", hang, at_start, ""}, {"a second send", slow_login, at_start + 1, passwords},
      {"a visit", later(close_it, hang), at_start + 1, ""},
  };
  // clang-format on
  std::atomic<int> good_visits{0};
  const ScriptedServer good(counting(good_visits));
  for (const std::string& mode : modes) {
    for (const auto& one : cases) {
      for (const bool raw : {false, true}) {
        SCOPED_TRACE(one.before + mode);
        const ScriptedServer faulty(one.script);
        start(faulty.addr() + "," + good.addr(), mode + "socket_timeout = 5000\ncall_timeout = 500",
              one.server);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(raw ? get_raw() != nullptr : get() != RUVO_ERR_FAILED, false);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(4500));
        EXPECT_EQ(faulty.connections(), one.connections);
        EXPECT_EQ(good_visits, 0);
        const std::string call = raw ? "exec_redis_cmd | key:temp" : "do_exec_command | key:k";
        const std::string line = "ruvo_redis::" + call + ", call time-out of 500 ms has passed";
        EXPECT_EQ(log_.count(WARN, line), 1);
        EXPECT_EQ(log_.count(ERROR, "k"), raw ? 0 : 1);
      }
    }
  }
}

// The second command needs a new connection after the first has used the time of one command.
TEST_F(Options, CallTimeoutIsSharedWithTheSecondCommand) {
  const ScriptedServer server([&](const std::vector<std::string>& words) {
    std::this_thread::sleep_for(milliseconds(words[0] == "EXPIRE" ? 0 : 500));
    return words[0] == "EXPIRE" ? "" : ":1\r\n";
  });
  start(server.addr(), "socket_timeout = 10000\ncall_timeout = 1000");
  long long count = 0;
  const auto expect_in_time = [](int expected, const auto& call) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(call(), expected);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, milliseconds(990));
    EXPECT_LT(took, milliseconds(1400));
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
  const LogCapture log(INFO);
  outage.note_answer(names);
  EXPECT_EQ(log.count_containing(" ms, 2 calls waited"), 1);
}

}  // namespace

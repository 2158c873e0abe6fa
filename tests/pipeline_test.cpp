// Calls that share a connection (auto_pipelining): which commands share a write, which wait, and
// which fail after a command that stalls, a connection that breaks or an unexpected reply.
#include "pipeline.h"

#include <ace/Guard_T.h>
#include <poll.h>
#include <sys/socket.h>

#include <semaphore>

#include "callers.h"
#include "client_test.h"

namespace {
std::atomic<std::size_t> largest_write{1};  // in commands
}

// The library's writes of more than one command come here.
extern "C" ssize_t __real_sendmsg(int fd, const msghdr* message, int flags);
extern "C" ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
  largest_write = std::max(largest_write.load(), message->msg_iovlen);
  return __real_sendmsg(fd, message, flags);
}

namespace {

using clock_type = std::chrono::steady_clock;
using Words = std::vector<std::string>;

// Answers "GET k" with the key, so that another call's reply is noticed.
std::string own_reply(const std::string& key) {
  return "$" + std::to_string(key.size()) + "\r\n" + key + "\r\n";
}

void expect_time(clock_type::time_point begin, milliseconds least, milliseconds most) {
  EXPECT_GE(clock_type::now() - begin, least);
  EXPECT_LT(clock_type::now() - begin, most);
}

class Pipeline : public ClientTest {
 protected:
  Pipeline() { BaseLib::Logger::setLogLevel(WARN); }
  ~Pipeline() override { join(); }
  void start(const std::string& addr, const std::string& more = "",
             const std::string& server = "") {
    ASSERT_EQ(
        ClientTest::start(addr, more + "\nauto_pipelining = true\nsocket_timeout = 10000", server),
        RUVO_OK);
  }
  // RUVO_OK, or the call's result; -1000 if it got another call's reply.
  int get(const std::string& key, const std::string& more = "") {
    redisReply* reply = nullptr;
    const int ret = client_->do_exec_command(key.c_str(), reply, true, eTempServer, "GET %s%b",
                                             key.c_str(), more.data(), more.size());
    if (ret != RUVO_OK) {
      return ret;
    }
    const reply_ptr owner(reply);
    return key + more == std::string(reply->str, reply->len) ? RUVO_OK : -1000;
  }
  conn_node& slot() { return server(0).context_arr_.at(0); }
  ACE_Guard<ACE_Thread_Mutex> locked() { return ACE_Guard<ACE_Thread_Mutex>(*slot().lock_); }
  // Begins a call, and waits until it is at the slot, so that the next one queues behind it.
  void call(const std::string& key, int expected = RUVO_OK, const std::string& more = "") {
    threads_.emplace_back([this, key, expected, more] {
      EXPECT_EQ(get(key, more), expected) << key;
      ++ended_;
    });
    const auto has_come = [this] {
      const auto guard = locked();
      const pipeline_state& state = slot().pipeline_;
      const std::size_t waiting = state.unsent.size() + state.alone.size() + state.in_flight.size();
      return waiting + ended_ >= threads_.size();
    };
    ASSERT_TRUE(eventually(has_come)) << key;
  }
  void set_writing(bool is_writing) {
    const auto guard = locked();
    slot().pipeline_.is_writing = is_writing;
  }
  void join() {
    threads_.clear();
    ended_ = 0;
  }

  std::vector<std::jthread> threads_;
  std::atomic<std::size_t> ended_{0};
};

TEST_F(Pipeline, NoCallWaitsForARoundTripThatIsNotItsOwn) {
  constexpr int calls = 12;
  std::string replies;
  const ScriptedServer waits_for_all([&, arrived = 0](const Words& words) mutable {
    replies += own_reply(words[1]);
    return ++arrived == calls ? replies : "";
  });
  start(waits_for_all.addr());
  // On a busy machine the time of a check, which waits for the replies, must not come meanwhile.
  slot().pipeline_.last_check = clock_type::now() + std::chrono::hours(1);
  for (int i = 0; i < calls; ++i) {
    call("k" + std::to_string(i));
  }
  join();
  EXPECT_EQ(log_.count_containing("connection err"), 0);
}

TEST_F(Pipeline, WritesWaitingCommandsWithinBounds) {
  const std::string half(40000, 'h');
  const std::string large(70000, 'l');
  // What follows the key in each command, and the upper bound of commands in a write.
  const std::vector<std::pair<std::vector<std::string>, std::size_t>> cases{
      {std::vector<std::string>(200), max_write_commands},
      {{half, half, half}, 1},
      {{"", large}, 1}};
  const ScriptedServer server([](const Words& words) { return own_reply(words[1]); });
  for (const auto& [more, most] : cases) {
    start(server.addr());
    largest_write = 1;  // single commands are not counted
    set_writing(true);  // so that all of them queue
    for (std::size_t i = 0; i < more.size(); ++i) {
      call("k" + std::to_string(i), RUVO_OK, more[i]);
    }
    set_writing(false);
    join();
    EXPECT_EQ(largest_write, most);
  }
}

TEST_F(Pipeline, ACommandThatStallsFailsByItself) {
  std::mutex mutex;
  Words resent;  // guarded by mutex: over the second connection, in this order
  const ScriptedServer stalls([&](Peer& peer) {
    bool is_stalled = false;
    for (Words words = peer.read_command(); !words.empty(); words = peer.read_command()) {
      if (peer.number() == at_start) {
        const std::scoped_lock guard(mutex);
        resent.push_back(words[1]);
      }
      is_stalled = is_stalled || words[1] == "stall";
      peer.send(is_stalled ? "" : own_reply(words[1]));
    }
  });
  start(stalls.addr(), "socket_timeout = 300\neject_silent_servers = true");
  call("stall", RUVO_ERR_FAILED);
  for (const char* key : {"b", "c", "d"}) {
    call(key);
  }
  join();
  const std::scoped_lock guard(mutex);
  EXPECT_EQ(resent, (Words{"b", "c", "d", "stall"}));
  // Its connection is left for the next user to rebuild.
  EXPECT_EQ(log_.count_containing("reset connection"), 1);
  EXPECT_EQ(failures(0), 1);
}

TEST_F(Pipeline, OneEventCountsOnce) {
  const ScriptedServer silent(hang);
  start(silent.addr(), "socket_timeout = 200\neject_silent_servers = true");
  const auto begin = clock_type::now();
  for (const char* key : {"a", "b", "c", "d"}) {
    call(key, RUVO_ERR_FAILED);
  }
  join();
  expect_time(begin, milliseconds(390), milliseconds(1200));  // two sends, together
  EXPECT_EQ(failures(0), 1);
}

TEST_F(Pipeline, AStrayReplyShiftsOthersOnlyBriefly) {
  std::atomic<int> answered{0};
  const ScriptedServer talks([&](const Words& words) {
    return (++answered == 2000 ? own_reply("nobody's") : "") + own_reply(words[1]);
  });
  start(talks.addr());
  std::atomic<int> calls{0};
  std::atomic<int> right_since{0};  // the latest wrong reply
  Callers callers(4, [&](int) {
    const bool is_right = get(std::to_string(++calls)) == RUVO_OK;
    right_since = is_right ? right_since + 1 : 0;
    return is_right;
  });
  EXPECT_TRUE(eventually([&] { return answered >= 2000 && right_since >= 20000; }));
  callers.stop();
  EXPECT_EQ(log_.count_containing("err:unexpected data after the reply"), 1);
}

TEST_F(Pipeline, AConnectionKnownBySlowRepliesIsCheckedBeforeItIsUsedAgain) {
  std::binary_semaphore has_replied{0};
  const ScriptedServer talks([&](Peer& peer) {
    for (Words words = peer.read_command(); !words.empty(); words = peer.read_command()) {
      peer.send(own_reply(words[1]));
      if (words[1] == "first") {
        has_replied.acquire();
        peer.send(own_reply("nobody's"));
      }
    }
  });
  start(talks.addr());
  ASSERT_EQ(get("first"), RUVO_OK);
  has_replied.release();
  pollfd stray{slot().context_->fd, POLLIN, 0};
  ASSERT_EQ(poll(&stray, 1, 5000), 1);
  {
    const auto guard = locked();
    slot().pipeline_.shortest_round_trip = std::chrono::seconds(10);
    slot().pipeline_.last_check = clock_type::now() - check_interval;
  }
  EXPECT_EQ(get("second"), RUVO_OK);
}

TEST_F(Pipeline, NoCallGetsTheReplyOfOneThatGaveUp) {
  const ScriptedServer slow([&](const Words& words) {
    std::this_thread::sleep_for(milliseconds(words[1] == "slow" ? 1500 : 0));
    return own_reply(words[1]);
  });
  for (const bool is_followed : {true, false}) {
    start(slow.addr(), "socket_timeout = 6000\ncall_timeout = 1200");
    const auto begin = clock_type::now();
    call("slow", RUVO_ERR_FAILED);
    if (is_followed) {
      std::this_thread::sleep_for(milliseconds(600));
      call("behind");
    }
    threads_.front().join();
    expect_time(begin, milliseconds(1190), milliseconds(4500));
    join();
    EXPECT_EQ(get("next"), RUVO_OK);
    EXPECT_EQ(log_.count_containing("reset connection"), 0);
  }
}

TEST_F(Pipeline, TheDeadlineEndsEveryWait) {
  const ScriptedServer::Script silent_at_login = hang_at_later_login(at_start);
  // clang-format off
  const struct { const char* wait; ScriptedServer::Script server; std::string server_keys; const char* mode; int calls; } cases[] = {
      {"for a reply", hang, "", "true", 1},
      {"in the write queue", hang, "", "true", 40},
      {"for the lock", hang, "", "false", 3},
      {"for the password", silent_at_login, passwords, "true", 2},
      {"for the password", silent_at_login, passwords, "false", 1},
  };
  // clang-format on
  for (const auto& one : cases) {
    SCOPED_TRACE(one.wait);
    const ScriptedServer server(one.server);
    start(server.addr(), std::string("call_timeout = 300\nauto_pipelining = ") + one.mode,
          one.server_keys);
    for (int i = 0; i < one.calls; ++i) {
      threads_.emplace_back([this] {
        const auto begin = clock_type::now();
        EXPECT_EQ(get("k"), RUVO_ERR_FAILED);
        expect_time(begin, milliseconds(290), milliseconds(3000));
      });
    }
    join();
  }
}

TEST_F(Pipeline, TakesAFreeConnectionFirst) {
  std::atomic<bool> is_free{false};
  const ScriptedServer server([&](const Words& words) {
    if (words[1] == "held") {
      is_free.wait(false);
    }
    return own_reply(words[1]);
  });
  start(server.addr(), "", "p_connect_num = 2");
  call("held");
  EXPECT_EQ(get("a"), RUVO_OK);
  EXPECT_EQ(get("b"), RUVO_OK);  // the next one by round-robin is in use
  is_free = true;
  is_free.notify_all();
  join();
}

}  // namespace

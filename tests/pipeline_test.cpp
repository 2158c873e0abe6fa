// Calls that share a connection (auto_pipelining): which commands share a write, which wait, and
// which fail after a command that stalls, a connection that breaks or an unexpected reply.
#include "pipeline.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <mutex>

#include "client.h"
#include "servers.h"

namespace {

std::mutex mutex;
std::vector<std::size_t> batches;  // guarded by mutex: commands in one write

}  // namespace

// The library's writes of more than one command come here.
extern "C" ssize_t __real_sendmsg(int fd, const msghdr* message, int flags);
extern "C" ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
  const std::scoped_lock lock(mutex);
  batches.push_back(message->msg_iovlen);
  return __real_sendmsg(fd, message, flags);
}

namespace {

using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;
using Words = std::vector<std::string>;

constexpr int at_start = 3;  // connections: one to each pool

// Answers "GET k" with the key, so that another call's reply is noticed.
std::string own_reply(const std::string& key) {
  return "$" + std::to_string(key.size()) + "\r\n" + key + "\r\n";
}

// Lets the test decide when a server continues.
class Gate {
 public:
  void open() {
    is_open_ = true;
    is_open_.notify_all();
  }
  void pass() const { is_open_.wait(false); }

 private:
  std::atomic<bool> is_open_{false};
};

class Pipeline : public testing::Test {
 protected:
  ~Pipeline() override {
    join();
    batches.clear();
  }
  void start(const std::string& addr, const std::string& more = "", int connections = 1) {
    const HostConfig config("auto_pipelining = true\n" + more + "\n" + pools_at(addr, addr, addr),
                            "p_connect_num = " + std::to_string(connections));
    ASSERT_EQ(init_client(client_, config), RUVO_OK);
    log_.clear();
  }
  // RUVO_OK, or the call's result; -1000 if it got another call's reply.
  int get(const std::string& key, const std::string& more = "") {
    redisReply* reply = nullptr;
    const int ret = client_.do_exec_command(key.c_str(), reply, true, eTempServer, "GET %s%b",
                                            key.c_str(), more.data(), more.size());
    if (ret != RUVO_OK) {
      return ret;
    }
    const reply_ptr owner(reply);
    return key + more == std::string(reply->str, reply->len) ? RUVO_OK : -1000;
  }
  server_node& server() { return pool_in(client_).servers_.at(0); }
  conn_node& slot() { return server().context_arr_.at(0); }
  // Begins a call, and waits until it is at the slot, so that the next one queues behind it.
  void call(const std::string& key, int expected = RUVO_OK, const std::string& more = "") {
    threads_.emplace_back([this, key, expected, more] {
      EXPECT_EQ(get(key, more), expected) << key;
      ++ended_;
    });
    const auto has_come = [this] {
      const std::scoped_lock guard(*this);
      const pipeline_state& state = slot().pipeline_;
      const std::size_t waiting = state.unsent.size() + state.alone.size() + state.in_flight.size();
      return waiting + ended_ >= threads_.size();
    };
    ASSERT_TRUE(eventually(has_come)) << key;
  }
  void set_writing(bool is_writing) {
    const std::scoped_lock guard(*this);
    slot().pipeline_.is_writing = is_writing;
  }
  void lock() { slot().lock_->acquire(); }
  void unlock() { slot().lock_->release(); }
  friend class std::scoped_lock<Pipeline>;
  void join() {
    threads_.clear();
    ended_ = 0;
  }

  LogCapture log_{BaseLib::Logger::WARN};
  ruvo_redis client_;
  std::vector<std::jthread> threads_;
  std::atomic<std::size_t> ended_{0};
};

TEST_F(Pipeline, NoCallWaitsForARoundTripThatIsNotItsOwn) {
  constexpr std::size_t calls = 12;
  const ScriptedServer waits_for_all([](Peer& peer) {
    std::vector<std::string> keys;
    for (Words words = peer.read_command(); !words.empty(); words = peer.read_command()) {
      keys.push_back(words[1]);
      if (keys.size() == calls) {
        for (const std::string& key : keys) {
          peer.send(own_reply(key));
        }
      }
    }
  });
  start(waits_for_all.addr(), "socket_timeout = 10000");
  for (std::size_t i = 0; i < calls; ++i) {
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
  for (const auto& [more, most] : cases) {
    const ScriptedServer server([](const Words& words) { return own_reply(words[1]); });
    start(server.addr(), "socket_timeout = 10000");
    set_writing(true);  // so that all of them queue
    for (std::size_t i = 0; i < more.size(); ++i) {
      call("k" + std::to_string(i), RUVO_OK, more[i]);
    }
    set_writing(false);
    join();
    const std::scoped_lock guard(mutex);
    std::size_t largest = 1;  // single commands are not written here
    for (const std::size_t batch : batches) {
      largest = std::max(largest, batch);
    }
    EXPECT_EQ(largest, most);
    batches.clear();
    client_.fini();
  }
}

// The second connection shows the order of the commands that are resent.
TEST_F(Pipeline, ACommandThatStallsFailsByItself) {
  std::mutex order_mutex;
  std::vector<std::string> order;
  const ScriptedServer stalls([&](Peer& peer) {
    bool is_stalled = false;
    for (Words words = peer.read_command(); !words.empty(); words = peer.read_command()) {
      if (peer.number() == at_start) {
        const std::scoped_lock guard(order_mutex);
        order.push_back(words[1]);
      }
      is_stalled = is_stalled || words[1] == "stall";
      if (!is_stalled) {
        peer.send(own_reply(words[1]));
      }
    }
  });
  start(stalls.addr(), "socket_timeout = 300\neject_silent_servers = true");
  call("stall", RUVO_ERR_FAILED);
  for (const char* key : {"b", "c", "d"}) {
    call(key);
  }
  join();
  const std::scoped_lock guard(order_mutex);
  EXPECT_EQ(order, (Words{"b", "c", "d", "stall"}));
  EXPECT_EQ(log_.count_containing("reset connection"),
            1);  // the last one is left for its next user
  EXPECT_EQ(server().failure_count_, 1);
}

TEST_F(Pipeline, OneEventCountsOnce) {
  const ScriptedServer silent([](Peer& peer) { peer.hang(); });
  start(silent.addr(), "socket_timeout = 200\neject_silent_servers = true");
  const auto begin = clock_type::now();
  for (const char* key : {"a", "b", "c", "d"}) {
    call(key, RUVO_ERR_FAILED);
  }
  join();
  EXPECT_LT(clock_type::now() - begin, milliseconds(1200));  // two sends, together
  EXPECT_EQ(server().failure_count_, 1);
}

TEST_F(Pipeline, AStrayReplyShiftsOthersOnlyBriefly) {
  std::atomic<int> answered{0};
  const ScriptedServer talks([&](Peer& peer) {
    for (Words words = peer.read_command(); !words.empty(); words = peer.read_command()) {
      peer.send((++answered == 2000 ? own_reply("nobody's") : "") + own_reply(words[1]));
    }
  });
  start(talks.addr(), "socket_timeout = 10000");
  std::atomic<int> wrong{0};
  std::atomic<int> right_after{0};
  for (int i = 0; i < 4; ++i) {
    threads_.emplace_back([this, i, &wrong, &right_after](const std::stop_token& stop) {
      for (int round = 0; !stop.stop_requested(); ++round) {
        const bool is_wrong = get(std::to_string(i) + ":" + std::to_string(round)) != RUVO_OK;
        wrong += is_wrong ? 1 : 0;
        right_after = is_wrong ? 0 : right_after + 1;
      }
    });
  }
  const auto until = clock_type::now() + std::chrono::seconds(20);
  while ((answered < 2000 || right_after < 20000) && clock_type::now() < until) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  join();
  EXPECT_GE(right_after, 20000);
  EXPECT_EQ(log_.count_containing("err:unexpected data after the reply"), 1);
}

TEST_F(Pipeline, NoCallGetsTheReplyOfOneThatGaveUp) {
  const ScriptedServer slow([&](Peer& peer) {
    for (Words words = peer.read_command(); !words.empty(); words = peer.read_command()) {
      std::this_thread::sleep_for(milliseconds(words[1] == "slow" ? 500 : 0));
      peer.send(own_reply(words[1]));
    }
  });
  for (const bool is_followed : {true, false}) {
    start(slow.addr(), "socket_timeout = 2000\ncall_timeout = 400");
    const auto begin = clock_type::now();
    call("slow", RUVO_ERR_FAILED);
    if (is_followed) {
      std::this_thread::sleep_for(milliseconds(200));
      call("behind");
    }
    threads_.front().join();
    const auto took = clock_type::now() - begin;
    EXPECT_GE(took, milliseconds(390));
    EXPECT_LT(took, milliseconds(1500));
    join();
    EXPECT_EQ(get("next"), RUVO_OK);
    EXPECT_EQ(log_.count_containing("reset connection"), 0);
    client_.fini();
  }
}

// The places where a call may wait when its deadline comes.
TEST_F(Pipeline, TheDeadlineEndsEveryWait) {
  const auto silent = [](Peer& peer) { peer.hang(); };
  const ScriptedServer::Script silent_at_login = hang_at_later_login(at_start);
  const std::string login = "p_password = x\nt_password = x\nps_password = x";
  // clang-format off
  const struct { const char* wait; ScriptedServer::Script server; std::string server_keys; const char* mode; int calls; } cases[] = {
      {"for a reply", silent, "", "true", 1},
      {"in the write queue", silent, "", "true", 40},
      {"for the lock", silent, "", "false", 3},
      {"for the password", silent_at_login, login, "true", 2},
      {"for the password", silent_at_login, login, "false", 1},
  };
  // clang-format on
  for (const auto& one : cases) {
    SCOPED_TRACE(one.wait);
    const ScriptedServer server(one.server);
    ruvo_redis client;
    const HostConfig config(
        std::string("call_timeout = 300\nsocket_timeout = 10000\nauto_pipelining = ") + one.mode +
            "\n" + pools_at(server.addr(), server.addr(), server.addr()),
        one.server_keys);
    ASSERT_EQ(init_client(client, config), RUVO_OK);
    std::vector<std::jthread> threads;
    for (int i = 0; i < one.calls; ++i) {
      threads.emplace_back([&client] {
        const auto begin = clock_type::now();
        EXPECT_EQ(client.exists_key("k", eTempServer, nullptr), RUVO_ERR_FAILED);
        const auto took = clock_type::now() - begin;
        EXPECT_GE(took, milliseconds(290));
        EXPECT_LT(took, milliseconds(3000));
      });
    }
  }
}

TEST_F(Pipeline, TakesAFreeConnectionFirst) {
  Gate gate;
  const ScriptedServer server([&](const Words& words) {
    if (words[1] == "held") {
      gate.pass();
    }
    return own_reply(words[1]);
  });
  start(server.addr(), "socket_timeout = 10000", 2);
  call("held");
  EXPECT_EQ(get("a"), RUVO_OK);
  EXPECT_EQ(get("b"), RUVO_OK);  // the next one by round-robin is in use
  gate.open();
  join();
}

}  // namespace

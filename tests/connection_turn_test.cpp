// Threads that share the round trips of a connection (auto_pipelining).
#include "connection_turn.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <latch>
#include <map>
#include <numeric>

#include "client.h"
#include "failing_memory.h"
#include "servers.h"

namespace {

std::mutex mutex;
std::vector<std::size_t> batches;                 // guarded by mutex: commands in one write
std::atomic<std::size_t> most_at_once{SIZE_MAX};  // bytes that one sendmsg takes

}  // namespace

// The library's writes of more than one command come here.
extern "C" ssize_t __real_sendmsg(int fd, const msghdr* message, int flags);
extern "C" ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
  static thread_local bool interrupted = false;
  EXPECT_EQ(flags, MSG_NOSIGNAL);
  if (most_at_once == SIZE_MAX) {
    const std::scoped_lock lock(mutex);
    batches.push_back(message->msg_iovlen);
    return __real_sendmsg(fd, message, flags);
  }
  if (std::exchange(interrupted, !interrupted)) {
    errno = EINTR;
    return -1;
  }
  const iovec& first = message->msg_iov[0];
  return send(fd, first.iov_base, std::min(first.iov_len, most_at_once.load()), flags);
}

namespace {

constexpr int at_start = 3;  // connections: one to each pool
using Words = std::vector<std::string>;

// A gate that the server's answers wait at.
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

// Answers "GET k" with what the key is called, so that a reply of another call shows.
std::string own_reply(const Words& words) {
  const std::string& key = words.at(1);
  return "$" + std::to_string(key.size()) + "\r\n" + key + "\r\n";
}

class SharedTurns : public testing::Test {
 protected:
  SharedTurns() { batches.reserve(10000); }  // none is to be had where memory fails
  ~SharedTurns() override {
    most_at_once = SIZE_MAX;
    batches.clear();
  }
  void start(const std::string& addr, int connections = 1, int socket_timeout = 10000) {
    const HostConfig config(
        "auto_pipelining = true\nsocket_timeout = " + std::to_string(socket_timeout) + "\n" +
            pools_at(addr, addr, addr),
        "p_connect_num = " + std::to_string(connections) + "\np_auto_eject_server = false");
    ASSERT_EQ(init_client(client_, config), RUVO_OK);
    log_.clear();
  }
  // 0, or what the call returned; -1000 when it got the reply of another.
  int get(const std::string& key, const std::string& more = "") {
    redisReply* reply = nullptr;
    const int ret = client_.do_exec_command(key.c_str(), reply, true, eTempServer, "GET %s%b",
                                            key.c_str(), more.data(), more.size());
    if (ret != RUVO_OK) {
      return ret;
    }
    const reply_ptr owner(reply);
    return key + more == std::string(reply->str, reply->len) ? 0 : -1000;
  }
  conn_node& slot(std::size_t index = 0) {
    return pool_in(client_).servers_.at(0).context_arr_.at(index);
  }
  // Lets a thread call, and waits until it stands in line.
  template <typename Call>
  void queue_one(Call call) {
    const std::atomic_ref line(slot().line_);
    waiting_call* const newest = line.load();
    threads_.emplace_back(call);
    while (line.load() == newest) {
      std::this_thread::yield();
    }
  }
  void queue_up(const std::vector<std::string>& keys, int expected = RUVO_OK,
                const std::vector<std::string>& more = {}) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      queue_one([this, key = keys[i], tail = more.empty() ? "" : more[i], expected] {
        EXPECT_EQ(get(key, tail), expected) << key;
      });
    }
  }
  void join() { threads_.clear(); }

  LogCapture log_{BaseLib::Logger::WARN};
  ruvo_redis client_;
  std::vector<std::jthread> threads_;
};

std::vector<std::string> numbered(std::size_t count) {
  std::vector<std::string> keys(count);
  for (std::size_t i = 0; i < count; ++i) {
    keys[i] = "k" + std::to_string(i);
  }
  return keys;
}

TEST_F(SharedTurns, AreTakenInOrderOfArrivalAndWithinBounds) {
  const std::string half(40000, 'h');
  const std::string large(70000, 'l');
  const std::vector<std::string> small(200);
  // What stands behind each key, and the batches of more than one command.
  const std::vector<std::pair<std::vector<std::string>, std::vector<std::size_t>>> cases{
      {small, {128, 71}},
      {{"", half, half, half, ""}, {2}},
      {{"", "", large, "", ""}, {2}},
      {std::vector<std::string>(2), {}}};
  for (const auto& [more, expected] : cases) {
    Gate gate;
    std::vector<std::string> wire;
    const ScriptedServer server([&](const Words& words) {
      gate.pass();
      wire.push_back(words[1].substr(0, words[1].find_first_of("hl")));
      return own_reply(words);
    });
    ruvo_redis& client = client_;
    start(server.addr());
    const std::vector<std::string> keys = numbered(more.size());
    queue_up(keys, RUVO_OK, more);
    gate.open();
    join();
    EXPECT_EQ(wire, keys);
    EXPECT_EQ(std::exchange(batches, {}), expected);
    client.fini();
  }
}

TEST_F(SharedTurns, AreNotSharedByOneThreadNorWhereAConnectionIsFree) {
  Gate gate;
  const ScriptedServer server([&](const Words& words) {
    if (words[1] == "held") {
      gate.pass();
    }
    return own_reply(words);
  });
  start(server.addr(), 2);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(get("alone"), RUVO_OK);
  }
  queue_up({"held"});  // takes the first connection
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(get("free"), RUVO_OK);  // the second one, also when it is the turn of the first
  }
  EXPECT_EQ(batches.size(), 0U);
  EXPECT_EQ(slot(1).line_, nullptr);
  gate.open();
  join();
  EXPECT_EQ(slot().line_, nullptr);
}

// The first `replied` of a batch get their replies, then the connection breaks; so does the next,
// before any reply, when `twice`.
TEST_F(SharedTurns, OfABrokenConnectionAreSentOnceMoreOverOneNewOne) {
  for (const bool twice : {false, true}) {
    for (const int replied : {0, 1, 3}) {
      Gate gate;
      std::mutex guard;
      std::map<std::string, int> sent;
      const ScriptedServer server([&](Peer& peer) {
        int number = 0;
        for (auto words = peer.read_command(); !words.empty(); words = peer.read_command()) {
          {
            const std::scoped_lock lock(guard);
            ++sent[words[1]];
          }
          if (peer.number() == 0) {
            gate.pass();
          }
          if ((peer.number() == 0 && ++number == 2 + replied) ||
              (twice && peer.number() == at_start)) {
            return;
          }
          peer.send(own_reply(words));
        }
      });
      start(server.addr());
      const std::vector<std::string> keys = numbered(6);
      std::atomic<int> failed{0};
      queue_up({keys[0]});
      for (std::size_t i = 1; i < keys.size(); ++i) {
        queue_one([&, key = keys[i]] { failed += get(key) == RUVO_OK ? 0 : 1; });
      }
      gate.open();
      join();
      const std::scoped_lock lock(guard);
      for (std::size_t i = 0; i < keys.size(); ++i) {
        const bool is_replied = i <= static_cast<std::size_t>(replied);
        EXPECT_EQ(sent[keys[i]] <= (is_replied ? 1 : 2), true) << keys[i];
      }
      // What a second broken connection takes along are those that had been sent over it.
      EXPECT_EQ(failed == 0, !twice) << failed;
      EXPECT_LE(server.connections(), at_start + (twice ? 2 : 1));
      EXPECT_EQ(log_.count_containing("connection err,try reset"), 5 - replied);
      log_.clear();
      client_.fini();
    }
  }
}

TEST_F(SharedTurns, LeaveOutARefusedTemplateAndNoticeAConnectionOutOfStep) {
  Gate gate;
  const ScriptedServer server([&](const Words& words) {
    gate.pass();
    return own_reply(words) + (words[1] == "k2" ? "+of nobody\r\n" : "");
  });
  start(server.addr());
  queue_up({"k0", "k1", "k2"});
  queue_one([this] {
    redisReply* none = nullptr;
    EXPECT_EQ(client_.do_exec_command("r", none, false, eTempServer, "GET %z"), RUVO_ERR_FAILED);
  });
  gate.open();
  join();
  EXPECT_EQ(get("k3"), RUVO_OK);
  EXPECT_EQ(log_.count_containing("unexpected data after the reply"), 1);
}

TEST_F(SharedTurns, WaitForAServerThatHangsTogether) {
  using std::chrono::milliseconds;
  const ScriptedServer server([](Peer& peer) { peer.hang(); });
  const milliseconds socket_timeout(200);
  const int threads = 16;
  start(server.addr(), 1, static_cast<int>(socket_timeout.count()));
  const auto begin = std::chrono::steady_clock::now();
  queue_up(numbered(threads), RUVO_ERR_FAILED);
  join();
  // The first send of the first, its second with the first of the others, and their second: 3. One
  // after the other they would wait 32 times.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 6 * socket_timeout);
  EXPECT_LE(server.connections(), at_start + 4);
}

TEST_F(SharedTurns, ShareARebuildThatFailed) {
  Gate gate;
  ScriptedServer server([&](Peer& peer) {
    peer.read_command();
    gate.pass();
  });
  start(server.addr());
  queue_up(numbered(8), RUVO_ERR_FAILED);
  server.refuse();
  gate.open();
  join();
  EXPECT_EQ(log_.count_containing("null reply and reset connection to server"), 8);
  EXPECT_EQ(log_.count_containing("reset_connection | reset connection"), 1);
  EXPECT_EQ(slot().line_, nullptr);
}

// Whatever a leader has no memory for, those behind it get their replies: with its own, or sent
// once more over a new connection.
TEST_F(SharedTurns, LeaveNobodyWaitingWhenTheLeaderHasNoMemory) {
  const RedisServer redis;
  start(redis.addr());
  ASSERT_EQ(client_.insert_key("k", "value", 5, -1, eTempServer, nullptr), RUVO_OK);
  bool was_met = true;
  for (int number = 0; was_met; ++number) {
    const wire_command none = format_command("PING");
    connection_turn before(pool_in(client_).servers_.at(0), slot(), none, true);
    ASSERT_TRUE(before.wait());
    for (int i = 0; i < 4; ++i) {
      queue_one([&, i] {
        allocations = 0;
        failing_allocation = i == 0 ? number : -1;
        redisReply* reply = nullptr;
        const int ret = client_.do_exec_command("k", reply, true, eTempServer, "GET %s", "k");
        failing_allocation = -1;
        if (i == 0) {
          was_met = allocations > number;
        } else {
          EXPECT_EQ(ret, RUVO_OK);
        }
        const reply_ptr owner(reply);
      });
    }
    before.leave();
    join();
  }
}

TEST_F(SharedTurns, KeepRepliesApartUnderLoadAndPartialWrites) {
  const RedisServer redis;
  start(redis.addr(), 2);
  for (const std::size_t bytes : {SIZE_MAX, std::size_t{7}}) {
    most_at_once = bytes;
    std::latch together(12);
    for (int thread = 0; thread < 12; ++thread) {
      threads_.emplace_back([&, thread] {
        together.arrive_and_wait();
        for (int i = 0; i < 200; ++i) {
          const std::string key = std::to_string(thread) + ":" + std::to_string(i % 10);
          const std::string value = key + std::string(static_cast<std::size_t>(i * 13 % 3000), 'v');
          const char* data = nullptr;
          unsigned long length = 0;
          ASSERT_EQ(
              client_.insert_key(key.c_str(), value.data(), value.size(), -1, eTempServer, nullptr),
              RUVO_OK);
          ASSERT_EQ(client_.query_key(key.c_str(), &data, &length, eTempServer, nullptr), RUVO_OK);
          ASSERT_EQ(std::string(data, length), value);
          client_.free_result(data);
        }
      });
    }
    join();
  }
  EXPECT_EQ(log_.take().size(), 0U);
}

}  // namespace

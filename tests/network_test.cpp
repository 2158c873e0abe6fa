// A network that fails in every way: the result and the duration of a call.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "client.h"
#include "servers.h"
#include "sockets.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds C(100);  // connect_timeout
constexpr milliseconds S(100);  // socket_timeout
// Of a typed command; a raw one visits all three pools.
constexpr milliseconds bound(int servers) { return 2 * servers * (C + 6 * S); }
constexpr milliseconds raw_bound(int servers) { return bound(servers + 2); }

const std::string value(60, 'v');
const std::string reply = "$60\r\n" + value + "\r\n";

// Answers each command with this script.
template <typename Answer>
ScriptedServer::Script each(Answer answer) {
  return [answer](Peer& peer) {
    while (!peer.read_command().empty()) {
      answer(peer);
    }
  };
}

// A machine that accepts no more connections: its system drops the packets.
class FullServer : public DownServer {
 public:
  FullServer() {
    listen(fd_, 0);
    for (int& fd : waiting_) {
      fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      connect_to_loopback(fd, port());
    }
  }
  ~FullServer() {
    for (const int fd : waiting_) {
      close(fd);
    }
  }

 private:
  std::array<int, 2> waiting_{};
};

struct Row {
  const char* what;
  ScriptedServer::Script server;
  milliseconds least;     // what a visit costs according to the operations guide
  int result_alone;       // the result if there is no other server; with a good one it is 0
  bool has_bound = true;  // long replies may take up to S for each piece: no bound holds
};

class Network : public testing::Test {
 protected:
  // One typed call, whose time is checked.
  int query(milliseconds least, milliseconds most) {
    const char* data = nullptr;
    unsigned long len = 0;
    const Clock::time_point begin = Clock::now();
    const int ret = client_->query_key("k", &data, &len, eTempServer, nullptr);
    EXPECT_GE(Clock::now() - begin, least);
    EXPECT_LE(Clock::now() - begin, most);
    if (ret == 0) {
      EXPECT_EQ(std::string(data, len), value);
    }
    delete[] data;
    return ret;
  }
  // The same for a raw call; does it get a reply?
  bool query_raw(milliseconds most, ...) {
    va_list none;
    va_start(none, most);
    const Clock::time_point begin = Clock::now();
    const reply_ptr got(
        static_cast<redisReply*>(client_->exec_redis_cmd("GET k", none, eTempServer)));
    va_end(none);
    EXPECT_LE(Clock::now() - begin, most);
    if (got) {
      EXPECT_EQ(std::string(got->str, got->len), value);
    }
    return got != nullptr;
  }
  int start(const std::string& addrs) {
    client_ = std::make_unique<ruvo_redis>();
    return init_client(*client_, HostConfig("connect_timeout = 100\nsocket_timeout = 100\n" +
                                            pools_at(addrs, good_.addr(), good_.addr())));
  }

  ScriptedServer good_{reply};
  std::unique_ptr<ruvo_redis> client_;
  LogCapture log_;
};

TEST_F(Network, EveryFaultHasItsResultAndItsTime) {
  const Row rows[] = {
      {"is slow", each([](Peer& peer) { std::this_thread::sleep_for(S / 2), peer.send(reply); }),
       S / 2, 0},
      {"is slower than the timeout",
       each([](Peer& peer) { std::this_thread::sleep_for(3 * S), peer.send(reply); }), 2 * S, -1},
      {"drips, in time", each([](Peer& peer) { peer.drip(reply, milliseconds(5)); }),
       milliseconds(5) * 60, 0},
      {"drips for longer than the bound",
       each([](Peer& peer) { peer.drip(reply, milliseconds(25)); }), bound(1), 0, false},
      {"drips, too slowly", each([](Peer& peer) { peer.drip(reply.substr(0, 2), 3 * S); }), 2 * S,
       -1},
      {"cuts the reply",
       [](Peer& peer) { peer.read_command(), peer.send(reply.substr(0, 30)); },
       {},
       -1},
      {"resets before the reply", [](Peer& peer) { peer.read_command(), peer.reset(); }, {}, -1},
      {"resets at once", [](Peer& peer) { peer.reset(); }, {}, -1},
      {"swallows everything", [](Peer& peer) { peer.hang(); }, 2 * S, -1},
  };
  constexpr milliseconds no_bound = std::chrono::hours(1);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const ScriptedServer faulty(row.server);
    start(faulty.addr());
    EXPECT_EQ(query(row.least, row.has_bound ? bound(1) : no_bound), row.result_alone);
    EXPECT_EQ(query_raw(row.has_bound ? raw_bound(1) : no_bound), row.result_alone == 0);
    if (row.has_bound) {
      start(faulty.addr() + "," + good_.addr());
      EXPECT_EQ(query(row.least, bound(2)), 0);
      EXPECT_EQ(query({}, bound(2)), 0);  // round-robin chooses the good server
      // The temporary pool again, where round-robin chooses the good server, too.
      EXPECT_TRUE(query_raw(raw_bound(2)));
    }
  }
  EXPECT_EQ(log_.count_containing("invalid, failure count"), 0);  // all of them accept connections
}

TEST_F(Network, AMachineThatAcceptsNoConnectionIsEjected) {
  const FullServer full;
  EXPECT_EQ(start(full.addr()), 1);
  EXPECT_EQ(query(C, bound(1)), -1);
  EXPECT_FALSE(query_raw(raw_bound(1)));
  EXPECT_EQ(start(full.addr() + "," + good_.addr()), 0);
  for (int failure = 0; failure < 5; ++failure) {
    EXPECT_EQ(query(C, bound(2)), 0);
    EXPECT_EQ(query({}, bound(2)), 0);  // round-robin chooses the good server
  }
  log_.clear();
  EXPECT_EQ(query({}, bound(2)), 0);
  EXPECT_EQ(log_.count_containing("invalid, failure count:5"), 1);
}

}  // namespace

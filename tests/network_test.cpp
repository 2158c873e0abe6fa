// A network that fails in every way: the result and the duration of a call.
#include <unistd.h>

#include "client_test.h"
#include "sockets.h"

namespace {

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
  bool is_answered;       // if there is no other server; a good one answers
  bool has_bound = true;  // long replies may take up to S for each piece: no bound holds
};

class Network : public ClientTest {
 protected:
  // One call, typed or raw, whose reply and time are checked.
  void call(bool is_raw, bool is_answered, milliseconds least, milliseconds most) {
    SCOPED_TRACE(is_raw ? "raw" : "typed");
    redisReply* got = nullptr;
    const Clock::time_point begin = Clock::now();
    if (is_raw) {
      got = get_raw().release();
    } else {
      EXPECT_EQ(client_->do_exec_command("k", got, true, eTempServer, "GET k"),
                is_answered ? RUVO_OK : RUVO_ERR_FAILED);
    }
    EXPECT_GE(Clock::now() - begin, least);
    EXPECT_LE(Clock::now() - begin, most);
    const reply_ptr owner(got);
    EXPECT_EQ(got != nullptr ? std::string(got->str, got->len) : "", is_answered ? value : "");
  }
  void typed(bool is_answered, milliseconds least, milliseconds most) {
    call(false, is_answered, least, most);
  }
  void raw(bool is_answered, milliseconds most) { call(true, is_answered, {}, most); }
  int start(const std::string& addrs) {
    client_ = std::make_unique<ruvo_redis>();
    return init_client(*client_, HostConfig("connect_timeout = 100\nsocket_timeout = 100\n" +
                                            pools_at(addrs, good_.addr(), good_.addr())));
  }

  ScriptedServer good_{reply};
};

TEST_F(Network, EveryFaultHasItsResultAndItsTime) {
  const Row rows[] = {
      {"is slow", each([](Peer& peer) { std::this_thread::sleep_for(S / 2), peer.send(reply); }),
       S / 2, true},
      {"is slower than the timeout",
       each([](Peer& peer) { std::this_thread::sleep_for(3 * S), peer.send(reply); }), 2 * S,
       false},
      {"drips, in time", each([](Peer& peer) { peer.drip(reply, milliseconds(5)); }),
       milliseconds(5) * 60, true},
      {"drips for longer than the bound",
       each([](Peer& peer) { peer.drip(reply, milliseconds(25)); }), bound(1), true, false},
      {"drips, too slowly", each([](Peer& peer) { peer.drip(reply.substr(0, 2), 3 * S); }), 2 * S,
       false},
      {"cuts the reply",
       [](Peer& peer) { peer.read_command(), peer.send(reply.substr(0, 30)); },
       {},
       false},
      {"resets before the reply", [](Peer& peer) { peer.read_command(), peer.reset(); }, {}, false},
      {"resets at once", [](Peer& peer) { peer.reset(); }, {}, false},
      {"swallows everything", hang, 2 * S, false},
  };
  constexpr milliseconds no_bound = std::chrono::hours(1);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const ScriptedServer faulty(row.server);
    start(faulty.addr());
    typed(row.is_answered, row.least, row.has_bound ? bound(1) : no_bound);
    raw(row.is_answered, row.has_bound ? raw_bound(1) : no_bound);
    if (row.has_bound) {
      start(faulty.addr() + "," + good_.addr());
      typed(true, row.least, bound(2));
      typed(true, {}, bound(2));  // round-robin chooses the good server
      raw(true, raw_bound(2));    // round-robin leads its walk to the good server, too
    }
  }
  EXPECT_EQ(log_.count_containing("invalid, failure count"), 0);  // all of them accept connections
}

TEST_F(Network, AMachineThatAcceptsNoConnectionIsEjected) {
  const FullServer full;
  EXPECT_EQ(start(full.addr()), 1);
  typed(false, C, bound(1));
  raw(false, raw_bound(1));
  EXPECT_EQ(start(full.addr() + "," + good_.addr()), 0);
  for (int failure = 0; failure < 5; ++failure) {
    typed(true, C, bound(2));
    typed(true, {}, bound(2));  // round-robin chooses the good server
  }
  log_.clear();
  typed(true, {}, bound(2));
  EXPECT_EQ(log_.count_containing("invalid, failure count:5"), 1);
}

}  // namespace

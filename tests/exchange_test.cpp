// One command and one reply: what is sent, how a reply is read, and SIGPIPE.
#include "exchange.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>

#include "client_test.h"

namespace {
thread_local bool sends_in_pieces = false;
thread_local int sends = 0;
}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names, see --wrap
extern "C" ssize_t __real_send(int fd, const void* bytes, std::size_t length, int flags);
extern "C" ssize_t __wrap_send(int fd, const void* bytes, std::size_t length, int flags) {
  if (!sends_in_pieces) {
    return __real_send(fd, bytes, length, flags);
  }
  if (++sends % 2 == 0) {
    errno = EINTR;
    return -1;
  }
  return __real_send(fd, bytes, std::min<std::size_t>(length, 7), flags);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

const std::string broken = "ruvo_redis::do_exec_command | key:k, connection err,try reset,";

class Exchange : public ClientTest {};

TEST_F(Exchange, SendsTheRestAfterAPartAndAfterASignal) {
  const RedisServer redis;
  start(redis.addr());
  const std::string value = "from the first byte to the last";
  sends_in_pieces = true;
  EXPECT_EQ(client_->insert_key("k", value.data(), value.size(), -1, eTempServer, nullptr), 0);
  sends_in_pieces = false;
  EXPECT_GT(sends, 4);
  EXPECT_EQ(redis.ask("get k"), value);
  EXPECT_EQ(log_.count_containing("connection err"), 0);
}

TEST_F(Exchange, BytesBehindAReplyBreakTheConnection) {
  const ScriptedServer talks_too_much([](Peer& peer) {
    peer.read_command();
    peer.send(peer.number() == 0 ? ":1\r\n:1\r\n" : ":0\r\n");
    peer.answer_all(":0\r\n");
  });
  start(talks_too_much.addr());
  EXPECT_EQ(client_->exists_key("k", eTempServer, nullptr), RUVO_OK);  // as it was sent
  EXPECT_EQ(log_.count_containing("connection err"), 0);
  EXPECT_EQ(client_->exists_key("k", eTempServer, nullptr), RUVO_ABSENT);  // not the surplus reply
  EXPECT_EQ(log_.count(WARN, broken + "ret:4, err:unexpected data after the reply"), 1);
  EXPECT_EQ(client_->exists_key("k", eTempServer, nullptr), RUVO_ABSENT);
  EXPECT_EQ(talks_too_much.connections(), at_start + 1);
}

TEST_F(Exchange, ARefusedTemplateIsAnErrorOfTheConnection) {
  const RedisServer redis;
  start(redis.addr());
  EXPECT_EQ(get("k", eTempServer, "GET %y"), RUVO_ERR_FAILED);
  EXPECT_EQ(log_.count(WARN, broken + "ret:2, err:Invalid format string"), 1);
  EXPECT_EQ(client_->exists_key("k", eTempServer, nullptr), RUVO_ABSENT);
}

volatile std::sig_atomic_t raised = 0;

// Makes calls whose server vanishes after each answer; then writes to a pipe without a reader.
[[noreturn]] void lose_the_server_a_hundred_times() {
  std::atomic<int> gone{0};
  const ScriptedServer vanishes([&](Peer& peer) {
    peer.read_command();
    peer.send("+OK\r\n");
    peer.vanish();
    ++gone;
  });
  ruvo_redis client;
  init_client(client, HostConfig(all_pools_at(vanishes.addr())));
  const LogCapture log;
  for (int call = 0; call <= 100; ++call) {
    if (client.insert_key("k", "v", 1, -1, eTempServer, nullptr) != RUVO_OK ||
        !eventually([&] { return gone > call; })) {
      std::_Exit(1);
    }
  }
  // If the end of the connection is reported late, a read detects it instead of a write.
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

TEST(HostSignals, AHostSurvivesLostServersAndGetsItsOwnSigpipe) {
  EXPECT_EXIT((std::signal(SIGPIPE, SIG_DFL), lose_the_server_a_hundred_times()),
              testing::KilledBySignal(SIGPIPE), "lived");
  EXPECT_EXIT(
      (std::signal(SIGPIPE, [](int) { raised = raised + 1; }), lose_the_server_a_hundred_times()),
      testing::ExitedWithCode(0), "lived");
}

}  // namespace

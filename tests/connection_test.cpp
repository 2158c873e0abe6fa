// How far the opening of a connection gets, and the settings of a new connection.
#include "connection.h"

#include <sys/stat.h>

#include "client_test.h"

namespace {

constexpr timeval second{1, 0};
constexpr timeval moment{0, 200000};
constexpr timeval none{-1, 0};

const std::string two = "+OK\r\n+of another\r\n";  // the second was not requested
const std::string init_pool = "ruvo_redis::init_server_pool | ";

server_addr addr_of(const DownServer& server) {
  return {"127.0.0.1", static_cast<std::uint32_t>(server.port())};
}

TEST(Connection, ReportsHowFarOpeningGot) {
  const auto takes_secret = [](Peer& peer) {
    const bool right = peer.read_command() == std::vector<std::string>{"AUTH", "s3cret"};
    peer.send(right ? "+OK\r\n" : "-ERR invalid password\r\n");
    peer.hang();
  };
  const auto announces = [](const std::string& elements) {
    return [elements](Peer& peer) { peer.read_command(), peer.send("*" + elements + "\r\n"); };
  };
  // clang-format off
  const struct { ScriptedServer::Script server; std::string password; open_outcome outcome; std::string error; } cases[] = {
      {takes_secret, "s3cret", open_outcome::ready, ""}, {hang, "", open_outcome::ready, ""},
      {takes_secret, "wrong", open_outcome::refused, ""},
      {close_it, "x", open_outcome::closed, "Server closed the connection"},
      {[](Peer& peer) { peer.read_command(), peer.reset(); }, "x", open_outcome::closed, "Connection reset by peer"},
      {answer(two), "x", open_outcome::unreachable, "unexpected data after the reply"},
      {hang, "x", open_outcome::unanswered, "Resource temporarily unavailable"},
      {announces("16777216"), "x", open_outcome::closed, "Server closed the connection"},
      {announces("16777217"), "x", open_outcome::closed, "Out of memory"},
  };
  // clang-format on
  const LogCapture log;
  for (const auto& one : cases) {
    const ScriptedServer server(one.server);
    const timeval timeout = one.outcome == open_outcome::unanswered ? moment : timeval{10, 0};
    const opened_connection opened =
        open_connection(addr_of(server), {second, timeout, one.password});
    EXPECT_EQ(opened.outcome, one.outcome) << one.error;
    EXPECT_STREQ(error_text(opened.context.get()), one.error.c_str());
    EXPECT_EQ(log.count(ERROR, init_pool +
                                   "failed to authenticate redis, error passwd, redis_ip = "
                                   "127.0.0.1, redis_port = " +
                                   std::to_string(server.port()) + ", passwd = wrong"),
              one.outcome == open_outcome::refused);
  }
}

TEST(Connection, ReportsWhyAServerIsUnreachable) {
  const DownServer down;
  // clang-format off
  const struct { std::uint32_t port; const char* error; } cases[] = {
      {static_cast<std::uint32_t>(down.port()), "Connection refused"},
      {65536, "null redisContext"}, {3000000000, "null redisContext"},
  };
  // clang-format on
  for (const auto& one : cases) {
    const opened_connection opened = open_connection({"127.0.0.1", one.port}, {second, second, ""});
    EXPECT_EQ(opened.outcome, open_outcome::unreachable);
    EXPECT_STREQ(error_text(opened.context.get()), one.error);
  }
  // The highest port: whether or not a server is there, the library tries it.
  EXPECT_NE(open_connection({"127.0.0.1", 65535}, {second, second, ""}).context, nullptr);
}

TEST(Connection, TimeoutsAreIndependent) {
  const ScriptedServer silent(hang);
  for (const timeval& connect : {none, moment, second}) {
    for (const timeval& socket : {none, moment, second}) {
      const opened_connection opened = open_connection(addr_of(silent), {connect, socket, ""});
      EXPECT_EQ(opened.timeout_result.has_value(), socket.tv_sec >= 0);
      const int set = static_cast<int>(socket.tv_sec * 1000 + socket.tv_usec / 1000);
      EXPECT_NEAR(read_timeout(*opened.context), std::max(set, 0), 10);
    }
  }
}

// Identifies the socket: another one may get the number as soon as it is closed.
ino_t socket_at(int fd) {
  struct stat info {};
  return fstat(fd, &info) == 0 ? info.st_ino : 0;
}

// Another thread may have been changing it when the process forked.
TEST(Connection, AHalfChangedContextIsClosedAndNotFreed) {
  static int freed;
  redisReplyObjectFunctions counting{};
  counting.freeObject = [](void*) { ++freed; };
  const ScriptedServer silent(hang);
  const auto open = [&] { return open_connection(addr_of(silent), {second, second, ""}).context; };
  for (const bool is_half_changed : {true, false}) {
    freed = 0;
    conn_node slot;
    redisContext* const old = slot.context_ = open().release();
    const int fd = old->fd;
    const ino_t old_socket = socket_at(fd);
    ASSERT_NE(old_socket, 0U);
    old->reader->fn = &counting;
    old->reader->reply = &counting;
    slot.was_used_at_fork_ = is_half_changed;
    replace_context(slot, open());
    EXPECT_NE(socket_at(fd), old_socket);
    EXPECT_EQ(freed, is_half_changed ? 0 : 1);
    EXPECT_FALSE(slot.was_used_at_fork_);
    replace_context(slot, nullptr);
    if (is_half_changed) {
      old->fd = -1;
      redisFree(old);
    }
  }
}

// A server that does not answer its pool's password, or sends too much, keeps the slot.
class ConnectionOfAPool : public ClientTest {};

// A server that does not answer its pool's password, or sends too much, keeps the slot.
TEST_F(ConnectionOfAPool, KeepsItsSlotOnlyIfItMayRecover) {
  std::atomic<bool> answers{false};
  const ScriptedServer silent([&](Peer& peer) { peer.answer_all(answers ? "+OK\r\n" : ""); });
  const ScriptedServer closes(close_it);
  const ScriptedServer refuses{std::string("-ERR invalid password\r\n")};
  const ScriptedServer talks{two};
  const std::string addrs = silent.addr() + "," + closes.addr() + "," + refuses.addr() + "," +
                            down_.addr() + "," + talks.addr();
  const HostConfig config("socket_timeout = 200\n" + all_pools_at(addrs), passwords);
  EXPECT_EQ(init_client(*client_, config), RUVO_INIT_BOTH_POOLS_FAILED);
  const std::size_t slots[] = {1, 0, 0, 1, 1};
  for (std::size_t position = 0; position < 5; ++position) {
    EXPECT_EQ(server(position, ePersonalityServer).context_arr_.size(), slots[position])
        << position;
  }
  const auto failed_at = [this](const ScriptedServer& server, const std::string& why) {
    return log_.count(ERROR, init_pool + "connect to node 127.0.0.1 port:" +
                                 std::to_string(server.port()) + " failed, error code : " + why);
  };
  EXPECT_EQ(failed_at(silent, "Resource temporarily unavailable."), 3);
  EXPECT_EQ(failed_at(talks, "unexpected data after the reply."), 3);
  EXPECT_EQ(log_.count_containing("| connect to node"), 3 * 3);
  const auto rebuild = [this](std::size_t position) {
    return client_->reset_connection(server(position).context_arr_[0], server(position).addr_);
  };
  const auto context = [this](std::size_t position) {
    return server(position).context_arr_[0].context_;
  };
  EXPECT_EQ(rebuild(4), nullptr);
  EXPECT_TRUE(is_broken(context(4)));  // unchanged: no caller gets another's reply
  // Rebuilding does not wait any longer either, and works once the server answers.
  const redisContext* failed = context(0);
  EXPECT_EQ(rebuild(0), nullptr);
  EXPECT_EQ(context(0), failed);
  answers = true;
  EXPECT_NE(rebuild(0), nullptr);
  EXPECT_FALSE(is_broken(context(0)));
}

}  // namespace

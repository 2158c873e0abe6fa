// How far the opening of a connection gets, and the settings of a new connection.
#include "connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>

#include "client.h"
#include "servers.h"

namespace {

constexpr timeval second{1, 0};
constexpr timeval moment{0, 200000};
constexpr timeval none{-1, 0};

const std::string two = "+OK\r\n+of another\r\n";  // the second was not requested

constexpr auto ERROR = BaseLib::Logger::ERROR;

server_addr addr_of(const DownServer& server) {
  return {"127.0.0.1", static_cast<std::uint32_t>(server.port())};
}

TEST(Connection, ReportsHowFarOpeningGot) {
  const std::string secret = "s3cret";
  const auto takes_secret = [](Peer& peer) {
    const bool right = peer.read_command() == std::vector<std::string>{"AUTH", "s3cret"};
    peer.send(right ? "+OK\r\n" : "-ERR invalid password\r\n");
    peer.hang();
  };
  // clang-format off
  const struct { ScriptedServer::Script server; std::string password; open_outcome outcome; std::string error; } cases[] = {
      {takes_secret, secret, open_outcome::ready, ""},
      {[](Peer& peer) { peer.hang(); }, "", open_outcome::ready, ""},
      {takes_secret, "wrong", open_outcome::refused, ""},
      {[](Peer& peer) { peer.read_command(); }, secret, open_outcome::closed, "Server closed the connection"},
      {[](Peer& peer) { peer.read_command(), peer.reset(); }, secret, open_outcome::closed, "Connection reset by peer"},
      {[](Peer& peer) { peer.answer_all(two); }, secret, open_outcome::unreachable, "unexpected data after the reply"},
      {[](Peer& peer) { peer.hang(); }, secret, open_outcome::unanswered, "Resource temporarily unavailable"},
  };
  // clang-format on
  const LogCapture log;
  for (const auto& one : cases) {
    const ScriptedServer server(one.server);
    const opened_connection opened =
        open_connection(addr_of(server), {second, moment, one.password});
    EXPECT_EQ(opened.outcome, one.outcome) << one.error;
    EXPECT_STREQ(error_text(opened.context.get()), one.error.c_str());
    EXPECT_EQ(log.count(ERROR,
                        "ruvo_redis::init_server_pool | failed to authenticate redis, error "
                        "passwd, redis_ip = 127.0.0.1, redis_port = " +
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
  const ScriptedServer silent([](Peer& peer) { peer.hang(); });
  for (const timeval& connect : {none, moment, second}) {
    for (const timeval& socket : {none, moment, second}) {
      const opened_connection opened = open_connection(addr_of(silent), {connect, socket, ""});
      EXPECT_EQ(opened.timeout_result.has_value(), socket.tv_sec >= 0);
      timeval set{};
      socklen_t size = sizeof(set);
      getsockopt(opened.context->fd, SOL_SOCKET, SO_RCVTIMEO, &set, &size);
      EXPECT_EQ(set.tv_sec, socket.tv_sec > 0 ? socket.tv_sec : 0);
      EXPECT_NEAR(static_cast<double>(set.tv_usec), static_cast<double>(socket.tv_usec), 10000);
    }
  }
}

TEST(Connection, RefusesArraysAboveALimit) {
  // clang-format off
  const struct { std::string announced; std::string error; } cases[] = {
      {"*16777216\r\n", "Server closed the connection"}, {"*16777217\r\n", "Out of memory"},
  };
  // clang-format on
  for (const auto& one : cases) {
    const ScriptedServer server([&](Peer& peer) {
      peer.read_command();
      peer.send(one.announced);
    });
    const opened_connection opened = open_connection(addr_of(server), {second, second, ""});
    EXPECT_EQ(exchange(*opened.context, format_command("KEYS *")), nullptr);
    EXPECT_EQ(opened.context->errstr, one.error);
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
  const ScriptedServer silent([](Peer& peer) { peer.hang(); });
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
TEST(Connection, OnlyAConnectionThatMayRecoverKeepsItsSlot) {
  std::atomic<bool> answers{false};
  const ScriptedServer silent([&](Peer& peer) {
    if (answers) {
      peer.answer_all("+OK\r\n");
    }
    peer.hang();
  });
  const ScriptedServer closes([](Peer& peer) { peer.read_command(); });
  const ScriptedServer refuses{std::string("-ERR invalid password\r\n")};
  const DownServer down;
  const ScriptedServer talks{two};
  LogCapture log;
  {
    ruvo_redis client;
    const std::string addrs = silent.addr() + "," + closes.addr() + "," + refuses.addr() + "," +
                              down.addr() + "," + talks.addr();
    const HostConfig config(pools_at(addrs, addrs, addrs) + "socket_timeout = 200",
                            "p_password = x\nt_password = x\nps_password = x");
    EXPECT_EQ(init_client(client, config), RUVO_INIT_BOTH_POOLS_FAILED);
    server_pool& pool = pool_in(client, ePersonalityServer);
    const std::size_t slots[] = {1, 0, 0, 1, 1};
    for (std::size_t position = 0; position < 5; ++position) {
      EXPECT_EQ(pool.servers_[position].context_arr_.size(), slots[position]) << position;
    }
    const auto failed_at = [&log](const ScriptedServer& server, const std::string& why) {
      return log.count(ERROR, "ruvo_redis::init_server_pool | connect to node 127.0.0.1 port:" +
                                  std::to_string(server.port()) + " failed, error code : " + why);
    };
    EXPECT_EQ(failed_at(silent, "Resource temporarily unavailable."), 3);
    EXPECT_EQ(failed_at(talks, "unexpected data after the reply."), 3);
    EXPECT_EQ(log.count_containing("| connect to node"), 3 * 3);
    conn_node& talking = pool.servers_[4].context_arr_[0];
    EXPECT_EQ(client.reset_connection(talking, pool.servers_[4].addr_), nullptr);
    EXPECT_TRUE(is_broken(talking.context_));  // unchanged: no caller gets another's reply
    // Rebuilding does not wait any longer either, and works once the server answers.
    server_node& server = pool.servers_[0];
    const redisContext* failed = server.context_arr_[0].context_;
    EXPECT_EQ(client.reset_connection(server.context_arr_[0], server.addr_), nullptr);
    EXPECT_EQ(server.context_arr_[0].context_, failed);
    answers = true;
    EXPECT_NE(client.reset_connection(server.context_arr_[0], server.addr_), nullptr);
    EXPECT_FALSE(is_broken(server.context_arr_[0].context_));
  }
}

}  // namespace

// What most tests of the library's internals need: a client, its log, calls, scripts of servers.
#ifndef RUVO_TESTS_CLIENT_TEST_H
#define RUVO_TESTS_CLIENT_TEST_H

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdarg>
#include <memory>
#include <string>

#include "client.h"
#include "servers.h"

using std::chrono::milliseconds;
using enum BaseLib::Logger::LogLevel;

constexpr int at_start = 3;  // connections to a server: one for each pool
inline const std::string nil = "$-1\r\n";
// Each pool has one.
inline const std::string passwords = "p_password = x\nt_password = x\nps_password = x";

inline void close_it(Peer& peer) { peer.read_command(); }
inline void hang(Peer& peer) { peer.hang(); }
inline ScriptedServer::Script answer(const std::string& bytes) {
  return [bytes](Peer& peer) { peer.answer_all(bytes); };
}
// One script for the connections of start-up, another for later ones.
inline ScriptedServer::Script later(ScriptedServer::Script first, ScriptedServer::Script then) {
  return [first, then](Peer& peer) { (peer.number() < at_start ? first : then)(peer); };
}

// The timeout of a connection's reads, in milliseconds; the kernel rounds it.
inline int read_timeout(const redisContext& context) {
  timeval set{};
  socklen_t size = sizeof(set);
  getsockopt(context.fd, SOL_SOCKET, SO_RCVTIMEO, &set, &size);
  return static_cast<int>(set.tv_sec * 1000 + set.tv_usec / 1000);
}

class ClientTest : public testing::Test {
 protected:
  // Starts a new client with three equal pools. The log then begins anew.
  int start(const std::string& addrs, const std::string& common = "",
            const std::string& server = "") {
    client_ = std::make_unique<ruvo_redis>();
    const HostConfig config(common + "\n" + all_pools_at(addrs), server);
    const int ret = init_client(*client_, config);
    log_.clear();
    return ret;
  }
  // The result of a call.
  int get(const char* key = "k", int pool = eTempServer, const char* format = "GET %s") {
    redisReply* none = nullptr;
    return client_->do_exec_command(key, none, false, static_cast<RedisServerType>(pool), format,
                                    key);
  }
  // The reply to a raw call, or null.
  reply_ptr get_raw(const char* command = "GET k", ...) {
    va_list none;
    va_start(none, command);
    reply_ptr reply(static_cast<redisReply*>(client_->exec_redis_cmd(command, none, eTempServer)));
    va_end(none);
    return reply;
  }
  server_node& server(std::size_t position, RedisServerType pool = eTempServer) {
    return pool_in(*client_, pool).servers_.at(position);
  }
  int failures(std::size_t position) { return server(position).failure_count_; }

  DownServer down_;
  std::unique_ptr<ruvo_redis> client_ = std::make_unique<ruvo_redis>();
  LogCapture log_;
};

#endif

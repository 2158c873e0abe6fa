#include "server_states.h"

#include <unistd.h>

#include <stdexcept>

#include "sockets.h"

namespace {

template <typename Condition>
void wait_until(const char* what, const Condition& holds) {
  if (!eventually(holds)) {
    throw std::runtime_error(std::string("redis-server: ") + what);
  }
}

void follow(const ControlConnection& control, int port) {
  control.send("REPLICAOF 127.0.0.1 " + std::to_string(port));
}

}  // namespace

ControlConnection::ControlConnection(const RedisServer& server, const std::string& password)
    : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (!connect_to_loopback(fd_, server.port())) {
    close(fd_);
    throw std::runtime_error("no connection to a redis-server");
  }
  if (!password.empty()) {
    send("AUTH " + password);
  }
}

ControlConnection::~ControlConnection() { close(fd_); }

std::string ControlConnection::send(const std::string& command) const {
  const std::string line = command + "\r\n";
  ::send(fd_, line.data(), line.size(), MSG_NOSIGNAL);
  std::string reply;
  for (char one = '\0'; !reply.ends_with("\r\n"); reply += one) {
    if (recv(fd_, &one, 1, 0) != 1) {
      throw std::runtime_error("redis-server closes the connection on " + command);
    }
  }
  reply.resize(reply.size() - 2);
  if (reply.starts_with('-')) {
    throw std::runtime_error(command + ": " + reply);
  }
  return reply;
}

void become_replica(const RedisServer& server, const RedisServer& primary) {
  ControlConnection(primary).send("CONFIG SET repl-diskless-sync-delay 0");
  const ControlConnection control(server);
  follow(control, primary.port());
  wait_until("the replica has no copy", [&server] {
    return server.ask("info replication").find("master_link_status:up") != std::string::npos;
  });
  control.close_clients();
}

void become_replica_without_primary(const RedisServer& server) {
  const ControlConnection control(server);
  control.send("CONFIG SET replica-serve-stale-data no");
  follow(control, DownServer().port());
  control.close_clients();
}

void become_primary(const RedisServer& server) {
  ControlConnection(server).send("REPLICAOF NO ONE");
}

void want_password(const RedisServer& server, const std::string& password) {
  const ControlConnection control(server);  // earlier connections may continue
  control.send("CONFIG SET requirepass " + password);
  control.close_clients();
}

void want_no_password(const RedisServer& server, const std::string& password) {
  ControlConnection(server, password).send("CONFIG SET requirepass \"\"");
}

void restart_loading(RedisServer& server) {
  // While loading, Redis serves clients once per KiB, which is one of these keys.
  server.ask(
      "eval \"for i = 1, 6000 do redis.call('SET', 'filler:' .. i, string.rep('x', 1024)) end\" 0");
  server.ask("config set rdbcompression no");
  server.ask("save");
  server.kill();
  server.restart("--key-load-delay 10000 --loading-process-events-interval-bytes 1024",
                 RedisServer::Until::started);
  wait_until("it does not load",
             [&server] { return server.ask("get filler:1").find("LOADING") != std::string::npos; });
}

void finish_loading(const RedisServer& server) {
  ControlConnection(server).send("CONFIG SET key-load-delay 0");
  wait_until("it does not end loading", [&server] { return server.ask("exists filler:1") == "1"; });
}

ClientLimit::ClientLimit(const RedisServer& server, int clients, const std::string& password)
    : control_(server, password) {
  control_.send("CONFIG SET maxclients " + std::to_string(clients + 1));
  control_.close_clients();
}

ClientLimit::~ClientLimit() {
  try {
    control_.send("CONFIG SET maxclients 10000");
  } catch (const std::runtime_error&) {  // the server has been killed meanwhile
    return;
  }
}

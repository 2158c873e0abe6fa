// A real redis-server of the test's own, on a loopback port that the kernel handed out.
#ifndef RUVO_TESTS_REDIS_SERVER_H
#define RUVO_TESTS_REDIS_SERVER_H

#include <sys/types.h>

#include <string>
#include <vector>

class RedisServer {
 public:
  // Starts a server that keeps nothing on disk and waits until it serves. Throws std::runtime_error
  // when none can be started.
  explicit RedisServer(std::vector<std::string> options = {});
  ~RedisServer();
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  int port() const { return port_; }
  std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }

  void kill();     // with SIGKILL, as a crash would end it
  void restart();  // on the same port

 private:
  bool start();

  std::vector<std::string> options_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// A loopback port that is free now.
int free_port();

#endif

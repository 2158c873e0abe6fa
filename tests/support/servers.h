// Servers of the test's own, all on loopback ports that the kernel handed out: a real Redis, one
// that follows a script, and one that is down.
#ifndef RUVO_TESTS_SERVERS_H
#define RUVO_TESTS_SERVERS_H

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "no_copy.h"

// A port that refuses connections for as long as the object lives, and is nobody else's.
class DownServer : NoCopy {
 public:
  DownServer();
  ~DownServer();
  int port() const { return port_; }
  std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }

 protected:
  int fd_;
  int port_;
};

// A redis-server that keeps nothing on disk.
class RedisServer : NoCopy {
 public:
  explicit RedisServer(std::string options = "");
  ~RedisServer() { kill(); }
  int port() const { return port_; }
  std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }
  void kill();     // with SIGKILL, as a crash would end it
  void restart();  // on the same port
  // What redis-cli prints for a command, without the newline.
  std::string ask(const std::string& command) const;

 private:
  bool start();

  std::string options_;
  int port_ = 0;
  pid_t pid_ = -1;
  FILE* output_ = nullptr;
};

// One connection, seen from a scripted server.
class Peer : NoCopy {
 public:
  Peer(int fd, int number) : fd_(fd), number_(number), input_(fdopen(fd, "r")) {}
  ~Peer() { fclose(input_); }

  int number() const { return number_; }  // 0 for the first connection to the server
  // The words of the next command, or nothing when the client has gone.
  std::vector<std::string> read_command();
  void send(const std::string& bytes) const;
  void answer_all(const std::string& bytes);  // every command that comes
  void hang() { answer_all(""); }             // until the client gives up

 private:
  long read_number(char mark);

  int fd_;
  int number_;
  FILE* input_;
};

// Runs a script for every connection, each in a thread of its own, and closes it when that returns.
class ScriptedServer : public DownServer {
 public:
  using Script = std::function<void(Peer&)>;
  explicit ScriptedServer(Script script);
  explicit ScriptedServer(const std::string& reply) : ScriptedServer([reply](Peer& peer) { peer.answer_all(reply); }) {}
  ~ScriptedServer();
  int connections() const { return connections_; }

 private:
  void accept_all();

  Script script_;
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  std::set<int> open_;  // guarded by mutex_
  std::vector<std::jthread> threads_;
  std::jthread acceptor_;
};

#endif

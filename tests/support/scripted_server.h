// A server that speaks as much Redis as its script makes it, for replies and failures that a real
// one will not give.
#ifndef RUVO_TESTS_SCRIPTED_SERVER_H
#define RUVO_TESTS_SCRIPTED_SERVER_H

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

// One connection, seen from the server.
class Peer {
 public:
  Peer(int fd, int number) : fd_(fd), number_(number) {}

  int number() const { return number_; }  // 0 for the first connection to the server

  // The words of the next command, or nothing when the client has gone.
  std::vector<std::string> read_command();
  void send(const std::string& bytes) const;
  // Answers every command that comes with the same bytes.
  void answer_all(const std::string& bytes);
  // Never answers: returns when the client has given up.
  void hang();

 private:
  int read_byte();
  std::string read_line();

  int fd_;
  int number_;
  std::string buffer_;
  std::size_t position_ = 0;
};

class ScriptedServer {
 public:
  // Runs the script for every connection, each in a thread of its own; the connection is closed
  // when the script returns.
  using Script = std::function<void(Peer&)>;

  explicit ScriptedServer(Script script);
  // Answers everything with the same bytes.
  explicit ScriptedServer(const std::string& reply)
      : ScriptedServer([reply](Peer& peer) { peer.answer_all(reply); }) {}
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }
  int connections() const { return connections_; }

 private:
  void accept_all();

  Script script_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  std::set<int> open_;  // guarded by mutex_
  std::vector<std::jthread> threads_;
  std::jthread acceptor_;
};

#endif

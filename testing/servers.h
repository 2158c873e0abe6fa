// Servers on free loopback ports: one that follows a script, and a nutcracker. fixtures.h has a
// real Redis and a port that refuses connections.
#ifndef RUVO_TESTING_SERVERS_H
#define RUVO_TESTING_SERVERS_H

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fixtures.h"

// One connection, as a scripted server sees it.
class Peer : NoCopy {
 public:
  Peer(int fd, int number) : fd_(fd), number_(number), input_(fdopen(fd, "r")) {}
  ~Peer() { (void)fclose(input_); }

  int number() const { return number_; }  // 0 for the first connection to the server
  // The words of the next command, or nothing if the client has closed.
  std::vector<std::string> read_command();
  void send(const std::string& bytes) const;
  void answer_all(const std::string& bytes);  // every command that arrives
  void hang() { answer_all(""); }             // until the client gives up
  void drip(const std::string& bytes, std::chrono::milliseconds pause) const;  // byte by byte
  void reset() const;   // as a crashed machine does: sent data may be lost
  void vanish() const;  // closes, then resets: the client's next write raises SIGPIPE

 private:
  long read_number(char mark);

  int fd_;
  int number_;
  FILE* input_;
};

// Runs a script for every connection, each in its own thread, and closes the connection afterwards.
class ScriptedServer : public DownServer {
 public:
  using Script = std::function<void(Peer&)>;
  explicit ScriptedServer(Script script);
  // Answers each command with what this function makes of its words.
  using Answer = std::function<std::string(const std::vector<std::string>& words)>;
  explicit ScriptedServer(const Answer& answer);
  explicit ScriptedServer(const std::string& reply)
      : ScriptedServer([reply](Peer& peer) { peer.answer_all(reply); }) {}
  ~ScriptedServer();
  int connections() const { return connections_; }
  void refuse();  // further connections

 private:
  void accept_all();

  Script script_;
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  std::set<int> open_;                   // guarded by mutex_, like the next two
  std::map<int, std::jthread> threads_;  // by number of the connection
  std::vector<std::jthread> ended_;      // or about to end
  std::jthread acceptor_;
};

// Accepts the password of the first connections and closes them on the next command. Never answers
// the password of later ones.
ScriptedServer::Script hang_at_later_login(int first_connections);

// The proxy nutcracker, which distributes the keys over Redis servers. Proxies with the same list
// agree on the server of each key.
class Nutcracker : NoCopy {
 public:
  explicit Nutcracker(const std::vector<std::string>& shards);
  std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }
  void kill() { process_.kill(); }
  void restart();  // on the same port

 private:
  bool start();

  TempDir dir_;
  std::vector<std::string> shards_;
  int port_ = 0;
  ServerProcess process_;
};

#endif

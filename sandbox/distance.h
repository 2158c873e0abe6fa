// A network between a client and a server on loopback: data takes time to arrive.
#ifndef RUVO_SANDBOX_DISTANCE_H
#define RUVO_SANDBOX_DISTANCE_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>

#include "sandbox.h"

// Forwards connections to a port on loopback. Each piece of data arrives so much later, whatever
// else is on its way; what is under way when either end closes is lost. It waits until the receiver
// has taken a piece, so it is not for more than the buffers of a socket hold.
//
// One thread does it for all connections. A round trip costs that thread some 15 us of processor
// time, which is the machine's limit where client, server and network share two processors.
class Distance : public DownServer {
 public:
  Distance(int port, std::chrono::microseconds each_way);
  ~Distance();

 private:
  using Clock = std::chrono::steady_clock;
  // Both ends of a connection, in each direction.
  struct Connection;
  struct Piece {
    Clock::time_point arrives;
    std::shared_ptr<Connection> connection;
    int to;
    std::string bytes;
  };

  void forward_all();
  void wait_for(int fd) const;
  bool take_connection();  // false when the object goes
  void take_from(int fd, Clock::time_point arrives);
  void forget(const Connection& connection);
  void deliver();

  int target_port_;
  std::chrono::microseconds each_way_;
  int epoll_;
  std::unordered_map<int, std::shared_ptr<Connection>> connections_;  // by either socket
  std::deque<Piece> under_way_;  // all take as long, so they arrive in the order of their sending
  std::jthread forwarder_;
};

#endif

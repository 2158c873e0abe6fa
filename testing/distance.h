// A way to a server on loopback that takes time, as one through a network does.
#ifndef RUVO_TESTING_DISTANCE_H
#define RUVO_TESTING_DISTANCE_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <list>
#include <string>
#include <thread>

#include "fixtures.h"

// Forwards connections to a port on loopback. Each piece of data arrives so much later, whatever
// else is on its way; what is under way when either end closes is lost. It waits until the receiver
// has taken a piece, so it is not for more than the buffers of a socket hold.
class Distance : public DownServer {
 public:
  Distance(int port, std::chrono::microseconds each_way);
  ~Distance();

 private:
  using Clock = std::chrono::steady_clock;
  struct Piece {
    Clock::time_point arrives;
    std::string bytes;
  };
  struct Way {
    int from;
    int to;
    std::deque<Piece> pieces;
  };
  struct Connection {
    Way there;
    Way back;
  };

  void forward_all();
  bool take_connection();  // false when the object goes
  bool take_from(Way& way);
  void deliver();
  Clock::time_point next_arrival() const;

  int target_port_;
  std::chrono::microseconds each_way_;
  std::list<Connection> connections_;
  std::jthread forwarder_;
};

#endif

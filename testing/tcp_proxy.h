// A TCP proxy on loopback that delays what it forwards, and fails in every way that a server does.
#ifndef RUVO_TESTING_TCP_PROXY_H
#define RUVO_TESTING_TCP_PROXY_H

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <semaphore>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "fixtures.h"

// Runs in a thread of its own; its functions are for one thread at a time, and return when they are
// done. Data in transit when either end closes is lost. The proxy waits until the receiver has
// taken the data that it forwards, so use it only for data that fits the buffers of a socket.
class TcpProxy : public DownServer {
 public:
  enum class Mode {
    forward,
    refuse,   // a crash: closes its connections and refuses new ones
    hang,     // the system accepts connections for it; nothing is read
    swallow,  // accepts connections and commands, and answers nothing
    end
  };

  // Each piece of data arrives `delay` later, whatever else is in transit.
  explicit TcpProxy(int target_port, std::chrono::microseconds delay = {});
  ~TcpProxy();

  // With `forward` again, it resets its connections: commands that their callers have given up must
  // not run late, after newer ones, since they would bring old values back.
  void set_mode(Mode mode);
  // Resets all connections, even those that the system has accepted but the proxy has not.
  // REQUIRES: mode `forward`.
  void reset_connections();

  // Later connections lead to this port. Resets the others. REQUIRES: mode `forward`.
  void set_target(int port);
  // The last served connection gets no more replies; its commands are still carried out. Ends when
  // its client gives up, or with end_stall(), which resets it.
  void stall_connection();
  void end_stall();
  // Sends the last served client these bytes, which it has not asked for.
  void add_reply(const std::string& bytes);

 private:
  using Clock = std::chrono::steady_clock;
  struct Connection {
    int client;
    int target;
  };
  struct Piece {
    Clock::time_point arrives;
    int to;
    std::string bytes;
  };

  void run_in_forwarder(const std::function<void()>& action);
  void forward_all();
  std::span<const epoll_event> wait_for_events();
  void watch(int fd, std::uint32_t events) const;
  void accept_connection();
  void take_from(const epoll_event& event);
  bool forward(int from, int to);  // false: the sender has closed
  void pass_on(int to, std::string_view bytes);
  void deliver();
  void close_connection(const Connection& one);
  void close_all();
  void reset_all();
  void start_listening();
  void stop_listening();

  int target_port_;
  std::chrono::microseconds delay_;
  int wake_up_;  // an eventfd: there is an action
  int epoll_;    // many idle connections cost no more than a few
  std::atomic<const std::function<void()>*> action_{nullptr};
  std::binary_semaphore action_done_{0};
  // Used by the forwarder:
  Mode mode_ = Mode::forward;
  bool listens_ = false;
  std::unordered_map<int, Connection> connections_;  // by either socket
  int served_last_ = -1;                             // a client, like the next one
  int stalled_ = -1;
  std::array<epoll_event, 256> events_{};
  std::deque<Piece> pieces_;  // in the order of arrival
  std::array<char, 65536> buffer_{};
  std::jthread forwarder_;
};

#endif

#include "distance.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <vector>

namespace {

constexpr int waiting_connections = 1024;

void send_at_once(int fd) {
  const int yes = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
}

timespec as_timespec(std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {seconds.count(), (time - seconds).count()};
}

}  // namespace

Distance::Distance(int port, std::chrono::microseconds each_way)
    : target_port_(port), each_way_(each_way) {
  if (listen(fd_, waiting_connections) != 0) {
    throw std::runtime_error("the way to a server cannot listen");
  }
  forwarder_ = std::jthread([this] { forward_all(); });
}

Distance::~Distance() {
  shutdown(fd_, SHUT_RDWR);
  forwarder_.join();
  for (const Connection& one : connections_) {
    close(one.there.from);
    close(one.there.to);
  }
}

void Distance::forward_all() {
  prctl(PR_SET_TIMERSLACK, 1UL);  // or each piece comes 50 us late
  for (;;) {
    std::vector<pollfd> waits{{fd_, POLLIN, 0}};
    for (const Connection& one : connections_) {
      waits.push_back({one.there.from, POLLIN, 0});
      waits.push_back({one.back.from, POLLIN, 0});
    }
    const Clock::time_point next = next_arrival();
    std::optional<timespec> pause;
    if (next != Clock::time_point::max()) {
      pause = as_timespec(std::max(next - Clock::now(), Clock::duration(0)));
    }
    ppoll(waits.data(), waits.size(), pause ? &*pause : nullptr, nullptr);
    deliver();
    const pollfd* events = waits.data() + 1;
    std::erase_if(connections_, [this, &events](Connection& one) {
      const bool client = events++->revents != 0;
      const bool server = events++->revents != 0;
      const bool goes_on = (!client || take_from(one.there)) && (!server || take_from(one.back));
      if (!goes_on) {
        close(one.there.from);
        close(one.there.to);
      }
      return !goes_on;
    });
    if (waits[0].revents != 0 && !take_connection()) {
      return;
    }
  }
}

bool Distance::take_connection() {
  const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (client == -1) {
    return false;
  }
  send_at_once(client);
  const int server = connect_to_loopback(target_port_);
  if (server == -1) {
    close(client);
  } else {
    send_at_once(server);
    connections_.push_back({{client, server, {}}, {server, client, {}}});
  }
  return true;
}

bool Distance::take_from(Way& way) {
  std::array<char, 16384> buffer{};
  const ssize_t length = recv(way.from, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (length > 0) {
    way.pieces.push_back(
        {Clock::now() + each_way_, std::string(buffer.data(), static_cast<std::size_t>(length))});
  }
  return length > 0;
}

void Distance::deliver() {
  const Clock::time_point now = Clock::now();
  for (Connection& one : connections_) {
    for (Way* way : {&one.there, &one.back}) {
      for (; !way->pieces.empty() && way->pieces.front().arrives <= now; way->pieces.pop_front()) {
        const std::string& bytes = way->pieces.front().bytes;
        send(way->to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      }
    }
  }
}

Distance::Clock::time_point Distance::next_arrival() const {
  Clock::time_point next = Clock::time_point::max();
  for (const Connection& one : connections_) {
    for (const Way* way : {&one.there, &one.back}) {
      if (!way->pieces.empty()) {
        next = std::min(next, way->pieces.front().arrives);
      }
    }
  }
  return next;
}

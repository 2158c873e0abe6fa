#include "distance.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <utility>

namespace {

constexpr int waiting_connections = 1024;

void send_at_once(int fd) {
  const int yes = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
}

int connect_to_loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    close(fd);
    return -1;
  }
  send_at_once(fd);
  return fd;
}

timespec as_timespec(std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {seconds.count(), (time - seconds).count()};
}

}  // namespace

struct Distance::Connection : ::NoCopy {
  Connection(int client_fd, int server_fd) : client(client_fd), server(server_fd) {}
  ~Connection() {
    close(client);
    close(server);
  }
  int client;
  int server;
};

Distance::Distance(int port, std::chrono::microseconds each_way)
    : target_port_(port), each_way_(each_way), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll_ == -1 || listen(fd_, waiting_connections) != 0) {
    throw std::runtime_error("the network to a server cannot listen");
  }
  wait_for(fd_);
  forwarder_ = std::jthread([this] { forward_all(); });
}

Distance::~Distance() {
  shutdown(fd_, SHUT_RDWR);
  forwarder_.join();
  close(epoll_);
}

void Distance::wait_for(int fd) const {
  epoll_event event{.events = EPOLLIN, .data = {.fd = fd}};
  epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
}

void Distance::forward_all() {
  prctl(PR_SET_TIMERSLACK, 1UL);  // or each piece comes 50 us late
  std::array<epoll_event, 256> events{};
  for (;;) {
    std::optional<timespec> pause;
    if (!under_way_.empty()) {
      pause = as_timespec(std::max(under_way_.front().arrives - Clock::now(), Clock::duration(0)));
    }
    const int ready = epoll_pwait2(epoll_, events.data(), static_cast<int>(events.size()),
                                   pause ? &*pause : nullptr, nullptr);
    const Clock::time_point arrives = Clock::now() + each_way_;
    for (int i = 0; i < ready; ++i) {
      const int fd = events[static_cast<std::size_t>(i)].data.fd;
      if (fd != fd_) {
        take_from(fd, arrives);
      } else if (!take_connection()) {
        return;
      }
    }
    deliver();
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
    return true;
  }
  const auto connection = std::make_shared<Connection>(client, server);
  for (const int fd : {client, server}) {
    connections_[fd] = connection;
    wait_for(fd);
  }
  return true;
}

void Distance::take_from(int fd, Clock::time_point arrives) {
  const auto found = connections_.find(fd);
  if (found == connections_.end()) {
    return;  // the other end of it has just gone
  }
  const std::shared_ptr<Connection> connection = found->second;
  const int to = fd == connection->client ? connection->server : connection->client;
  std::array<char, 16384> buffer;  // NOLINT: filled by recv
  const ssize_t length = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (length > 0) {
    under_way_.push_back(
        {arrives, connection, to, std::string(buffer.data(), static_cast<std::size_t>(length))});
  } else if (length == 0 || errno != EAGAIN) {
    forget(*connection);
  }
}

void Distance::forget(const Connection& connection) {
  for (const int end : {connection.client, connection.server}) {
    shutdown(end, SHUT_RDWR);
    epoll_ctl(epoll_, EPOLL_CTL_DEL, end, nullptr);
    connections_.erase(end);
  }
}

void Distance::deliver() {
  const Clock::time_point now = Clock::now();
  for (; !under_way_.empty() && under_way_.front().arrives <= now; under_way_.pop_front()) {
    const Piece& piece = under_way_.front();
    send(piece.to, piece.bytes.data(), piece.bytes.size(), MSG_NOSIGNAL);
  }
}

#include "tcp_proxy.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "sockets.h"

namespace {

constexpr int backlog = 1024;  // more than any run has, so that no connection is refused

void send_at_once(int fd) {
  const int yes = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
}

timespec as_timespec(std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {seconds.count(), (time - seconds).count()};
}

}  // namespace

TcpProxy::TcpProxy(int target_port, std::chrono::microseconds delay)
    : target_port_(target_port),
      delay_(delay),
      wake_up_(eventfd(0, EFD_CLOEXEC)),
      epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  start_listening();
  watch(fd_, EPOLLIN);
  watch(wake_up_, EPOLLIN);
  forwarder_ = std::jthread([this] { forward_all(); });
}

TcpProxy::~TcpProxy() {
  set_mode(Mode::end);
  forwarder_.join();
  close(epoll_);
  close(wake_up_);
}

void TcpProxy::run_in_forwarder(const std::function<void()>& action) {
  action_ = &action;
  eventfd_write(wake_up_, 1);
  action_done_.acquire();
}

void TcpProxy::set_mode(Mode mode) {
  run_in_forwarder([this, mode] {
    mode_ = mode;
    if (mode == Mode::forward) {
      reset_all();
    } else if (mode == Mode::refuse || mode == Mode::end) {
      close_all();
      stop_listening();
    }
  });
}

void TcpProxy::reset_connections() {
  run_in_forwarder([this] { reset_all(); });
}

void TcpProxy::set_target(int port) {
  run_in_forwarder([this, port] {
    target_port_ = port;
    reset_all();
  });
}

void TcpProxy::stall_connection() {
  run_in_forwarder([this] { stalled_ = served_last_; });
}

void TcpProxy::end_stall() {
  run_in_forwarder([this] {
    if (stalled_ != -1) {
      reset_on_close(stalled_);
      close_connection(Connection(connections_.at(stalled_)));
    }
  });
}

void TcpProxy::add_reply(const std::string& bytes) {
  run_in_forwarder([this, &bytes] {
    if (served_last_ != -1) {
      pass_on(served_last_, bytes);
    }
  });
}

void TcpProxy::forward_all() {
  prctl(PR_SET_TIMERSLACK, 1UL);  // else each piece would arrive 50 us late
  while (mode_ != Mode::end) {
    const std::span<const epoll_event> events = wait_for_events();
    const auto is_of = [](int fd) {
      return [fd](const epoll_event& one) { return one.data.fd == fd; };
    };
    if (std::any_of(events.begin(), events.end(), is_of(wake_up_))) {
      eventfd_t count = 0;
      eventfd_read(wake_up_, &count);
      (*action_.load())();
      action_done_.release();
      continue;  // any other event is reported again if it still holds
    }
    for (const epoll_event& event : events) {
      if (event.data.fd != fd_) {
        take_from(event);
      }
    }
    deliver();
    if (std::any_of(events.begin(), events.end(), is_of(fd_))) {
      // Last, since the connection may get the number of a socket that was just closed.
      accept_connection();
    }
  }
}

std::span<const epoll_event> TcpProxy::wait_for_events() {
  if (mode_ != Mode::forward && mode_ != Mode::swallow) {  // nothing is read
    pollfd action{wake_up_, POLLIN, 0};
    poll(&action, 1, -1);
    events_[0] = {.events = EPOLLIN, .data = {.fd = wake_up_}};
    return std::span(events_).first(1);
  }
  const int max_events = static_cast<int>(events_.size());
  int count = 0;
  if (mode_ == Mode::forward && !pieces_.empty()) {
    const timespec pause =
        as_timespec(std::max(pieces_.front().arrives - Clock::now(), Clock::duration(0)));
    count = epoll_pwait2(epoll_, events_.data(), max_events, &pause, nullptr);
  } else {  // qemu-user does not know epoll_pwait2
    count = epoll_wait(epoll_, events_.data(), max_events, -1);
  }
  return std::span(events_).first(static_cast<std::size_t>(std::max(count, 0)));
}

void TcpProxy::watch(int fd, std::uint32_t events) const {
  epoll_event event{.events = events, .data = {.fd = fd}};
  epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
}

void TcpProxy::accept_connection() {
  const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (client == -1) {
    return;
  }
  const int target = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  send_at_once(client);
  send_at_once(target);
  if (!connect_to_loopback(target, target_port_)) {
    reset_on_close(client);
    close(client);
    close(target);
    return;
  }
  connections_[client] = connections_[target] = {client, target};
  watch(client, EPOLLIN | EPOLLRDHUP);
  watch(target, EPOLLIN);
}

void TcpProxy::take_from(const epoll_event& event) {
  const int from = event.data.fd;
  const auto found = connections_.find(from);
  if (found == connections_.end()) {
    return;  // the other side has just closed
  }
  const Connection connection = found->second;
  // A client that has closed has given up its command, and may have sent it elsewhere.
  const bool client_has_gone =
      from == connection.client && (event.events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  const int to = from == connection.client ? connection.target : connection.client;
  if (client_has_gone || !forward(from, to)) {
    close_connection(connection);
  } else if (to == connection.client && to != stalled_) {
    served_last_ = to;
  }
}

bool TcpProxy::forward(int from, int to) {
  const ssize_t length = recv(from, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
  if (length > 0 && mode_ == Mode::forward && to != stalled_) {
    pass_on(to, {buffer_.data(), static_cast<std::size_t>(length)});
  }
  return length > 0;
}

void TcpProxy::pass_on(int to, std::string_view bytes) {
  if (delay_.count() > 0) {
    pieces_.push_back({Clock::now() + delay_, to, std::string(bytes)});
  } else {  // not queued: ruvo_chaos would count the memory as the library's
    send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
}

void TcpProxy::deliver() {
  const Clock::time_point now = Clock::now();
  for (; mode_ == Mode::forward && !pieces_.empty() && pieces_.front().arrives <= now;
       pieces_.pop_front()) {
    const Piece& piece = pieces_.front();
    send(piece.to, piece.bytes.data(), piece.bytes.size(), MSG_NOSIGNAL);
  }
}

void TcpProxy::close_connection(const Connection& one) {
  std::erase_if(pieces_, [&one](const Piece& piece) {
    return piece.to == one.client || piece.to == one.target;
  });
  for (const int fd : {one.client, one.target}) {
    epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
    close(fd);
    connections_.erase(fd);
    for (int* const marked : {&served_last_, &stalled_}) {
      *marked = *marked == fd ? -1 : *marked;
    }
  }
}

void TcpProxy::close_all() {
  while (!connections_.empty()) {
    const Connection one = connections_.begin()->second;
    close_connection(one);
  }
}

void TcpProxy::reset_all() {
  for (const auto& [fd, one] : connections_) {
    reset_on_close(one.client);
  }
  close_all();
  stop_listening();  // the system resets the connections that it has accepted
  start_listening();
}

void TcpProxy::start_listening() {
  listens_ = listen(fd_, backlog) == 0;
  if (!listens_) {
    throw std::runtime_error("a proxy cannot listen");
  }
}

// Only a socket that listens may be shut down: any other would later shut down all connections that
// it accepts.
void TcpProxy::stop_listening() {
  if (std::exchange(listens_, false)) {
    shutdown(fd_, SHUT_RDWR);
  }
}

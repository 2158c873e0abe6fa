#include "tcp_proxy.h"

#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "sockets.h"

namespace {

constexpr int backlog = 1024;  // more than any run has, so that none is turned away

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
    : target_port_(target_port), delay_(delay), wake_up_(eventfd(0, EFD_CLOEXEC)) {
  start_listening();
  forwarder_ = std::jthread([this] { forward_all(); });
}

TcpProxy::~TcpProxy() {
  set_mode(Mode::end);
  forwarder_.join();
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

void TcpProxy::forward_all() {
  prctl(PR_SET_TIMERSLACK, 1UL);  // or each piece arrives 50 us late
  std::vector<pollfd> events;
  while (mode_ != Mode::end) {
    wait_for_events(events);
    if (events[0].revents != 0) {
      eventfd_t count = 0;
      eventfd_read(wake_up_, &count);
      (*action_.load())();
      action_done_.release();
      continue;
    }
    std::size_t at = 2;
    std::erase_if(connections_, [&](const Connection& one) {
      if (at == events.size()) {
        return false;  // nothing is read
      }
      const short client = events[at++].revents;
      const short target = events[at++].revents;
      // A client that has gone has given its command up and may have sent it elsewhere.
      const bool goes_on = (client & (POLLRDHUP | POLLHUP | POLLERR)) == 0 &&
                           (client == 0 || take_from(one.client, one.target)) &&
                           (target == 0 || take_from(one.target, one.client));
      if (!goes_on) {
        close_connection(one);
      }
      return !goes_on;
    });
    deliver();
    if (events[1].revents != 0) {
      accept_connection();
    }
  }
}

void TcpProxy::wait_for_events(std::vector<pollfd>& events) const {
  const bool reads = mode_ == Mode::forward || mode_ == Mode::swallow;
  events = {{wake_up_, POLLIN, 0}, {reads ? fd_ : -1, POLLIN, 0}};
  for (const Connection& one : connections_) {
    if (reads) {
      events.push_back({one.client, POLLIN | POLLRDHUP, 0});
      events.push_back({one.target, POLLIN, 0});
    }
  }
  timespec pause{};
  const bool delivers = mode_ == Mode::forward && !pieces_.empty();
  if (delivers) {
    pause = as_timespec(std::max(pieces_.front().arrives - Clock::now(), Clock::duration(0)));
  }
  ppoll(events.data(), events.size(), delivers ? &pause : nullptr, nullptr);
}

void TcpProxy::accept_connection() {
  const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (client == -1) {
    return;
  }
  const int target = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  send_at_once(client);
  send_at_once(target);
  connections_.push_back({client, target});
  if (!connect_to_loopback(target, target_port_)) {
    reset_on_close(client);
    close_connection(connections_.back());
    connections_.pop_back();
  }
}

bool TcpProxy::take_from(int from, int to) {
  const ssize_t length = recv(from, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
  if (length > 0 && mode_ == Mode::forward) {
    const std::string_view bytes(buffer_.data(), static_cast<std::size_t>(length));
    if (delay_.count() > 0) {
      pieces_.push_back({Clock::now() + delay_, to, std::string(bytes)});
    } else {  // without memory, which ruvo_chaos would take for the library's
      send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
  }
  return length > 0;
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
  close(one.client);
  close(one.target);
}

void TcpProxy::close_all() {
  std::for_each(connections_.begin(), connections_.end(),
                [this](const Connection& one) { close_connection(one); });
  connections_.clear();
}

void TcpProxy::reset_all() {
  for (const Connection& one : connections_) {
    reset_on_close(one.client);
  }
  close_all();
  stop_listening();  // the system resets what it has accepted
  start_listening();
}

void TcpProxy::start_listening() {
  listens_ = listen(fd_, backlog) == 0;
  if (!listens_) {
    throw std::runtime_error("a proxy cannot listen");
  }
}

// Only a socket that listens may be shut down: another one would pass that on to all that it
// accepts when it listens again.
void TcpProxy::stop_listening() {
  if (std::exchange(listens_, false)) {
    shutdown(fd_, SHUT_RDWR);
  }
}

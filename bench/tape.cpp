#include "tape.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace {

Tape* recording = nullptr;
Tape* playing = nullptr;

template <typename SystemCall>
ssize_t send_or_swallow(std::size_t length, const SystemCall& system_call) {
  if (playing != nullptr) {
    playing->sent();
    return static_cast<ssize_t>(length);
  }
  if (recording != nullptr) {
    recording->sent();
  }
  return system_call();
}

template <typename SystemCall>
ssize_t receive_or_play(void* buffer, std::size_t size, int flags, const SystemCall& system_call) {
  const bool peeks = (flags & MSG_PEEK) != 0;
  auto* const bytes = static_cast<char*>(buffer);
  if (playing != nullptr) {
    const std::size_t length = playing->next(bytes, size, peeks);
    if (length == 0) {
      errno = EAGAIN;
      return -1;
    }
    return static_cast<ssize_t>(length);
  }
  const ssize_t length = system_call();
  if (recording != nullptr && length > 0 && !peeks) {
    recording->received(bytes, static_cast<std::size_t>(length));
  }
  return length;
}

}  // namespace

void Tape::record() {
  replies_.clear();
  recording = this;
}

void Tape::play() {
  recording = nullptr;
  reply_ = replies_.size() - 1;
  position_ = replies_[reply_].size();
  playing = this;
}

void Tape::stop() {
  recording = nullptr;
  playing = nullptr;
}

void Tape::sent() {
  if (recording == this) {
    replies_.emplace_back();
    return;
  }
  reply_ = reply_ + 1 < replies_.size() ? reply_ + 1 : 0;
  position_ = 0;
}

void Tape::received(const char* bytes, std::size_t length) {
  replies_.back().append(bytes, length);
}

std::size_t Tape::next(char* buffer, std::size_t size, bool peeks) {
  const std::string& reply = replies_[reply_];
  const std::size_t length = std::min(size, reply.size() - position_);
  std::copy_n(reply.data() + position_, length, buffer);
  position_ += peeks ? 0 : length;
  return length;
}

bool Tape::has_more() const { return position_ < replies_[reply_].size(); }

// Replaces the C library's functions: exported, so that the shared libraries find these. The
// library is built with _FORTIFY_SOURCE, whose checked calls use those with "chk".
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name,bugprone-reserved-identifier)
extern "C" {

#define EXPORTED __attribute__((visibility("default")))

EXPORTED ssize_t read(int fd, void* buffer, size_t size) {
  return receive_or_play(buffer, size, 0, [=] { return syscall(SYS_read, fd, buffer, size); });
}

EXPORTED ssize_t recv(int fd, void* buffer, size_t size, int flags) {
  return receive_or_play(buffer, size, flags, [=] {
    return syscall(SYS_recvfrom, fd, buffer, size, flags, nullptr, nullptr);
  });
}

EXPORTED ssize_t __recv_chk(int fd, void* buffer, size_t size, size_t /*room*/, int flags) {
  return recv(fd, buffer, size, flags);
}

EXPORTED ssize_t write(int fd, const void* buffer, size_t size) {
  return send_or_swallow(size, [=] { return syscall(SYS_write, fd, buffer, size); });
}

EXPORTED ssize_t send(int fd, const void* buffer, size_t size, int flags) {
  return send_or_swallow(size,
                         [=] { return syscall(SYS_sendto, fd, buffer, size, flags, nullptr, 0); });
}

EXPORTED ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  std::size_t size = 0;
  for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
    size += message->msg_iov[i].iov_len;
  }
  return send_or_swallow(size, [=] { return syscall(SYS_sendmsg, fd, message, flags); });
}

// The data is there at once, or the time is over. The functions have other names here, since the
// system's header declares that they do not read their arguments.
int play_or_poll(pollfd* fds, nfds_t count, const timespec* timeout,
                 const sigset_t* signals) asm("ppoll");
int play_or_poll_checked(pollfd* fds, nfds_t count, const timespec* timeout,
                         const sigset_t* signals, size_t room) asm("__ppoll_chk");

EXPORTED int play_or_poll(pollfd* fds, nfds_t count, const timespec* timeout,
                          const sigset_t* signals) {
  if (playing != nullptr) {
    const int possible = playing->has_more() ? POLLIN | POLLOUT : POLLOUT;
    fds->revents = static_cast<short>(fds->events & possible);
    return fds->revents != 0 ? 1 : 0;
  }
  timespec left{};  // the system call writes into it
  if (timeout != nullptr) {
    left = *timeout;
  }
  return static_cast<int>(
      syscall(SYS_ppoll, fds, count, timeout != nullptr ? &left : nullptr, signals, _NSIG / 8));
}

EXPORTED int play_or_poll_checked(pollfd* fds, nfds_t count, const timespec* timeout,
                                  const sigset_t* signals, size_t /*room*/) {
  return play_or_poll(fds, count, timeout, signals);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name,bugprone-reserved-identifier)

#include "tape.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

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

}  // namespace

void Tape::record() {
  replies_.clear();
  recording = this;
}

void Tape::play() {
  recording = nullptr;
  reply_ = replies_.size();
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

std::size_t Tape::next(char* buffer, std::size_t size) {
  const std::string& reply = replies_[reply_];
  const std::size_t length = std::min(size, reply.size() - position_);
  std::copy_n(reply.data() + position_, length, buffer);
  position_ += length;
  return length;
}

// In place of the C library's own: exported, so that the shared libraries find these.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

__attribute__((visibility("default"))) ssize_t read(int fd, void* buffer, size_t size) {
  if (playing != nullptr) {
    return static_cast<ssize_t>(playing->next(static_cast<char*>(buffer), size));
  }
  const ssize_t length = syscall(SYS_read, fd, buffer, size);
  if (recording != nullptr && length > 0) {
    recording->received(static_cast<const char*>(buffer), static_cast<std::size_t>(length));
  }
  return length;
}

__attribute__((visibility("default"))) ssize_t write(int fd, const void* buffer, size_t size) {
  return send_or_swallow(size, [=] { return syscall(SYS_write, fd, buffer, size); });
}

__attribute__((visibility("default"))) ssize_t send(int fd, const void* buffer, size_t size,
                                                    int flags) {
  return send_or_swallow(size,
                         [=] { return syscall(SYS_sendto, fd, buffer, size, flags, nullptr, 0); });
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

#include "exchange.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

namespace {

using std::chrono::steady_clock;

// Bytes of one read. The rest of a reply that the first read does not complete comes in larger
// pieces: each read is a system call, and hiredis' own 16 KiB make 64 of them for a megabyte.
constexpr std::size_t small_read = std::size_t{16} << 10U;
constexpr std::size_t large_read = std::size_t{256} << 10U;

// The earlier of the deadline and the end of a wait that begins now.
time_point end_of_wait(const wait_limits& limits) {
  return limits.socket_timeout.count() > 0
             ? std::min(limits.deadline, steady_clock::now() + limits.socket_timeout)
             : limits.deadline;
}

connection_error error_of_wait(const wait_limits& limits) {
  return steady_clock::now() >= limits.deadline ? deadline_error() : timeout_error();
}

// Returns the number of bytes that the socket has taken: fewer than all if the connection broke.
std::size_t send_whole(redisContext& context, const wire_command& command,
                       const wait_limits& limits) {
  iovec rest{command.bytes(), command.length()};
  for (;;) {
    const ssize_t sent = send_some(context, std::span(&rest, 1));
    if (sent < 0) {
      set_error(context, system_error(errno));
      return command.length() - rest.iov_len;
    }
    rest.iov_base = static_cast<char*>(rest.iov_base) + sent;
    rest.iov_len -= static_cast<std::size_t>(sent);
    if (rest.iov_len == 0) {
      return command.length();
    }
    if (wait_for_peer(context, POLLOUT, end_of_wait(limits)) == wait_end::timed_out) {
      set_error(context, error_of_wait(limits));
      return command.length() - rest.iov_len;
    }
  }
}

reply_ptr wait_for_reply(redisContext& context, const wait_limits& limits) {
  for (;;) {
    // Without a deadline the socket's own timeout ends the read, so the clock need not be read.
    const bool timed = limits.deadline != no_deadline;
    switch (
        receive_some(context, limits.socket_timeout, timed ? end_of_wait(limits) : no_deadline)) {
      case wait_end::ready:
        break;
      case wait_end::timed_out:
        set_error(context, error_of_wait(limits));
        return nullptr;
      case wait_end::broken:
        return nullptr;
    }
    reply_ptr reply = next_reply(context);
    if (reply || context.err != 0) {
      return reply;
    }
  }
}

// Has the reader begun a reply that is not complete?
bool is_mid_reply(const redisReader& reader) { return reader.ridx > 0 || reader.len > reader.pos; }

}  // namespace

connection_error::connection_error(int error_code, const char* error_text) : code(error_code) {
  const std::size_t length = strnlen(error_text, sizeof(text) - 1);
  std::memcpy(text, error_text, length);
  text[length] = '\0';
}

bool connection_error::operator==(const connection_error& other) const {
  return code == other.code && std::strcmp(text, other.text) == 0;
}

connection_error system_error(int error) {
  std::array<char, sizeof(connection_error::text)> text;
  return {REDIS_ERR_IO, strerror_r(error, text.data(), text.size())};
}

connection_error closed_error() { return {REDIS_ERR_EOF, "Server closed the connection"}; }
connection_error timeout_error() { return system_error(EAGAIN); }
connection_error deadline_error() { return {REDIS_ERR_IO, "the call's time has passed"}; }
connection_error out_of_step_error() {
  return {REDIS_ERR_PROTOCOL, "unexpected data after the reply"};
}

void set_error(redisContext& context, const connection_error& error) {
  context.err = error.code;
  std::memcpy(context.errstr, error.text, std::strlen(error.text) + 1);  // both of the same size
}

wire_command::wire_command(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char* bytes = nullptr;
  length_ = redisvFormatCommand(&bytes, format, copy);
  va_end(copy);
  bytes_.reset(length_ < 0 ? nullptr : bytes);
}

void wire_command::report_refusal(redisContext& context) const {
  if (length_ == -1) {
    set_error(context, {REDIS_ERR_OOM, "Out of memory"});
  } else {
    set_error(context, {REDIS_ERR_OTHER, "Invalid format string"});
  }
}

wire_command format_command(const char* format, ...) {
  va_list args;
  va_start(args, format);
  wire_command command(format, args);
  va_end(args);
  return command;
}

connection_error check_unused(const redisContext& context) {
  char byte = 0;
  const ssize_t peeked = ::recv(context.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (peeked > 0) {
    return out_of_step_error();
  }
  if (peeked == 0) {
    return closed_error();
  }
  return errno == EAGAIN || errno == EINTR ? connection_error() : system_error(errno);
}

reply_ptr exchange(redisContext& context, const wire_command& command, const wait_limits& limits,
                   bool* sent) {
  if (command.refused()) {
    command.report_refusal(context);
    return nullptr;
  }
  const std::size_t sent_bytes = send_whole(context, command, limits);
  if (sent != nullptr) {
    *sent = sent_bytes > 0;
  }
  if (context.err != 0) {
    return nullptr;
  }
  reply_ptr reply = wait_for_reply(context, limits);
  if (reply) {
    break_if_out_of_step(context);
  }
  return reply;
}

// hiredis writes with write(2), which raises SIGPIPE on a connection that its server has closed;
// with the default disposition that ends the host. So the library sends the bytes itself, without
// the signal, at no cost: blocking and consuming it would cost two system calls for each command.
ssize_t send_some(const redisContext& context, std::span<iovec> bytes) {
  constexpr int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
  msghdr message{};
  message.msg_iov = bytes.data();
  message.msg_iovlen = bytes.size();
  for (;;) {
    const ssize_t sent = bytes.size() == 1
                             ? ::send(context.fd, bytes[0].iov_base, bytes[0].iov_len, flags)
                             : ::sendmsg(context.fd, &message, flags);
    if (sent >= 0) {
      return sent;
    }
    if (errno == EAGAIN) {
      return 0;
    }
    if (errno != EINTR) {
      return -1;
    }
  }
}

wait_end wait_for_peer(const redisContext& context, short events, time_point until) {
  pollfd peer{context.fd, events, 0};
  for (;;) {
    timespec left{};
    if (until != no_deadline) {
      const auto rest = std::max(std::chrono::nanoseconds(0),
                                 std::chrono::nanoseconds(until - steady_clock::now()));
      left.tv_sec = static_cast<std::time_t>(rest.count() / 1000000000);
      left.tv_nsec = static_cast<long>(rest.count() % 1000000000);
    }
    const int ready = ::ppoll(&peer, 1, until != no_deadline ? &left : nullptr, nullptr);
    if (ready > 0) {
      return wait_end::ready;
    }
    if (ready == 0) {
      return wait_end::timed_out;
    }
    if (errno != EINTR) {
      return wait_end::broken;
    }
  }
}

wait_end receive_some(redisContext& context, std::chrono::microseconds socket_timeout,
                      time_point until) {
  // The socket has a timeout of its own: if it ends before `until`, one system call is enough.
  constexpr std::chrono::milliseconds tolerance{1};
  int flags = 0;
  if (until != no_deadline &&
      (socket_timeout.count() <= 0 || until + tolerance < steady_clock::now() + socket_timeout)) {
    const wait_end waited = wait_for_peer(context, POLLIN, until);
    if (waited == wait_end::timed_out) {
      return waited;
    }
    flags = MSG_DONTWAIT;
  }
  std::unique_ptr<char[]> large;
  if (is_mid_reply(*context.reader)) {
    large.reset(new (std::nothrow) char[large_read]);
  }
  std::array<char, small_read> small;
  const std::span<char> buffer = large ? std::span(large.get(), large_read) : std::span(small);
  ssize_t received = 0;
  while ((received = ::recv(context.fd, buffer.data(), buffer.size(), flags)) < 0 &&
         errno == EINTR) {
    if (until != no_deadline) {  // the socket's timeout would begin anew
      if (wait_for_peer(context, POLLIN, until) == wait_end::timed_out) {
        return wait_end::timed_out;
      }
      flags = MSG_DONTWAIT;
    }
  }
  if (received > 0) {
    if (redisReaderFeed(context.reader, buffer.data(), static_cast<std::size_t>(received)) ==
        REDIS_OK) {
      return wait_end::ready;
    }
    set_error(context, {context.reader->err, context.reader->errstr});
  } else if (received == 0) {
    set_error(context, closed_error());
  } else if (errno == EAGAIN) {
    return wait_end::timed_out;
  } else {
    set_error(context, system_error(errno));
  }
  return wait_end::broken;
}

reply_ptr next_reply(redisContext& context) {
  void* reply = nullptr;
  if (redisReaderGetReply(context.reader, &reply) != REDIS_OK) {
    set_error(context, {context.reader->err, context.reader->errstr});
    return nullptr;
  }
  return reply_ptr(static_cast<redisReply*>(reply));
}

void break_if_out_of_step(redisContext& context) {
  const redisReader* reader = context.reader;
  if (reader != nullptr && reader->pos < reader->len) {
    set_error(context, out_of_step_error());
  }
}

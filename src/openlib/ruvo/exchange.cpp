#include "exchange.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

void set_error(redisContext& context, int type, const char* text) {
  context.err = type;
  std::strncpy(context.errstr, text, sizeof(context.errstr) - 1);
  context.errstr[sizeof(context.errstr) - 1] = '\0';
}

namespace {

// hiredis writes with write(2), which raises SIGPIPE on a connection that its server has closed,
// and in a host with the default disposition that ends the process. So the library writes itself:
// it can say that it does not want the signal, which costs nothing, where blocking and consuming it
// would cost two system calls for each command.
bool send_whole(redisContext& context, const char* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t sent = ::send(context.fd, bytes, length, MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes += sent;
      length -= static_cast<std::size_t>(sent);
    } else if (errno != EINTR) {
      std::array<char, sizeof(context.errstr)> text{};
      set_error(context, REDIS_ERR_IO, strerror_r(errno, text.data(), text.size()));
      return false;
    }
  }
  return true;
}

}  // namespace

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
    set_error(context, REDIS_ERR_OOM, "Out of memory");
  } else {
    set_error(context, REDIS_ERR_OTHER, "Invalid format string");
  }
}

wire_command format_command(const char* format, ...) {
  va_list args;
  va_start(args, format);
  wire_command command(format, args);
  va_end(args);
  return command;
}

reply_ptr exchange(redisContext& context, const wire_command& command) {
  if (command.refused()) {
    command.report_refusal(context);
    return nullptr;
  }
  if (!send_whole(context, command.bytes(), command.length())) {
    return nullptr;
  }
  reply_ptr reply = wait_for_reply(context);
  if (reply) {
    break_if_out_of_step(context);
  }
  return reply;
}

bool send_together(redisContext& context, std::span<iovec> bytes) {
  msghdr message{};
  message.msg_iov = bytes.data();
  message.msg_iovlen = bytes.size();
  const ssize_t sent = ::sendmsg(context.fd, &message, MSG_NOSIGNAL);
  auto skipped = static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
  for (const iovec& one :
       bytes) {  // those that were not taken, or in part; after an error the first
    const std::size_t taken = std::min(skipped, one.iov_len);
    skipped -= taken;
    if (!send_whole(context, static_cast<const char*>(one.iov_base) + taken, one.iov_len - taken)) {
      return false;
    }
  }
  return true;
}

reply_ptr received_reply(redisContext& context) {
  void* reply = nullptr;
  // An error is not lost: who waits for the reply then meets it again.
  redisReaderGetReply(context.reader, &reply);
  return reply_ptr(static_cast<redisReply*>(reply));
}

reply_ptr wait_for_reply(redisContext& context) {
  void* reply = nullptr;
  redisGetReply(&context, &reply);  // there is nothing left to write: it reads
  return reply_ptr(static_cast<redisReply*>(reply));
}

void break_if_out_of_step(redisContext& context) {
  const redisReader* reader = context.reader;
  if (reader != nullptr && reader->pos < reader->len) {
    set_error(context, REDIS_ERR_PROTOCOL, "unexpected data after the reply");
  }
}

#include "exchange.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace {

// Leaves an error on the context as hiredis does, which the walk and its log lines read there.
void set_error(redisContext& context, int type, const char* text) {
  context.err = type;
  std::strncpy(context.errstr, text, sizeof(context.errstr) - 1);
  context.errstr[sizeof(context.errstr) - 1] = '\0';
}

}  // namespace

wire_command::wire_command(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char* bytes = nullptr;
  length_ = redisvFormatCommand(&bytes, format, copy);
  va_end(copy);
  if (length_ == 0) {
    length_ = -1;  // what hiredis may say when memory runs out: nothing to send, nothing to wait for
  }
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
  iovec bytes{command.bytes(), command.length()};
  if (!send_whole(context, {&bytes, 1})) {
    return nullptr;
  }
  reply_ptr reply = wait_for_reply(context);
  if (reply) {
    break_if_out_of_step(context);
  }
  return reply;
}

// hiredis writes with write(2), which raises SIGPIPE on a connection that its server has closed,
// and in a host with the default disposition that ends the process. So the library writes itself:
// it can say that it does not want the signal, which costs nothing, where blocking and consuming it
// would cost two system calls for each command.
bool send_whole(redisContext& context, std::span<iovec> bytes) {
  while (!bytes.empty()) {
    msghdr message{};
    message.msg_iov = bytes.data();
    message.msg_iovlen = bytes.size();
    const ssize_t sent = bytes.size() == 1
                             ? ::send(context.fd, bytes[0].iov_base, bytes[0].iov_len, MSG_NOSIGNAL)
                             : ::sendmsg(context.fd, &message, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) {
        continue;
      }
      std::array<char, sizeof(context.errstr)> text{};
      set_error(context, REDIS_ERR_IO, strerror_r(errno, text.data(), text.size()));
      return false;
    }
    auto left = static_cast<std::size_t>(sent);
    while (!bytes.empty() && left >= bytes[0].iov_len) {
      left -= bytes[0].iov_len;
      bytes = bytes.subspan(1);
    }
    if (left > 0) {
      bytes[0] = {static_cast<char*>(bytes[0].iov_base) + left, bytes[0].iov_len - left};
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

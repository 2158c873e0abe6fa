#include "exchange.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace {

// Leaves an error on the context as hiredis does, which the walk and its log lines read there.
void set_error(redisContext& context, int type, const char* text) {
  context.err = type;
  std::strncpy(context.errstr, text, sizeof(context.errstr) - 1);
  context.errstr[sizeof(context.errstr) - 1] = '\0';
}

// hiredis writes with write(2), which raises SIGPIPE on a connection that its server has closed,
// and in a host with the default disposition that ends the process. So the library writes itself: a
// send(2) can be told not to raise the signal, which costs nothing, where blocking and consuming it
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

struct command_deleter {
  void operator()(char* command) const { redisFreeCommand(command); }
};

}  // namespace

reply_ptr send_vcommand(redisContext& context, const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char* formatted = nullptr;
  const int length = redisvFormatCommand(&formatted, format, copy);
  va_end(copy);
  if (length < 0) {
    set_error(context, length == -1 ? REDIS_ERR_OOM : REDIS_ERR_OTHER,
              length == -1 ? "Out of memory" : "Invalid format string");
    return nullptr;
  }
  const std::unique_ptr<char, command_deleter> command(formatted);
  if (!send_whole(context, command.get(), static_cast<std::size_t>(length))) {
    return nullptr;
  }
  void* reply = nullptr;
  redisGetReply(&context, &reply);  // there is nothing left to write: it reads
  return reply_ptr(static_cast<redisReply*>(reply));
}

reply_ptr send_command(redisContext& context, const char* format, ...) {
  va_list args;
  va_start(args, format);
  reply_ptr reply = send_vcommand(context, format, args);
  va_end(args);
  return reply;
}

// Commands as bytes, one exchange of them with a Redis server, and the owners of what hiredis hands
// out.
#ifndef RUVO_EXCHANGE_H
#define RUVO_EXCHANGE_H

#include <hiredis/hiredis.h>
#include <sys/uio.h>

#include <cstdarg>
#include <cstddef>
#include <memory>
#include <span>

struct context_deleter {
  void operator()(redisContext* context) const { redisFree(context); }
};
struct reply_deleter {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using context_ptr = std::unique_ptr<redisContext, context_deleter>;
using reply_ptr = std::unique_ptr<redisReply, reply_deleter>;

// A command as it goes over the wire, or the reason why hiredis refused its template. Formatted
// once, sent as often as it takes.
class wire_command {
 public:
  // The argument list is left as it was.
  wire_command(const char* format, va_list args);

  bool refused() const { return length_ < 0; }
  char* bytes() const { return bytes_.get(); }
  std::size_t length() const { return refused() ? 0 : static_cast<std::size_t>(length_); }

  // Leaves on a context what hiredis leaves there when it refuses a template.
  // REQUIRES: refused().
  void report_refusal(redisContext& context) const;

 private:
  struct bytes_deleter {
    void operator()(char* bytes) const { redisFreeCommand(bytes); }
  };
  std::unique_ptr<char, bytes_deleter> bytes_;
  int length_;
};

wire_command format_command(const char* format, ...);

// Sends a command and reads its reply; null when the connection broke or hiredis has refused the
// template (the context then carries the error). Never raises SIGPIPE in the host.
reply_ptr exchange(redisContext& context, const wire_command& command);

// The parts of an exchange, for several commands at once. Sends them in one write; false when the
// connection broke.
bool send_together(redisContext& context, std::span<iovec> bytes);
// The next reply, if it has been received whole.
reply_ptr received_reply(redisContext& context);
// The next reply, waited for; null when the connection broke.
reply_ptr wait_for_reply(redisContext& context);
// Leaves an error on the context as hiredis does, which the walk and its log lines read there.
void set_error(redisContext& context, int type, const char* text);
// After the reply to the last command: bytes that are left were asked for by nobody, and every
// later reply would go to the wrong caller. The connection is then broken.
void break_if_out_of_step(redisContext& context);

#endif

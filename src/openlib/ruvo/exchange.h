// One exchange with a Redis server over hiredis, and the owners of what hiredis hands out.
#ifndef RUVO_EXCHANGE_H
#define RUVO_EXCHANGE_H

#include <hiredis/hiredis.h>

#include <cstdarg>
#include <memory>

struct context_deleter {
  void operator()(redisContext* context) const { redisFree(context); }
};
struct reply_deleter {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using context_ptr = std::unique_ptr<redisContext, context_deleter>;
using reply_ptr = std::unique_ptr<redisReply, reply_deleter>;

// Sends a command and reads its reply; null when the connection broke or the template makes no
// sense to hiredis (the context then carries the error). The argument list is left as it was, so
// that the same command can be sent again. Never raises SIGPIPE in the host.
reply_ptr send_vcommand(redisContext& context, const char* format, va_list args);
reply_ptr send_command(redisContext& context, const char* format, ...);

#endif

// Owners of hiredis' objects, for programs that query a server without the library.
#ifndef RUVO_TOOLS_COMMON_HIREDIS_OWNERS_H
#define RUVO_TOOLS_COMMON_HIREDIS_OWNERS_H

#include <hiredis/hiredis.h>

#include <memory>

struct HiredisDeleter {
  void operator()(redisContext* context) const { redisFree(context); }
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Context = std::unique_ptr<redisContext, HiredisDeleter>;
using Reply = std::unique_ptr<redisReply, HiredisDeleter>;

inline timeval to_timeval(int milliseconds) {
  return {milliseconds / 1000, milliseconds % 1000 * 1000L};
}

#endif

// Any command: the caller gets the reply itself, and releases it later.
#include <cstring>

#include "log_line.h"
#include "ruvo_redis.h"
#include "walk.h"

namespace {

constexpr const char* no_key = "temp";  // what the log shows where a typed command shows its key

}  // namespace

void* ruvo_redis::exec_redis_cmd(const char* format, va_list ap, RedisServerType redisSrvType) {
  if (!is_initialized()) {
    // The text names another method; deployed systems rely on it.
    RUVO_LOG(ERROR, "ruvo_redis::hash_del_field | redis is not initialized");
    return nullptr;
  }
  if (format == nullptr) {
    RUVO_LOG(ERROR, "ruvo_redis::exec_redis_cmd | format is NULL");
    return nullptr;
  }
  // Redis ignores a command without words: the call would wait for every server in vain.
  if (format[std::strspn(format, " ")] == '\0') {
    RUVO_LOG(ERROR, "ruvo_redis::exec_redis_cmd | format is empty");
    return nullptr;
  }
  RUVO_LOG(INFO, "ruvo_redis::exec_redis_cmd | %s redis server type:%d", format,
           static_cast<int>(redisSrvType));
  reply_ptr reply;
  const command command{"exec_redis_cmd",    no_key,
                        redisSrvType,        wire_command(format, ap),
                        options_.deadline(), must_not_resend(false)};
  const route& route = options_.raw_commands_stay_in_pool ? typed_route : raw_route;
  if (walk(*this, route, command, reply) == walk_end::no_server_at_start) {
    RUVO_LOG(ERROR, "%s", no_key);
  }
  return reply.release();
}

void ruvo_redis::free_reply_object(void* reply) {
  if (!is_initialized()) {
    RUVO_LOG(ERROR, "ruvo_redis::free_reply_object | redis is not initialized");
    return;
  }
  if (reply == nullptr) {
    RUVO_LOG(ERROR, "ruvo_redis::free_reply_object | reply is NULL");
    return;
  }
  freeReplyObject(reply);
}

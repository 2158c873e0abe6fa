// The typed path: a walk, and the result code of its reply.
#include <utility>

#include "data_operation.h"
#include "log_line.h"
#include "ruvo_redis.h"
#include "statistics.h"
#include "walk.h"

int ruvo_redis::exec_command(const call_terms& terms, const char* key, reply_ptr* reply,
                             RedisServerType redisSrvType, const char* format, va_list args) {
  if (key == nullptr) {
    RUVO_LOG(ERROR, "ruvo_redis::do_exec_command | key is NULL");
    return RUVO_ERR_NULL_ARGUMENT;
  }
  RUVO_LOG(INFO, "ruvo_redis::do_exec_command | key:%s, redis-server-type:%d", key,
           static_cast<int>(redisSrvType));
  const command command{"do_exec_command", key,
                        redisSrvType,      wire_command(format, args),
                        terms.deadline,    terms.must_not_resend};
  reply_ptr received;
  switch (walk(*this, typed_route, command, received)) {
    case walk_end::replied:
      break;
    case walk_end::lock_failed:
      return RUVO_ERR_FAILED;
    default:
      log_key_as_format(key);
      return RUVO_ERR_FAILED;
  }
  if (received->type == REDIS_REPLY_ERROR) {
    note_cause(RUVO_STATS_ERROR_REPLY);
    RUVO_LOG(ERROR, "ruvo_redis::do_exec_command | exec key:%s failed, redis reply str:%s.", key,
             received->str);
    return RUVO_ERR_FAILED;
  }
  if (received->type == REDIS_REPLY_NIL) {
    // Every pool number except 0 counts as persistent here: deployed systems rely on the line.
    RUVO_LOG(WARN, "ruvo_redis::do_exec_command | redis key:%s, persistence:%s, redis reply is nil",
             key, static_cast<int>(redisSrvType) != 0 ? "true" : "false");
    return RUVO_ERR_NOT_FOUND;
  }
  if (reply != nullptr) {
    *reply = std::move(received);
  }
  return RUVO_OK;
}

int ruvo_redis::do_exec_command(const char* key, redisReply*& reply, bool need_reply,
                                RedisServerType redisSrvType, const char* format, ...) {
  reply_ptr received;
  va_list args;
  va_start(args, format);
  const int ret = exec_command({options_.deadline()}, key, need_reply ? &received : no_reply,
                               redisSrvType, format, args);
  va_end(args);
  if (received) {
    reply = received.release();
  }
  return ret;
}

void ruvo_redis::exec_regardless(time_point deadline, const char* key, RedisServerType redisSrvType,
                                 const char* format, ...) {
  va_list args;
  va_start(args, format);
  exec_command({deadline}, key, no_reply, redisSrvType, format, args);
  va_end(args);
}

// The operations on lists.
#include <cstring>

#include "data_operation.h"
#include "ruvo_redis.h"

int ruvo_redis::list_rem(const char* key, int count, const char* value,
                         RedisServerType redisSrvType, const char* /*server_addr*/) {
  const data_operation operation{.origin = "ruvo_redis::list_rem",
                                 .null_text = key == nullptr ? null_key : null_key_or_value,
                                 .reply_type = REDIS_REPLY_INTEGER,
                                 .is_idempotent = count == 0};
  reply_ptr reply;
  const int ret = run({operation, redisSrvType, key, {value}, options_.deadline()}, &reply,
                      "LREM %s %d %s", key, count, value);
  if (ret != RUVO_OK) {
    return ret;
  }
  if (reply->integer == 0) {
    RUVO_LOG(DEBUG, "ruvo_redis::list_rem | key:%s not exist.", key);
    return RUVO_NOTHING_DONE;
  }
  RUVO_LOG(DEBUG, "ruvo_redis::list_rem | lrem key:%s success, num:%lld.", key, reply->integer);
  return RUVO_OK;
}

int ruvo_redis::list_push(const char* key, const char* value, std::size_t length, int timeout,
                          long long* count, RedisServerType redisSrvType,
                          const char* /*server_addr*/) {
  static constexpr data_operation operation{
      .origin = "ruvo_redis::list_push", .null_text = null_key_or_value, .is_idempotent = false};
  const time_point deadline = options_.deadline();
  reply_ptr reply;
  int ret = run({operation, redisSrvType, key, {{value, length}}, deadline}, &reply, "LPUSH %s %b",
                key, value, length);
  if (ret != RUVO_OK) {
    return ret;
  }
  // The expiry is set whatever Redis has answered, so the type is checked here.
  if (has_type(operation, *reply, REDIS_REPLY_INTEGER, key)) {
    store(count, reply->integer);
    RUVO_LOG(DEBUG, "ruvo_redis::list_push | list_push key:%s, value:%s success, count is %lld",
             key, value, reply->integer);
  } else {
    ret = RUVO_ERR_FAILED;
  }
  reply.reset();
  if (timeout > 0) {
    ret = expire(deadline, key, static_cast<unsigned int>(timeout), redisSrvType);
  }
  return ret;
}

int ruvo_redis::list_rpop(const char* key, std::string& value, RedisServerType redisSrvType,
                          const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::list_rpop",
                                            .null_text = null_key,
                                            .reply_type = REDIS_REPLY_STRING,
                                            .is_idempotent = false};
  value.clear();
  reply_ptr reply;
  const int ret =
      run({operation, redisSrvType, key, {}, options_.deadline()}, &reply, "RPOP %s", key);
  if (ret != RUVO_OK) {
    return ret;
  }
  if (!has_text(*reply)) {
    RUVO_LOG(DEBUG, "ruvo_redis::list_rpop | failed, key:%s", key);
    return RUVO_NOTHING_DONE;
  }
  value.assign(reply->str, reply->len);
  RUVO_LOG(DEBUG, "ruvo_redis::list_rpop | key:%s, value:%s.", key, value.c_str());
  return RUVO_OK;
}

int ruvo_redis::list_range(const char* key, int start, int end, std::vector<std::string>& value,
                           RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{
      .origin = "ruvo_redis::list_range", .null_text = null_key, .reply_type = REDIS_REPLY_ARRAY};
  value.clear();
  reply_ptr reply;
  const int ret = run({operation, redisSrvType, key, {}, options_.deadline()}, &reply,
                      "LRANGE %s %d %d", key, start, end);
  return ret != RUVO_OK ? ret : collect(operation, *reply, value, key);
}

int ruvo_redis::list_trim(const char* key, int start, int end, RedisServerType redisSrvType,
                          const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::list_trim",
                                            .null_text = null_key,
                                            .reply_type = REDIS_REPLY_STATUS,
                                            .is_idempotent = false};
  reply_ptr reply;
  const int ret = run({operation, redisSrvType, key, {}, options_.deadline()}, &reply,
                      "LTRIM %s %d %d", key, start, end);
  if (ret != RUVO_OK) {
    return ret;
  }
  if (!has_text(*reply)) {
    RUVO_LOG(DEBUG, "ruvo_redis::list_trim | failed, key:%s", key);
    return RUVO_NOTHING_DONE;
  }
  if (std::strncmp(reply->str, "OK", reply->len) == 0) {
    RUVO_LOG(DEBUG, "ruvo_redis::list_trim | success, key:%s", key);
  }
  return RUVO_OK;
}

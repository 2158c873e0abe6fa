// The operations on sets.
#include "data_operation.h"
#include "ruvo_redis.h"

int ruvo_redis::set_add(const char* key, const char* value, std::size_t len,
                        RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::set_add",
                                            .null_text = null_key_or_value,
                                            .reply_type = REDIS_REPLY_INTEGER};
  reply_ptr reply;
  const int ret = run({operation, redisSrvType, key, {{value, len}}, options_.deadline()}, &reply,
                      "SADD %s %b", key, value, len);
  if (ret != RUVO_OK) {
    return ret;
  }
  if (reply->integer == 0) {
    RUVO_LOG(DEBUG, "ruvo_redis::set_add | value:%s exists in key:%s", value, key);
    return RUVO_NOTHING_DONE;
  }
  RUVO_LOG(DEBUG, "ruvo_redis::set_add | set_add key:%s, value:%s success, count is %lld", key,
           value, reply->integer);
  return RUVO_OK;
}

// Unlike set_add, a success also when nothing changed: callers only need it to be absent.
int ruvo_redis::set_rem(const char* key, const char* value, std::size_t len,
                        RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::set_rem",
                                            .null_text = null_key_or_value,
                                            .reply_type = REDIS_REPLY_INTEGER};
  reply_ptr reply;
  const int ret = run({operation, redisSrvType, key, {{value, len}}, options_.deadline()}, &reply,
                      "SREM %s %b", key, value, len);
  if (ret != RUVO_OK) {
    return ret;
  }
  RUVO_LOG(DEBUG, "ruvo_redis::set_rem | set_rem key:%s, value:%s success, count is %lld", key,
           value, reply->integer);
  return RUVO_OK;
}

int ruvo_redis::set_ismember(const char* key, const char* value, std::size_t len,
                             RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::set_ismember",
                                            .null_text = null_key_or_value,
                                            .reply_type = REDIS_REPLY_INTEGER};
  reply_ptr reply;
  const int ret = run({operation, redisSrvType, key, {{value, len}}, options_.deadline()}, &reply,
                      "SISMEMBER %s %b", key, value, len);
  if (ret != RUVO_OK) {
    return ret;
  }
  if (reply->integer != 1) {
    RUVO_LOG(DEBUG, "ruvo_redis::set_ismember | value:%s is not a member of key:%s", value, key);
    return RUVO_NOTHING_DONE;
  }
  RUVO_LOG(DEBUG, "ruvo_redis::set_ismember | value:%s is a member of key:%s", value, key);
  return RUVO_OK;
}

int ruvo_redis::set_members(const char* key, std::vector<std::string>& value,
                            RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{
      .origin = "ruvo_redis::set_members", .null_text = null_key, .reply_type = REDIS_REPLY_ARRAY};
  value.clear();
  reply_ptr reply;
  const int ret =
      run({operation, redisSrvType, key, {}, options_.deadline()}, &reply, "SMEMBERS %s", key);
  return ret != RUVO_OK ? ret : collect(operation, *reply, value, key);
}

// The operations on string keys.
#include <ctime>

#include "data_operation.h"
#include "ruvo_redis.h"

namespace {

constexpr const char* null_pointer = "invalid param value : null pointer.";

// Seconds until the next local midnight: 1 to 86400.
long seconds_to_midnight() {
  const std::time_t now = std::time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  return 86400 - (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec);
}

}  // namespace

int ruvo_redis::insert_key(const char* key, const char* data, unsigned long len, int time_out,
                           RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::insert_key",
                                            .null_text = null_pointer};
  const int ret = time_out == no_expiry
                      ? run({operation, redisSrvType, key, {{data, len}}, options_.deadline()},
                            no_reply, "SET %s %b", key, data, len)
                      : run({operation, redisSrvType, key, {{data, len}}, options_.deadline()},
                            no_reply, "SETEX %s %d %b", key, time_out, data, len);
  if (ret == RUVO_OK) {
    RUVO_LOG(DEBUG, "ruvo_redis::insert_key | key %s successfully inserted.", key);
  }
  return ret;
}

int ruvo_redis::append_key(const char* key, const char* data, unsigned long len,
                           RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::append_key",
                                            .null_text = null_pointer,
                                            .verb = "APPEND",
                                            .is_idempotent = false};
  return run({operation, redisSrvType, key, {{data, len}}, options_.deadline()}, no_reply,
             "APPEND %s %b", key, data, len);
}

int ruvo_redis::increase_key(const char* key, long long* value, RedisServerType redisSrvType,
                             const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::increase_key",
                                            .null_text = null_key,
                                            .failed_origin = "exists_key::increase_key",
                                            .verb = "GET",
                                            .reply_type = REDIS_REPLY_INTEGER,
                                            .policy = unexpected_type::warned_with_key,
                                            .unexpected_result = RUVO_OK,
                                            .is_idempotent = false};
  const time_point deadline = options_.deadline();
  reply_ptr reply;
  const int ret = run({operation, redisSrvType, key, {}, deadline}, &reply, "INCR %s", key);
  if (reply) {
    store(value, reply->integer);
    RUVO_LOG(DEBUG,
             "ruvo_redis::increase_key | key %s successfully increased, current value is %lld.",
             key, reply->integer);
    // A new counter lives until midnight. If its expiry cannot be set, the count is still valid.
    if (reply->integer == 1) {
      exec_regardless(deadline, key, redisSrvType, "EXPIRE %s %ld", key, seconds_to_midnight());
    }
  }
  return ret;
}

int ruvo_redis::query_key(const char* key, const char** data, unsigned long* len,
                          RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::query_key",
                                            .null_text = null_pointer,
                                            .verb = "GET",
                                            .absent_level = BaseLib::Logger::INFO,
                                            .reply_type = REDIS_REPLY_STRING,
                                            .policy = unexpected_type::warned_with_key,
                                            .unexpected_result = RUVO_OK};
  reply_ptr reply;
  int ret =
      run({operation, redisSrvType, key, {data, len}, options_.deadline()}, &reply, "GET %s", key);
  if (reply) {
    ret = copy_out(*reply, data, len);
  }
  if (ret == RUVO_OK) {
    RUVO_LOG(DEBUG, "ruvo_redis::query_key | querying key %s succeeded.", key);
  }
  return ret;
}

int ruvo_redis::exists_key(const char* key, RedisServerType redisSrvType,
                           const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::exists_key",
                                            .null_text = null_key,
                                            .failed_origin = "exists_key::expire_key",
                                            .verb = "EXISTS",
                                            .reply_type = REDIS_REPLY_INTEGER,
                                            .policy = unexpected_type::warned_with_key};
  reply_ptr reply;
  const int ret =
      run({operation, redisSrvType, key, {}, options_.deadline()}, &reply, "EXISTS %s", key);
  if (ret != RUVO_OK) {
    return ret;
  }
  switch (reply->integer) {
    case 0:
      RUVO_LOG(DEBUG, "ruvo_redis::exists_key | key:%s not exist.", key);
      return RUVO_ABSENT;
    case 1:
      RUVO_LOG(DEBUG, "ruvo_redis::exists_key | key:%s is exist.", key);
      return RUVO_OK;
    default:
      RUVO_LOG(ERROR, "ruvo_redis::exists_key | reply->interger:%lld", reply->integer);
      return RUVO_ERR_FAILED;
  }
}

int ruvo_redis::delete_key(const char* key, RedisServerType redisSrvType,
                           const char* /*server_addr*/) {
  static constexpr data_operation operation{
      .origin = "ruvo_redis::delete_key", .null_text = null_key, .verb = "DEL"};
  return run({operation, redisSrvType, key, {}, options_.deadline()}, no_reply, "DEL %s", key);
}

int ruvo_redis::expire_key(const char* key, unsigned int time_out, RedisServerType redisSrvType,
                           const char* /*server_addr*/) {
  return expire(options_.deadline(), key, time_out, redisSrvType);
}

int ruvo_redis::expire(time_point deadline, const char* key, unsigned int time_out,
                       RedisServerType type) {
  static constexpr data_operation operation{.origin = "ruvo_redis::expire_key",
                                            .null_text = null_key};
  const int ret =
      run({operation, type, key, {}, deadline}, no_reply, "EXPIRE %s %u", key, time_out);
  if (ret == RUVO_OK) {
    RUVO_LOG(DEBUG, "ruvo_redis::expire_key | EXPIRE  %s %u successfully.", key, time_out);
  }
  return ret;
}

int ruvo_redis::persist_key(const char* key, RedisServerType redisSrvType,
                            const char* /*server_addr*/) {
  static constexpr data_operation operation{
      .origin = "ruvo_redis::persist_key", .null_text = null_key, .verb = "PERSIST"};
  return run({operation, redisSrvType, key, {}, options_.deadline()}, no_reply, "PERSIST %s", key);
}

int ruvo_redis::free_result(const char* data) {
  if (!is_initialized()) {
    RUVO_LOG(ERROR, "ruvo_redis::free_result | redis is not initialized");
    return RUVO_ERR_NOT_INITIALIZED;
  }
  if (data != nullptr) {
    RUVO_LOG(DEBUG, "ruvo_redis::free_result | free data %p.", static_cast<const void*>(data));
    delete[] data;
  }
  return RUVO_OK;
}

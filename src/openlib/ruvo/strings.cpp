// The operations on string keys.
#include <ctime>

#include "data_operation.h"
#include "ruvo_redis.h"

namespace {

constexpr int no_time_out = -1;
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
  const int ret = time_out == no_time_out
                      ? run(operation, {key, {data, len}}, no_reply, redisSrvType, key, "SET %s %b",
                            key, data, len)
                      : run(operation, {key, {data, len}}, no_reply, redisSrvType, key,
                            "SETEX %s %d %b", key, time_out, data, len);
  if (ret == RUVO_OK) {
    RUVO_LOG(DEBUG, "ruvo_redis::insert_key | key %s successfully inserted.", key);
  }
  return ret;
}

int ruvo_redis::append_key(const char* key, const char* data, unsigned long len,
                           RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::append_key",
                                            .null_text = null_pointer};
  const int ret = run(operation, {key, {data, len}}, no_reply, redisSrvType, key, "APPEND %s %b",
                      key, data, len);
  if (ret == RUVO_OK) {
    RUVO_LOG(DEBUG, "ruvo_redis::append_key | APPEND  %s successfully.", key);
  }
  return ret;
}

int ruvo_redis::increase_key(const char* key, long long* value, RedisServerType redisSrvType,
                             const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::increase_key",
                                            .null_text = null_key,
                                            .failed_origin = "exists_key::increase_key",
                                            .policy = reply_policy::lenient};
  reply_ptr reply;
  const int ret = run(operation, {key}, &reply, redisSrvType, key, "INCR %s", key);
  if (ret != RUVO_OK) {
    return ret;
  }
  RUVO_LOG(DEBUG, "ruvo_redis::increase_key | GET  %s successfully.", key);
  if (has_type(operation, reply, REDIS_REPLY_INTEGER, key)) {
    store(value, reply->integer);
    RUVO_LOG(DEBUG,
             "ruvo_redis::increase_key | key %s successfully increased, current value is %lld.",
             key, reply->integer);
    // A new counter lives until midnight. That it could not be told so does not undo the count.
    if (reply->integer == 1) {
      redisReply* none = nullptr;
      do_exec_command(key, none, false, redisSrvType, "EXPIRE %s %ld", key, seconds_to_midnight());
    }
  }
  return RUVO_OK;
}

int ruvo_redis::query_key(const char* key, const char** data, unsigned long* len,
                          RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::query_key",
                                            .null_text = null_pointer,
                                            .absent_level = BaseLib::Logger::INFO,
                                            .policy = reply_policy::lenient};
  reply_ptr reply;
  int ret = run(operation, {key, data, len}, &reply, redisSrvType, key, "GET %s", key);
  if (ret != RUVO_OK) {
    return ret;
  }
  RUVO_LOG(DEBUG, "ruvo_redis::query_key | GET  %s successfully.", key);
  if (has_type(operation, reply, REDIS_REPLY_STRING, key)) {
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
                                            .policy = reply_policy::lenient};
  reply_ptr reply;
  const int ret = run(operation, {key}, &reply, redisSrvType, key, "EXISTS %s", key);
  if (ret != RUVO_OK) {
    return ret;
  }
  RUVO_LOG(DEBUG, "ruvo_redis::exists_key | EXISTS  %s successfully.", key);
  if (!has_type(operation, reply, REDIS_REPLY_INTEGER, key)) {
    return reply ? RUVO_ERR_FAILED : RUVO_OK;
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
  static constexpr data_operation operation{.origin = "ruvo_redis::delete_key",
                                            .null_text = null_key};
  const int ret = run(operation, {key}, no_reply, redisSrvType, key, "DEL %s", key);
  if (ret == RUVO_OK) {
    RUVO_LOG(DEBUG, "ruvo_redis::delete_key | DEL  %s successfully.", key);
  }
  return ret;
}

int ruvo_redis::expire_key(const char* key, unsigned int time_out, RedisServerType redisSrvType,
                           const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::expire_key",
                                            .null_text = null_key};
  const int ret = run(operation, {key}, no_reply, redisSrvType, key, "EXPIRE %s %u", key, time_out);
  if (ret == RUVO_OK) {
    RUVO_LOG(DEBUG, "ruvo_redis::expire_key | EXPIRE  %s %u successfully.", key, time_out);
  }
  return ret;
}

int ruvo_redis::persist_key(const char* key, RedisServerType redisSrvType,
                            const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::persist_key",
                                            .null_text = null_key};
  const int ret = run(operation, {key}, no_reply, redisSrvType, key, "PERSIST %s", key);
  if (ret == RUVO_OK) {
    RUVO_LOG(DEBUG, "ruvo_redis::persist_key | PERSIST  %s successfully.", key);
  }
  return ret;
}

int ruvo_redis::free_result(const char* data) {
  if (!initialized_.load(std::memory_order_acquire)) {
    RUVO_LOG(ERROR, "ruvo_redis::free_result | redis is not initialized");
    return RUVO_ERR_NOT_INITIALIZED;
  }
  if (data != nullptr) {
    RUVO_LOG(DEBUG, "ruvo_redis::free_result | free data %p.", static_cast<const void*>(data));
    delete[] data;
  }
  return RUVO_OK;
}

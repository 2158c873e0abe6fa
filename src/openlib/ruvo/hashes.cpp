// The operations on hashes.
#include <cstdint>

#include "data_operation.h"
#include "ruvo_redis.h"

int ruvo_redis::hash_set(const char* key, const char* field, unsigned long f_len, const char* value,
                         unsigned long v_len, int time_out, RedisServerType redisSrvType,
                         const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::hash_set",
                                            .null_text = "key or field or value is NULL"};
  const time_point deadline = options_.deadline();
  const int ret = run({operation, redisSrvType, key, {{field, f_len}, {value, v_len}}, deadline},
                      no_reply, "HSET %s %b %b", key, field, f_len, value, v_len);
  if (ret != RUVO_OK) {
    return ret;
  }
  // The field is set, whatever the result of EXPIRE.
  if (time_out != no_expiry) {
    exec_regardless(deadline, key, redisSrvType, "EXPIRE %s %d", key, time_out);
  }
  RUVO_LOG(DEBUG,
           "ruvo_redis::hash_set | key %s, field:%s, value:%s time_out:%d, successfully inserted.",
           key, field, value, time_out);
  return RUVO_OK;
}

int ruvo_redis::hash_get(const char* key, const char* field, unsigned long f_len,
                         const char** value, unsigned long* v_len, RedisServerType redisSrvType,
                         const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::hash_get",
                                            .null_text = null_key_or_field,
                                            .reply_type = REDIS_REPLY_STRING};
  reply_ptr reply;
  int ret = run({operation, redisSrvType, key, {{field, f_len}}, options_.deadline()}, &reply,
                "HGET %s %b", key, field, f_len);
  if (ret != RUVO_OK) {
    return ret;
  }
  ret = copy_out(*reply, value, v_len);
  if (ret == RUVO_OK) {
    // Prints the bytes of the stored pointer, not the value: deployed systems know the line.
    RUVO_LOG(DEBUG, "ruvo_redis::hash_get | get key %s, field:%s, value:%s, successfully.", key,
             field, reinterpret_cast<const char*>(value));
  }
  return ret;
}

int ruvo_redis::hash_field_exist(const char* key, const char* field, unsigned long f_len,
                                 RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::hash_field_exist",
                                            .null_text = null_key_or_field,
                                            .reply_type = REDIS_REPLY_INTEGER};
  reply_ptr reply;
  const int ret = run({operation, redisSrvType, key, {{field, f_len}}, options_.deadline()}, &reply,
                      "HEXISTS %s %b", key, field, f_len);
  if (ret != RUVO_OK) {
    return ret;
  }
  switch (reply->integer) {
    case 0:
      RUVO_LOG(INFO, "ruvo_redis::hash_field_exist | field not exist");
      return RUVO_ABSENT;
    case 1:
      RUVO_LOG(INFO, "ruvo_redis::hash_field_exist | field exist");
      return RUVO_OK;
    default:
      RUVO_LOG(ERROR, "ruvo_redis::hash_field_exist | unknown reply value:%lld", reply->integer);
      return RUVO_ERR_FAILED;
  }
}

int ruvo_redis::hash_incr_by(const char* key, const char* field, unsigned long f_len,
                             long long increment, long long* result, RedisServerType redisSrvType,
                             const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::hash_incr_by",
                                            .null_text = null_key_or_field,
                                            .reply_type = REDIS_REPLY_INTEGER,
                                            .is_idempotent = false};
  reply_ptr reply;
  const int ret = run({operation, redisSrvType, key, {{field, f_len}}, options_.deadline()}, &reply,
                      "HINCRBY %s %b %lld ", key, field, f_len, increment);
  if (ret != RUVO_OK) {
    return ret;
  }
  store(result, reply->integer);
  RUVO_LOG(DEBUG,
           "ruvo_redis::hash_incr_by | HINCRBY key %s, field:%s success, after incr, value is %lld",
           key, field, reply->integer);
  return RUVO_OK;
}

int ruvo_redis::hash_fields_num(const char* key, long long* fields_num,
                                RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::hash_fields_num",
                                            .null_text = null_key,
                                            .reply_type = REDIS_REPLY_INTEGER};
  reply_ptr reply;
  const int ret =
      run({operation, redisSrvType, key, {}, options_.deadline()}, &reply, "HLEN %s", key);
  if (ret != RUVO_OK) {
    return ret;
  }
  store(fields_num, reply->integer);
  if (reply->integer == 0) {
    RUVO_LOG(DEBUG, "ruvo_redis::hash_fields_num | key:%s not exist.", key);
  }
  // Prints the address of the caller's variable, not the count: deployed systems know the line.
  RUVO_LOG(DEBUG, "ruvo_redis::hash_fields_num | get key:%s fields num successfully, num:%lld.",
           key, static_cast<long long>(reinterpret_cast<std::intptr_t>(fields_num)));
  return RUVO_OK;
}

int ruvo_redis::hash_del_field(const char* key, const char* field, unsigned long f_len,
                               RedisServerType redisSrvType, const char* /*server_addr*/) {
  static constexpr data_operation operation{.origin = "ruvo_redis::hash_del_field",
                                            .null_text = null_key_or_field};
  return run({operation, redisSrvType, key, {{field, f_len}}, options_.deadline()}, no_reply,
             "HDEL %s %b", key, field, f_len);
}

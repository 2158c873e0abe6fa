#include "data_operation.h"

#include <cstring>
#include <new>

#include "ruvo_redis.h"

int ruvo_redis::run(const data_operation& operation,
                    std::initializer_list<required_argument> required, reply_ptr* reply,
                    RedisServerType redisSrvType, const char* key, const char* format, ...) {
  if (!initialized_.load(std::memory_order_acquire)) {
    RUVO_LOG(ERROR, "%s | redis is not initialized", operation.origin);
    return RUVO_ERR_NOT_INITIALIZED;
  }
  for (const required_argument& argument : required) {
    if (argument.pointer == nullptr) {
      RUVO_LOG(ERROR, "%s | %s", operation.origin, operation.null_text);
      return RUVO_ERR_NULL_ARGUMENT;
    }
  }
  for (const required_argument& argument : required) {
    if (argument.length > max_argument_length) {
      RUVO_LOG(ERROR, "%s | too long for redis: %zu bytes", operation.origin, argument.length);
      return RUVO_ERR_FAILED;
    }
  }
  va_list args;
  va_start(args, format);
  const int ret = exec_command(key, reply, redisSrvType, format, args);
  va_end(args);
  if (ret != RUVO_OK) {
    RUVO_LOG_AT(ret == RUVO_ERR_NOT_FOUND ? operation.absent_level : BaseLib::Logger::ERROR,
                "%s | do_exec_command failed, ret:%d", operation.failed_origin, ret);
    return ret;
  }
  RUVO_LOG(INFO, "%s | do_exec_command success!", operation.origin);
  if (reply == no_reply) {
    return RUVO_OK;
  }
  if (!*reply && operation.policy == reply_policy::strict) {
    RUVO_LOG(ERROR, "%s | reply is NULL", operation.origin);
    return RUVO_ERR_NO_REPLY;
  }
  if (operation.reply_type != any_type && !has_type(operation, *reply, operation.reply_type, key)) {
    return RUVO_ERR_FAILED;
  }
  return RUVO_OK;
}

bool has_type(const data_operation& operation, const reply_ptr& reply, int type, const char* key) {
  if (!reply || reply->type == type) {
    return reply != nullptr;
  }
  if (operation.policy == reply_policy::lenient) {
    RUVO_LOG(WARN, "%s | key:%s, unexpected reply type:%d", operation.origin, key, reply->type);
  } else {
    RUVO_LOG(ERROR, "%s | unexpected redis type:%d", operation.origin, reply->type);
  }
  return false;
}

int copy_out(const redisReply& reply, const char** data, unsigned long* len) {
  const auto size = static_cast<std::size_t>(reply.len);
  if (len != nullptr) {
    *len = size;
  }
  if (data == nullptr) {
    return RUVO_OK;
  }
  char* const buffer = new (std::nothrow) char[size];
  *data = buffer;
  if (buffer == nullptr) {
    RUVO_LOG(ERROR, "ruvo_redis::query_key | overflow.");  // one text, whoever asked
    return RUVO_ERR_NO_MEMORY;
  }
  std::memcpy(buffer, reply.str, size);
  return RUVO_OK;
}

int collect(const data_operation& operation, const redisReply& reply,
            std::vector<std::string>& values, const char* key) {
  if (reply.element == nullptr || reply.elements == 0) {
    RUVO_LOG(DEBUG, "%s | failed, key:%s", operation.origin, key);
    return RUVO_NOTHING_DONE;
  }
  values.reserve(reply.elements);
  for (std::size_t i = 0; i < reply.elements; ++i) {
    const redisReply* element = reply.element[i];
    if (element != nullptr && element->type == REDIS_REPLY_STRING && has_text(*element)) {
      values.emplace_back(element->str, element->len);
    }
  }
  RUVO_LOG(DEBUG, "%s | success, key:%s", operation.origin, key);
  return RUVO_OK;
}

#include "data_operation.h"

#include <cstring>
#include <new>

#include "ruvo_redis.h"
#include "statistics.h"

namespace {

// Redis' own limit. hiredis counts the bytes of a command in an int, and writes past its buffer if
// there are more.
constexpr std::size_t max_argument_length = std::size_t{512} << 20U;

}  // namespace

int ruvo_redis::run(const operation_call& call, reply_ptr* reply, const char* format, ...) {
  const data_operation& operation = call.operation;
  if (!is_initialized()) {
    RUVO_LOG_SHARED(BaseLib::Logger::ERROR, operation.origin, 0, "%s | redis is not initialized",
                    operation.origin);
    return RUVO_ERR_NOT_INITIALIZED;
  }
  bool null_pointer = call.key == nullptr;
  for (const required_argument& argument : call.required) {
    null_pointer = null_pointer || argument.pointer == nullptr;
  }
  if (null_pointer) {
    RUVO_LOG_SHARED(BaseLib::Logger::ERROR, operation.origin, 0, "%s | %s", operation.origin,
                    operation.null_text);
    return RUVO_ERR_NULL_ARGUMENT;
  }
  for (const required_argument& argument : call.required) {
    if (argument.length > max_argument_length) {
      note_cause(RUVO_STATS_BAD_ARGUMENT);
      RUVO_LOG_SHARED(BaseLib::Logger::ERROR, operation.origin, 0,
                      "%s | too long for redis: %zu bytes", operation.origin, argument.length);
      return RUVO_ERR_FAILED;
    }
  }
  va_list args;
  va_start(args, format);
  const call_terms terms{call.deadline, must_not_resend(operation.is_idempotent)};
  const int ret = exec_command(terms, call.key, reply, call.pool, format, args);
  va_end(args);
  if (ret != RUVO_OK) {
    RUVO_LOG_SHARED(ret == RUVO_ERR_NOT_FOUND ? operation.absent_level : BaseLib::Logger::ERROR,
                    operation.origin, ret, "%s | do_exec_command failed, ret:%d",
                    operation.failed_origin, ret);
    return ret;
  }
  RUVO_LOG(INFO, "%s | do_exec_command success!", operation.origin);
  if (operation.verb != nullptr) {
    RUVO_LOG(DEBUG, "%s | %s  %s successfully.", operation.origin, operation.verb, call.key);
  }
  if (reply == no_reply) {
    return RUVO_OK;
  }
  if (!*reply) {
    // No server can cause this: a success has a reply. Kept because the result code is documented.
    RUVO_LOG_SHARED(BaseLib::Logger::ERROR, operation.origin, 0, "%s | reply is NULL",
                    operation.origin);
    return RUVO_ERR_NO_REPLY;
  }
  if (operation.reply_type != any_type &&
      !has_type(operation, **reply, operation.reply_type, call.key)) {
    reply->reset();
    return operation.unexpected_result;
  }
  return RUVO_OK;
}

bool has_type(const data_operation& operation, const redisReply& reply, int type, const char* key) {
  if (reply.type == type) {
    return true;
  }
  note_cause(RUVO_STATS_UNEXPECTED_REPLY);
  if (operation.policy == unexpected_type::warned_with_key) {
    RUVO_LOG_SHARED(BaseLib::Logger::WARN, operation.origin, 0,
                    "%s | key:%s, unexpected reply type:%d", operation.origin, key, reply.type);
  } else {
    RUVO_LOG_SHARED(BaseLib::Logger::ERROR, operation.origin, 0, "%s | unexpected redis type:%d",
                    operation.origin, reply.type);
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
    RUVO_LOG(ERROR, "ruvo_redis::query_key | overflow.");  // one text for every operation
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

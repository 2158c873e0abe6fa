// What the data operations share. Each is a member of ruvo_redis that
//
//   1. describes itself in a data_operation,
//   2. calls run(), which refuses null pointers, runs the command, logs how it went and compares
//      the reply's type,
//   3. reads the reply, if it wants one, with the readers below, and fills the caller's results.
#ifndef RUVO_DATA_OPERATION_H
#define RUVO_DATA_OPERATION_H

#include <initializer_list>
#include <string>
#include <vector>

#include "exchange.h"
#include "log_line.h"
#include "ruvo.h"

constexpr int no_expiry = -1;  // the key never expires
constexpr int any_type = 0;    // accepts a reply of any type

// Log texts about null pointers that more than one operation uses.
constexpr const char* null_key = "key is NULL";
constexpr const char* null_key_or_field = "key or field is NULL";
constexpr const char* null_key_or_value = "key or value is NULL";

// How an operation logs a reply of an unexpected type.
enum class unexpected_type {
  warned_with_key,  // string keys
  logged_as_error   // the others
};

struct data_operation {
  const char* origin;                  // class and method at the start of its log lines
  const char* null_text;               // log text if a required pointer is null
  const char* failed_origin = origin;  // may name another method: deployed systems rely on it
  const char* verb = nullptr;          // in the log line of a success; null: there is none
  BaseLib::Logger::LogLevel absent_level = BaseLib::Logger::ERROR;  // of the line about a nil reply
  int reply_type = any_type;
  unexpected_type policy = unexpected_type::logged_as_error;
  int unexpected_result = RUVO_ERR_FAILED;  // for a reply of another type
  bool is_idempotent = true;                // a second run has no further effect
};

// A pointer that must not be null, with the length of its data if the caller gives one.
struct required_argument {
  required_argument(const void* given, std::size_t bytes = 0) : pointer(given), length(bytes) {}
  const void* pointer;
  std::size_t length;
};

// One call of an operation.
struct operation_call {
  const data_operation& operation;
  RedisServerType pool;
  const char* key;
  std::initializer_list<required_argument> required;  // besides the key
  time_point deadline;
};

constexpr reply_ptr* no_reply = nullptr;  // for run(): the operation wants only the code

// Is the reply of this type? If not, the log says so.
bool has_type(const data_operation& operation, const redisReply& reply, int type, const char* key);

// Copies the bytes of a reply into a buffer for the caller, see RUVO_QueryKey; skips a null result.
// RUVO_ERR_NO_MEMORY if no buffer can be allocated.
int copy_out(const redisReply& reply, const char** data, unsigned long* len);

// Appends the texts of an array reply to `values`, without empty ones and elements of other types.
// RUVO_NOTHING_DONE if the array is empty.
int collect(const data_operation& operation, const redisReply& reply,
            std::vector<std::string>& values, const char* key);

// Does the reply carry a text of at least one byte?
inline bool has_text(const redisReply& reply) { return reply.str != nullptr && reply.len > 0; }

// Stores a result, unless the caller does not want it.
inline void store(long long* result, long long value) {
  if (result != nullptr) {
    *result = value;
  }
}

#endif

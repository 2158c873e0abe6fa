// What the data operations share. Each is a member of ruvo_redis that
//
//   1. describes itself in a data_operation,
//   2. calls run(), which refuses null pointers, runs the command, tells the log how it went and
//      compares the reply's type,
//   3. reads the reply, where it wants one, with the readers below, and fills the caller's results.
#ifndef RUVO_DATA_OPERATION_H
#define RUVO_DATA_OPERATION_H

#include <initializer_list>
#include <string>
#include <vector>

#include "exchange.h"
#include "log_line.h"
#include "ruvo.h"

constexpr int no_expiry = -1;  // as a caller's expiry: the key never expires
constexpr int any_type = 0;    // as a type of reply: whatever comes

// What the log says of null pointers in more than one operation.
constexpr const char* null_key = "key is NULL";
constexpr const char* null_key_or_field = "key or field is NULL";
constexpr const char* null_key_or_value = "key or value is NULL";

// How an operation tells of a reply of a type that it does not expect.
enum class unexpected_type {
  warned_with_key,  // string keys
  told_as_error     // the others
};

struct data_operation {
  const char* origin;                  // class and method that its log lines begin with
  const char* null_text;               // what the log says when a required pointer is null
  const char* failed_origin = origin;  // some name another method: deployed systems rely on it
  const char* verb = nullptr;          // of the line that tells of its success, where it has one
  BaseLib::Logger::LogLevel absent_level = BaseLib::Logger::ERROR;  // at which a nil reply is told
  int reply_type = any_type;
  unexpected_type policy = unexpected_type::told_as_error;
  int unexpected_result = RUVO_ERR_FAILED;  // of a reply of another type
  bool is_idempotent = true;                // may run twice
};

// A pointer that must not be null, with the length of what it points to where the caller gives one.
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

constexpr reply_ptr* no_reply = nullptr;  // to run(): the operation wants only the code

// Is the reply of this type? If not, the log says so.
bool has_type(const data_operation& operation, const redisReply& reply, int type, const char* key);

// Stores the bytes of a reply in a buffer for the caller, see RUVO_QueryKey; a null result is left
// out. RUVO_ERR_NO_MEMORY when there is no buffer to be had.
int copy_out(const redisReply& reply, const char** data, unsigned long* len);

// Appends the texts of an array reply to `values`; what is no text, or an empty one, is left out.
// RUVO_NOTHING_DONE when the array is empty.
int collect(const data_operation& operation, const redisReply& reply,
            std::vector<std::string>& values, const char* key);

// Does the reply carry a text of at least one byte?
inline bool has_text(const redisReply& reply) { return reply.str != nullptr && reply.len > 0; }

// Fills a result of the caller, who may not want it.
inline void store(long long* result, long long value) {
  if (result != nullptr) {
    *result = value;
  }
}

#endif

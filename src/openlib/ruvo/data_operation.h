// What the data operations share. Each is a member of ruvo_redis that
//
//   1. describes itself in a data_operation,
//   2. calls run(), which refuses null pointers, runs the command, passes on its failure and tells
//      the log of both,
//   3. reads the reply, where it wants one, with the readers below, and fills the caller's results.
#ifndef RUVO_DATA_OPERATION_H
#define RUVO_DATA_OPERATION_H

#include <string>
#include <vector>

#include "exchange.h"
#include "log_line.h"

// How an operation takes a reply of a type that it does not expect, or none at all.
enum class reply_policy {
  lenient,  // string keys: a warning that names the key; no reply is passed over
  strict    // the others: an error, and so is no reply
};

constexpr int any_type = 0;  // the operation looks at the reply's type itself

// A pointer that must not be null, with the length of what it points to where the caller gives one.
struct required_argument {
  required_argument(const void* given,
                    std::size_t bytes = 0)  // NOLINT(google-explicit-constructor)
      : pointer(given), length(bytes) {}
  const void* pointer;
  std::size_t length;
};

// What Redis takes at most. hiredis counts the bytes of a command in an int, and more than that has
// it write past its buffer.
constexpr std::size_t max_argument_length = std::size_t{512} << 20U;

struct data_operation {
  const char* origin;                  // class and method that its log lines begin with
  const char* null_text;               // what the log says when a required pointer is null
  const char* failed_origin = origin;  // some name another method: deployed systems rely on it
  BaseLib::Logger::LogLevel absent_level = BaseLib::Logger::ERROR;  // at which a nil reply is told
  reply_policy policy = reply_policy::strict;
  int reply_type = any_type;  // another one ends a strict operation with RUVO_ERR_FAILED
};

constexpr reply_ptr* no_reply = nullptr;  // to run(): the operation wants only the code

// What the log says of null pointers in more than one family.
constexpr const char* null_key = "key is NULL";
constexpr const char* null_key_or_value = "key or value is NULL";

// Is the reply of this type? If not, the log says so.
bool has_type(const data_operation& operation, const reply_ptr& reply, int type, const char* key);

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

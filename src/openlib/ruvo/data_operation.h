// What the data operations share. Each is a member of ruvo_redis that
//
//   1. describes itself in a data_operation,
//   2. calls run(), which refuses null pointers, runs the command, passes on its failure and tells
//      the log of both,
//   3. reads the reply, where it wants one, with the readers below, and fills the caller's results.
#ifndef RUVO_DATA_OPERATION_H
#define RUVO_DATA_OPERATION_H

#include "exchange.h"
#include "log_line.h"

// How an operation takes a reply of a type that it does not expect, or none at all.
enum class reply_policy {
  lenient,  // string keys: a warning that names the key; no reply is passed over
  strict    // the others: an error, and so is no reply
};

struct data_operation {
  const char* origin;                  // class and method that its log lines begin with
  const char* null_text;               // what the log says when a required pointer is null
  const char* failed_origin = origin;  // some name another method here: log filters match them
  BaseLib::Logger::LogLevel absent_level = BaseLib::Logger::ERROR;  // at which a nil reply is told
  reply_policy policy = reply_policy::strict;
};

constexpr reply_ptr* no_reply = nullptr;  // to run(): the operation wants only the code

// Is the reply of this type? If not, the log says so.
bool has_type(const data_operation& operation, const reply_ptr& reply, int type, const char* key);

// Stores the bytes of a reply in a buffer for the caller, see RUVO_QueryKey. RUVO_ERR_NO_MEMORY
// when there is none.
int copy_out(const redisReply& reply, const char** data, unsigned long* len);

#endif

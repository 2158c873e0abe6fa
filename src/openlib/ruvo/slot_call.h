// A call's visit to a connection slot: one send, and a second one after a break.
//
// An exclusive_call holds the slot's lock for the whole visit. With auto_pipelining, a
// pipelined_call shares the connection with others.
#ifndef RUVO_SLOT_CALL_H
#define RUVO_SLOT_CALL_H

#include <utility>

#include "exchange.h"
#include "statistics.h"

enum class send_end { replied, unanswered, rebuild_failed, out_of_time, lock_failed };

// What bounds a call's waits, and whether its command may be resent.
struct send_terms {
  wait_limits limits;
  bool is_timed = false;         // keep times even if the send itself does not need them
  bool must_not_resend = false;  // once a byte of it may have reached a server
  server_stats* stats = nullptr;
};

// Opens a connection in place of a slot's broken one; null when that fails.
class rebuilder {
 public:
  virtual context_ptr rebuild() = 0;

 protected:
  ~rebuilder() = default;
};

// The outcome of a call's sends.
struct send_outcome {
  time_point sent_at{};   // if times are kept
  bool was_sent = false;  // a byte of the command may have reached a server
  bool rebuild_failed = false;
  bool counts_failure = false;  // of the calls that share a failure, one counts it
  bool is_first_reply = false;  // on its connection
};

class slot_call {
 public:
  slot_call() = default;
  slot_call(const slot_call&) = delete;
  slot_call& operator=(const slot_call&) = delete;

  // The first send. Without a reply, error() says why the connection was given up.
  virtual send_end send() = 0;
  // The second send: rebuilds the connection, and sends the command once more. It must follow if
  // send() ends `unanswered`, or if give_up() drops the reply of send(), since the call may be in a
  // queue. The exception is a command that was sent and must not be resent: it is in no queue.
  virtual send_end send_again(rebuilder& rebuilder) = 0;
  // The server has answered that it will not serve: the connection is given up. Log lines show this
  // as error 5 (REDIS_ERR_OOM) with the reply's text.
  virtual void give_up(const char* reason) = 0;

  const send_outcome& outcome() const { return outcome_; }
  const connection_error& error() const { return error_; }
  const redisReply* reply() const { return reply_.get(); }
  reply_ptr take_reply() { return std::move(reply_); }

 protected:
  ~slot_call() = default;

  send_outcome outcome_;
  connection_error error_;
  reply_ptr reply_;
};

#endif

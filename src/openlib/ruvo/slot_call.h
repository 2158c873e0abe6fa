// A call's visit to a connection slot: one send, and a second one after a break.
//
// An exclusive_call holds the slot's lock for the whole visit. With auto_pipelining, a
// pipelined_call shares the connection with others.
#ifndef RUVO_SLOT_CALL_H
#define RUVO_SLOT_CALL_H

#include <atomic>
#include <cstdint>
#include <utility>

#include "exchange.h"
#include "statistics.h"

struct conn_node;

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

// A call at a slot. With auto_pipelining all but the signal is guarded by the slot's lock while the
// call is in a list.
struct queued_call {
  enum class place : std::uint8_t { nowhere, unsent, alone, in_flight };
  static constexpr std::uint32_t asleep = 0;
  static constexpr std::uint32_t recheck = 1;  // there may be work for this call
  static constexpr std::uint32_t done = 2;

  const wire_command* wire = nullptr;
  time_point deadline = no_deadline;
  reply_ptr reply;
  connection_error error;
  time_point sent_at{};               // if times are kept
  bool was_sent = false;              // a byte of it may have reached a server
  std::size_t written = 0;            // bytes of the command that the socket has taken
  std::uint32_t replies_to_skip = 0;  // replies of calls that have left, due before this one's
  place where = place::nowhere;
  bool is_being_written = false;  // a writing thread has its address
  bool wakes_by_itself = false;   // sleeps at most for the pause
  bool is_leaving = false;        // its deadline has come while it is being written
  bool is_second_send = false;
  bool must_not_resend = false;  // once a byte of it may have reached the server
  bool has_broken = false;       // its first send ended without a reply; not reported yet
  bool shares_rebuild = false;   // waited when the current rebuild began
  bool rebuild_failed = false;
  bool counts_failure = false;   // of the calls that share an event, one counts it
  bool is_first_reply = false;   // on its connection
  std::uint64_t sent_after = 0;  // rebuilds of the connection before this send
  queued_call* previous = nullptr;
  queued_call* next = nullptr;
  std::atomic<std::uint32_t> signal{recheck};
  std::uint32_t number = 0;  // at its connection: selects the word it sleeps on
  waiting_mark waiting;      // to be sent for the first time
};

class slot_call {
 public:
  explicit slot_call(const wire_command& wire, const send_terms& terms) {
    call_.wire = &wire;
    call_.deadline = terms.limits.deadline;
    call_.must_not_resend = terms.must_not_resend;
    call_.waiting.begin(terms.stats);
  }
  slot_call(const slot_call&) = delete;
  slot_call& operator=(const slot_call&) = delete;

  // The first send. Without a reply, the call's error says why the connection was given up.
  virtual send_end send() = 0;
  // The second send: rebuilds the connection, and sends the command once more.
  // REQUIRES: send() has found no reply, or give_up() has refused the one it found.
  virtual send_end send_again(rebuilder& rebuilder) = 0;
  // The server has answered that it will not serve: the connection is given up.
  virtual void give_up(const char* reason) = 0;

  reply_ptr take_reply() { return std::move(call_.reply); }
  const queued_call& state() const { return call_; }

 protected:
  ~slot_call() = default;

  queued_call call_;
};

#endif

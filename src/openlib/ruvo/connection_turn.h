// A thread's turn at a connection slot.
//
// Alone, a turn is the slot's lock: a thread that finds it taken waits for it, and each waits for
// the whole round trip of those before it. Shared (auto_pipelining), threads that meet on a slot
// share its round trips: who finds it busy leaves its command in the slot's line and sleeps. When
// the slot becomes free, the oldest of the line leads: it takes the lock, sends all commands that
// wait, in order of arrival, in one write, and reads their replies in order. So a thread comes back
// from its wait either leading, with the lock, or served: with its reply, or knowing why there is
// none. A second send gets in line anew, behind those that have come meanwhile.
//
// The line is one word of the slot, conn_node::line_:
//
//   null            the slot is free
//   `busy`          it is taken, and nobody waits
//   another call    it is taken, and this call is the newest of those that wait; each knows the one
//                   that came before it
//
// Who comes changes the word in one atomic step, from null to `busy` or from what it holds to its
// own call. Who has the slot takes the whole line at once, leaving `busy`, and turns it round; only
// that thread sets the word back to null, and only from `busy`, so that nobody is forgotten.
//
// Memory order. A call is written before its address is published by the (releasing) step of who
// comes, and read after the (acquiring) step of who takes the line. What becomes of a call (its
// reply, or that it leads) is written before its `fate` is stored with release, and read by its
// thread after loading `fate` with acquire. That store is the last touch: the call lies on the
// stack of its thread, which may go on at once. What a turn has done to the context and the slot's
// fields is handed to the next turn by the slot's lock, which every leader takes, and by the
// release with which the word becomes null or a fate is stored.
#ifndef RUVO_CONNECTION_TURN_H
#define RUVO_CONNECTION_TURN_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "exchange.h"
#include "server_pool.h"

// Bounds of a batch. A larger command goes alone.
constexpr std::size_t max_batch_bytes = std::size_t{64} << 10U;
constexpr std::size_t max_batch_commands = 128;

// A call at a slot, and what has become of it.
struct waiting_call {
  enum class call_fate : std::uint32_t { waits, leads, served };

  using time_point = std::chrono::steady_clock::time_point;

  bool goes_alone() const { return wire->refused() || wire->length() > max_batch_bytes; }
  bool is_late() const {
    return not_after != time_point::max() && std::chrono::steady_clock::now() >= not_after;
  }
  void note_error(const redisContext& context);

  const wire_command* wire = nullptr;
  reply_ptr reply;
  bool sent = false;                          // over a connection that
  std::uint64_t sent_after = 0;               //   had been rebuilt so often
  time_point not_after = time_point::max();   // left out of batches then
  bool is_left_out = false;                   // for being late
  bool rebuild_failed = false;                // by the thread that led
  int error = 0;                              // of the broken connection; 0: it told of none
  decltype(redisContext::errstr) error_text;  // of that error

  // The line.
  std::atomic<call_fate> fate{call_fate::waits};
  waiting_call* neighbour = nullptr;  // who came before; once the line is taken, who came after
  waiting_call* last = nullptr;       // of the line that a new leader finds behind itself
};

class connection_turn {
 public:
  // A turn at `slot`; one that is shared takes another free slot of the server when that is busy.
  connection_turn(server_node& server, conn_node& slot, const wire_command& wire, bool is_shared)
      : slot_(&slot), is_shared_(is_shared) {
    call_.wire = &wire;
    has_slot_ = is_shared && take_free_slot(server);
  }
  ~connection_turn() { leave(); }
  connection_turn(const connection_turn&) = delete;
  connection_turn& operator=(const connection_turn&) = delete;

  // Waits until this thread leads or its command has been served. False when the slot's lock could
  // not be taken.
  bool wait() { return is_shared_ ? wait_in_line() : lock(); }

  bool leads() const { return leads_; }
  conn_node& slot() { return *slot_; }
  waiting_call& call() { return call_; }

  // Has the connection been replaced since this call was sent over it?
  // REQUIRES: leads().
  bool was_rebuilt() const { return call_.sent && slot_->rebuilds_ != call_.sent_after; }

  // Sends the command, and with it those that wait, and hands out the replies. Those that get none
  // are woken at once, the others when this thread leaves or has to wait for the next reply.
  // REQUIRES: leads(), and the context is not broken.
  void send() {
    if (is_shared_) {
      send_batch();
    } else {
      send_alone();
    }
  }

  // Before and after a rebuild that fails: those that waited when it began share that, too. Who
  // comes meanwhile has not met the fault, and tries for itself.
  // REQUIRES: leads().
  void begin_rebuild();
  void share_failed_rebuild();

  // Gives the slot to the oldest of those that wait, and wakes those that have been served.
  void leave() {
    if (leads_) {
      slot_->lock_->release();
      leads_ = false;
    }
    if (is_shared_) {
      leave_line();
    }
  }

 private:
  bool lock() {
    leads_ = slot_->lock_->acquire() != -1;
    return leads_;
  }
  void send_alone();

  // What follows is for shared turns.
  bool take_free_slot(server_node& server);
  bool wait_in_line();
  void take_line();
  std::span<waiting_call*> fill_batch();
  void send_batch();
  std::size_t exchange_batch(redisContext& context, std::span<waiting_call*> batch);
  void wake_served(std::size_t end);
  void leave_line();
  void hand_over();

  conn_node* slot_;
  waiting_call call_;
  bool is_shared_;
  bool has_slot_;                  // is the one whose `busy` stands in the slot's word
  bool leads_ = false;             // holds the slot's lock
  waiting_call* first_ = nullptr;  // the line behind this thread, oldest first
  waiting_call* last_ = nullptr;
  std::array<waiting_call*, max_batch_commands> batch_;  // the latest, this call at its head
  std::size_t batch_size_ = 0;
  std::size_t woken_ = 0;  // so many of it need not be woken any more
};

#endif

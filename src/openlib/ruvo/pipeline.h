// Calls that share a connection in full duplex (auto_pipelining).
//
// A slot has a queue of calls to be sent (`unsent`, then `alone`) and a list of calls whose replies
// are due (`in_flight`), each in order. A call appends itself to `unsent`. Then, in a loop, it does
// the work on the connection that it must do, or sleeps until it is woken (pipelined_call::wait()):
//
//   write    The call that finds that a write may begin puts the waiting commands in flight and
//            sends them. A write may begin at once while few commands are in flight; otherwise it
//            waits for the next reply, or for a pause after the last write, so that commands share
//            a system call.
//   read     The call whose reply is due first reads. It hands out every reply that has arrived,
//            hands the reading over to the call that is due next, writes the waiting commands,
//            wakes the calls that it has served, and returns: it never keeps reading for others.
//   rebuild  The call at the head of the queue replaces a broken connection; see finish_break() for
//            the commands that are resent, and their order.
//
// A thread that changes the next step wakes the call that must do it: the front of `in_flight` if
// nobody reads, the head of the queue if nobody writes. Only the head of the queue wakes by itself
// after the pause; the others sleep until they are woken or their deadline comes.
//
// Locking. The slot's lock guards everything here. It is released during a write, a read, a rebuild
// or a sleep: with `is_writing`, `is_reading` or `is_rebuilding` set, one thread has the context's
// socket, reader or replacement to itself. The last thread that returns finishes a break.
//
// Lifetime and memory order. A call is on the stack of its thread. While it is in a list or being
// written, other threads access it with the lock held. After that they only store `done` in its
// signal, with release: that is their last access. Its thread loads the signal with acquire, and so
// sees what they have written before (its reply). A call that is in no list and not done waits for
// that store. It sleeps on a word of the slot, which outlives it: one for each 32 calls in the
// order of their arrival, with a bit for each, so that a system call wakes up to 32 served calls. A
// waker changes the word after the signals, and a sleeper reads the word before its signal: either
// it sees the signal, or the system finds the word changed.
#ifndef RUVO_PIPELINE_H
#define RUVO_PIPELINE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "slot_call.h"

struct conn_node;
struct server_node;

// With `direct_sends` commands in flight, more are held back to share a write, for at most the
// pause. Measured with GET on one connection: with fewer direct sends 2 to 4 threads are slower,
// and without a pause 64 threads on loopback lose half their rate. After a write of a single
// command the long pause would add 6 % to the latency of 16 threads at a round trip of 1 ms.
constexpr std::size_t direct_sends = 4;
constexpr std::chrono::microseconds write_pause{100};
constexpr std::chrono::microseconds short_write_pause{20};

// A near server is neither on this host nor far away: the network is most of the round trip, and
// the long pause would be much of it. At 0.2 ms, more direct sends and the short pause make 8 and
// 16 threads 10 to 20 % faster. From `few_in_flight` commands in flight on the processors are the
// limit, and sharing a write saves more than waiting costs.
constexpr std::chrono::microseconds shortest_near_round_trip{80};
constexpr std::chrono::microseconds longest_near_round_trip{500};
constexpr std::size_t near_direct_sends = 8;
constexpr std::size_t few_in_flight = 32;

// Upper bounds of a write. A larger command is written by itself.
constexpr std::size_t max_write_commands = 128;
constexpr std::size_t max_write_bytes = std::size_t{64} << 10U;

// A connection under constant traffic is drained once in this interval, or in this number of round
// trips if they take longer, to check whether it is in step: no reply has come that no command
// asked for.
constexpr std::chrono::milliseconds check_interval{100};
constexpr int check_round_trips = 64;
constexpr std::chrono::milliseconds longest_check{20};  // bound of the wait for a stray reply

constexpr std::size_t calls_per_word = 32;  // that sleep on it
constexpr std::size_t sleep_words = 8;  // calls beyond these share bits, and may be woken in vain

// A call as other threads see it. All but the signal is guarded by the slot's lock while it is in a
// list or being written.
struct queued_call : send_outcome {
  enum class place : std::uint8_t { nowhere, unsent, alone, in_flight };
  static constexpr std::uint32_t asleep = 0;
  static constexpr std::uint32_t recheck = 1;  // there may be work for this call
  static constexpr std::uint32_t done = 2;

  const wire_command* wire = nullptr;
  time_point deadline = no_deadline;
  reply_ptr reply;
  connection_error error;             // why the connection was given up
  std::size_t written = 0;            // bytes of the command that the socket has taken
  std::uint32_t replies_to_skip = 0;  // replies of calls that have left, due before this one's
  place where = place::nowhere;
  bool is_being_written = false;  // a writing thread has a pointer to it
  bool wakes_by_itself = false;   // sleeps at most for the pause
  bool is_leaving = false;        // its deadline has come while it is being written
  bool is_second_send = false;
  bool must_not_resend = false;  // once a byte of it may have reached the server
  bool has_broken = false;       // its first send ended without a reply; not reported yet
  bool shares_rebuild = false;   // waited when the current rebuild began
  std::uint64_t rebuilds_before_send = 0;
  queued_call* previous = nullptr;
  queued_call* next = nullptr;
  std::atomic<std::uint32_t> signal{recheck};
  std::uint32_t number = 0;  // at its connection: selects the word it sleeps on
  waiting_mark waiting;      // to be sent for the first time
};

class call_list {
 public:
  queued_call* front() const { return first_; }
  bool empty() const { return first_ == nullptr; }
  std::size_t size() const { return size_; }
  void insert_before(queued_call* position, queued_call& call);  // null: at the end
  void push_back(queued_call& call) { insert_before(nullptr, call); }
  void remove(queued_call& call);
  queued_call& pop_front();

 private:
  queued_call* first_ = nullptr;
  queued_call* last_ = nullptr;
  std::size_t size_ = 0;
};

// What a slot knows about the calls that share it. Guarded by the slot's lock, except `users` and
// `words`, and `forks`, which changes only in the child of a fork, before it has other threads.
struct pipeline_state {
  call_list unsent;  // second sends first
  call_list alone;   // to be sent with nothing else in flight
  call_list in_flight;
  std::uint32_t replies_to_skip = 0;  // replies of calls that have left, due after all of in_flight
  bool is_reading = false;
  bool is_writing = false;
  bool is_rebuilding = false;
  bool is_blocked = false;  // the socket takes no more bytes
  bool is_alone = false;    // the command in flight was sent alone
  bool is_ending = false;   // takes no more commands; given up once nothing is in flight
  bool has_failed_to_write = false;
  bool is_broken = false;     // the break waits for a thread that reads or writes
  bool has_answered = false;  // since it was opened
  bool was_checked = false;   // whether it is in step, since the last write
  connection_error end;       // why it is given up
  time_point last_write{};
  std::chrono::microseconds pause{0};  // after the last write
  time_point last_arrival{};           // of bytes
  time_point last_silence{};           // the latest that counted as a failure
  time_point last_check{};
  std::chrono::nanoseconds round_trip{0};           // the shortest since the last check
  std::chrono::nanoseconds known_round_trip{0};     // the shortest between the last two checks
  std::chrono::nanoseconds shortest_round_trip{0};  // since it was opened
  std::uint64_t forks = 0;                          // of the process, down to this child
  std::uint32_t next_number = 0;                    // of a call
  std::array<std::uint32_t, sleep_words> words{};   // calls sleep on these; atomic references
  std::uint32_t users = 0;  // calls at the slot, through atomic references; plus one while
                            // replies of calls that have left are due

  // The next call to be sent, which also rebuilds a broken connection.
  queued_call* head() const { return !unsent.empty() ? unsent.front() : alone.front(); }
};

// A call's visit to a slot whose connection other calls use at the same time.
class pipelined_call final : public slot_call {
 public:
  // Uses `slot`, or an unused slot of the server if `slot` is in use.
  pipelined_call(server_node& server, conn_node& slot, const wire_command& wire,
                 const send_terms& terms);
  ~pipelined_call();

  send_end send() override;
  send_end send_again(rebuilder& rebuilder) override;
  void give_up(const char* reason) override;

 private:
  class guard;
  enum class write_chance { now, after_pause, on_event };

  void enqueue();
  send_end conclude(send_end end);
  bool join_after_fork();
  send_end wait(guard& lock, rebuilder* rebuilder);
  send_end end_of_call() const;
  void sleep(guard& lock, time_point until);
  void sleep_until_done();
  bool sleep_once(time_point until);
  bool is_broken() const;
  void note_broken_connection();

  write_chance may_write(time_point now, bool has_replied) const;
  bool is_near() const;
  std::chrono::microseconds pause_after(std::size_t commands) const;
  void put_in_flight(queued_call& call, time_point now);
  std::size_t take_batch(std::span<queued_call*> batch, time_point now);
  void write(guard& lock, time_point now);
  void note_written(guard& lock, std::span<queued_call*> batch, std::size_t bytes);
  void put_back(queued_call& call);
  void stop_writing(int error);
  void wait_until_writable(guard& lock);
  void check_in_step(guard& lock, time_point now);

  void read(guard& lock, time_point now);
  // Takes ownership of the replies.
  void deliver(guard& lock, std::span<redisReply*> replies, time_point now);
  void check_idle_connection();

  void break_off();
  void finish_break(guard& lock);
  void rebuild(guard& lock, rebuilder& rebuilder);
  void share_failed_rebuild(guard& lock);
  void leave(guard& lock);
  void wake_next(guard& lock);

  conn_node& slot_;
  pipeline_state& state_;
  queued_call call_;
  send_terms terms_;
  std::uint64_t forks_;
};

#endif

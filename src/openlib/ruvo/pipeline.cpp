#include "pipeline.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "connection.h"
#include "futex.h"
#include "server_pool.h"
#include "slot_lock.h"

namespace {

using clock = std::chrono::steady_clock;
using place = queued_call::place;

void add_user(pipeline_state& state) {
  std::atomic_ref(state.users).fetch_add(1, std::memory_order_relaxed);
}

void remove_user(pipeline_state& state) {
  std::atomic_ref(state.users).fetch_sub(1, std::memory_order_relaxed);
}

// Replies that nobody waits for any more make a slot count as used, so others are chosen first.
void set_replies_to_skip(pipeline_state& state, std::uint32_t replies) {
  if ((state.replies_to_skip == 0) != (replies == 0)) {
    replies > 0 ? add_user(state) : remove_user(state);
  }
  state.replies_to_skip = replies;
}

// With nothing in flight a check costs no round trip. The shortest round trip since the connection
// was opened counts: a single slow reply must not put off the next checks.
bool is_check_due(const pipeline_state& state, time_point now) {
  const std::chrono::nanoseconds interval =
      state.in_flight.empty() ? check_interval
                              : std::max<std::chrono::nanoseconds>(
                                    check_interval, check_round_trips * state.shortest_round_trip);
  return now - state.last_check >= interval;
}

// Before a write with nothing in flight: a command that must not be resent must not be lost on a
// connection that its server has closed.
bool needs_check(const pipeline_state& state, time_point now) {
  const queued_call* next = state.head();
  while (next != nullptr && (!next->must_not_resend || next->is_second_send)) {
    next = next->next;
  }
  return is_check_due(state, now) || (next != nullptr && !state.was_checked);
}

// The first call whose command may be sent. A call past its deadline is passed over: its own thread
// removes it from the list. The rest of a partly written command is sent in any case.
queued_call* first_to_send(const call_list& list, time_point now) {
  queued_call* call = list.front();
  while (call != nullptr && call->written == 0 && now >= call->deadline) {
    call = call->next;
  }
  return call;
}

// Must the next command be sent alone? Second sends come before it.
bool must_send_alone_next(const pipeline_state& state, time_point now) {
  if (first_to_send(state.alone, now) == nullptr) {
    return false;
  }
  const queued_call* next = first_to_send(state.unsent, now);
  return next == nullptr || (!next->is_second_send && next->written == 0);
}

// Returns the first unused slot of the server from `slot` on, or `slot` if all are used. This call
// then counts as one of its users.
conn_node& choose_slot(server_node& server, conn_node& slot) {
  const std::size_t count = server.context_arr_.size();
  const auto first = static_cast<std::size_t>(&slot - server.context_arr_.data());
  for (std::size_t i = 0; i < count; ++i) {
    conn_node& candidate = server.context_arr_[(first + i) % count];
    const std::atomic_ref users(candidate.pipeline_.users);
    std::uint32_t none = 0;
    // Reads first: among many used slots, only the unused one is written to.
    if (users.load(std::memory_order_relaxed) == 0 &&
        users.compare_exchange_strong(none, 1, std::memory_order_relaxed)) {
      return candidate;
    }
  }
  add_user(slot.pipeline_);
  return slot;
}

// The word that a call sleeps on, and the call's bit in it.
std::size_t word_of(std::uint32_t number) { return number / calls_per_word % sleep_words; }
std::uint32_t bit_of(std::uint32_t number) { return 1U << number % calls_per_word; }

}  // namespace

void call_list::insert_before(queued_call* position, queued_call& call) {
  call.next = position;
  call.previous = position != nullptr ? position->previous : last_;
  (call.previous != nullptr ? call.previous->next : first_) = &call;
  (position != nullptr ? position->previous : last_) = &call;
  ++size_;
}

void call_list::remove(queued_call& call) {
  (call.previous != nullptr ? call.previous->next : first_) = call.next;
  (call.next != nullptr ? call.next->previous : last_) = call.previous;
  call.previous = call.next = nullptr;
  --size_;
}

queued_call& call_list::pop_front() {
  queued_call& call = *first_;
  remove(call);
  return call;
}

// Holds the slot's lock, except while it is released for a wait. Threads that are signalled
// meanwhile are woken at the release: before it, they would only wait for the lock.
class pipelined_call::guard {
 public:
  explicit guard(conn_node& slot) : mutex_(*slot.lock_), words_(slot.pipeline_.words) {}
  ~guard() {
    if (is_held_) {
      unlock();
    }
  }
  guard(const guard&) = delete;
  guard& operator=(const guard&) = delete;

  lock_end lock_until(time_point deadline) {
    const lock_end end = ::lock_until(mutex_, deadline);
    is_held_ = end == lock_end::locked;
    return end;
  }
  void lock() {
    pthread_mutex_lock(native_handle(mutex_));
    is_held_ = true;
  }
  void unlock() {
    is_held_ = false;
    mutex_.release();
    if (std::exchange(has_sleepers_, false)) {
      wake_sleepers();
    }
  }
  bool is_held() const { return is_held_; }

  // With `done`, this is the last access to the call.
  void send_signal(queued_call& call, std::uint32_t value) {
    const std::uint32_t number = call.number;
    if (call.signal.exchange(value, std::memory_order_release) == queued_call::asleep) {
      sleepers_[word_of(number)] |= bit_of(number);
      has_sleepers_ = true;
    }
  }

 private:
  void wake_sleepers() {
    for (std::size_t i = 0; i < sleep_words; ++i) {
      if (const std::uint32_t bits = std::exchange(sleepers_[i], 0); bits != 0) {
        std::atomic_ref(words_[i]).fetch_add(1, std::memory_order_release);
        wake(&words_[i], bits);
      }
    }
  }

  ACE_Thread_Mutex& mutex_;
  std::array<std::uint32_t, sleep_words>& words_;
  bool is_held_ = false;
  bool has_sleepers_ = false;
  std::array<std::uint32_t, sleep_words> sleepers_{};  // bits to wake, by word
};

pipelined_call::pipelined_call(server_node& server, conn_node& slot, const wire_command& wire,
                               const send_terms& terms)
    : slot_(choose_slot(server, slot)),
      state_(slot_.pipeline_),
      terms_(terms),
      forks_(state_.forks) {
  call_.wire = &wire;
  call_.deadline = terms.limits.deadline;
  call_.must_not_resend = terms.must_not_resend;
  call_.waiting.begin(terms.stats);
}

pipelined_call::~pipelined_call() {
  if (state_.forks != forks_) {
    return;  // in the child of a fork: the slot is a new one, without this call
  }
  remove_user(state_);
}

// ---- The two sends ----

send_end pipelined_call::send() {
  guard lock(slot_);
  switch (lock.lock_until(terms_.limits.deadline)) {
    case lock_end::locked:
      break;
    case lock_end::failed:
      return send_end::lock_failed;
    case lock_end::timed_out:
      return send_end::out_of_time;
  }
  enqueue();
  const send_end end = wait(lock, nullptr);
  return conclude(std::exchange(call_.has_broken, false) ? send_end::unanswered : end);
}

send_end pipelined_call::send_again(rebuilder& rebuilder) {
  guard lock(slot_);
  lock.lock();
  join_after_fork();
  return conclude(wait(lock, &rebuilder));
}

// In the child of a fork, puts the call into the queue of the child's slot and returns true: what
// the parent's threads have done for it does not count.
bool pipelined_call::join_after_fork() {
  if (state_.forks == forks_) {
    return false;
  }
  call_.where = place::nowhere;
  call_.written = 0;
  call_.replies_to_skip = 0;
  call_.is_being_written = call_.is_leaving = false;
  add_user(state_);
  enqueue();
  return true;
}

// Between its sends a call is in a list, and may change: the caller gets a copy.
send_end pipelined_call::conclude(send_end end) {
  outcome_ = call_;
  if (end == send_end::replied) {
    reply_.swap(call_.reply);
  } else {
    error_ = call_.error;
  }
  return end;
}

void pipelined_call::give_up(const char* reason) {
  guard lock(slot_);
  lock.lock();
  call_.error = connection_error(REDIS_ERR_OOM, reason);
  call_.was_sent = false;
  call_.written = 0;
  // Only the first of the calls that share a failure counts it.
  call_.counts_failure =
      call_.rebuilds_before_send == slot_.rebuilds_ && !state_.is_ending && !is_broken();
  if (call_.counts_failure) {
    state_.is_ending = true;
    state_.end = call_.error;
  }
  if (!std::exchange(call_.is_second_send, true)) {
    enqueue();
  }
  if (state_.in_flight.empty()) {
    check_idle_connection();
  }
  wake_next(lock);
  conclude(send_end::unanswered);
}

// Second sends come before first sends, but not into the middle of a command; both keep their
// order.
void pipelined_call::enqueue() {
  forks_ = state_.forks;
  call_.number = state_.next_number++;
  call_.wakes_by_itself = false;
  call_.signal.store(queued_call::recheck, std::memory_order_relaxed);
  if (call_.wire->refused()) {
    call_.where = place::alone;
    state_.alone.push_back(call_);
    return;
  }
  queued_call* position = nullptr;
  if (call_.is_second_send) {
    position = state_.unsent.front();
    while (position != nullptr && (position->is_second_send || position->written > 0)) {
      position = position->next;
    }
  }
  call_.where = place::unsent;
  state_.unsent.insert_before(position, call_);
}

// Does the work on the connection that this call must do, until it has a reply or has failed.
send_end pipelined_call::wait(guard& lock, rebuilder* rebuilder) {
  for (;;) {
    if (call_.where == place::nowhere) {
      lock.unlock();
      sleep_until_done();
      return end_of_call();
    }
    if (call_.has_broken && rebuilder == nullptr) {
      return send_end::unanswered;
    }
    const time_point now = clock::now();
    if (now >= call_.deadline && !call_.is_being_written) {
      leave(lock);
      return send_end::out_of_time;
    }
    call_.is_leaving = now >= call_.deadline;
    time_point until = call_.is_leaving ? no_deadline : call_.deadline;
    const bool is_head = state_.head() == &call_;
    if (is_broken()) {
      if (is_head && !state_.is_rebuilding && !state_.is_reading && !state_.is_writing) {
        if (rebuilder == nullptr) {
          note_broken_connection();
          return send_end::unanswered;
        }
        rebuild(lock, *rebuilder);
        continue;
      }
    } else if (is_head && state_.is_blocked && !state_.is_writing) {
      wait_until_writable(lock);
      continue;
    } else {
      const write_chance chance = may_write(now, false);
      if (chance == write_chance::now) {
        write(lock, now);
        continue;
      }
      // While its command is being written, this call may still have to write the rest.
      if (state_.in_flight.front() == &call_ && !state_.is_reading && !call_.is_being_written) {
        read(lock, now);
        continue;
      }
      if (is_head && chance == write_chance::after_pause) {
        until = std::min(until, (state_.is_writing ? now : state_.last_write) + state_.pause);
        call_.wakes_by_itself = true;
      }
    }
    sleep(lock, until);
    if (!lock.is_held()) {
      return end_of_call();
    }
  }
}

send_end pipelined_call::end_of_call() const {
  if (call_.reply) {
    return send_end::replied;
  }
  return call_.rebuild_failed ? send_end::rebuild_failed : send_end::unanswered;
}

// The call has ended: another thread is about to store `done`.
void pipelined_call::sleep_until_done() {
  std::uint32_t signal = queued_call::recheck;
  call_.signal.compare_exchange_strong(signal, queued_call::asleep, std::memory_order_acquire);
  while (call_.signal.load(std::memory_order_acquire) != queued_call::done) {
    sleep_once(no_deadline);
  }
}

// Sleeps unless the call has a signal. Returns false if it has one or `until` has come.
bool pipelined_call::sleep_once(time_point until) {
  std::uint32_t& word = state_.words[word_of(call_.number)];
  const std::uint32_t value = std::atomic_ref(word).load(std::memory_order_acquire);
  return call_.signal.load(std::memory_order_acquire) == queued_call::asleep &&
         sleep_on(&word, value, until, bit_of(call_.number));
}

// Returns with the lock held, or without it once the call is done.
void pipelined_call::sleep(guard& lock, time_point until) {
  call_.signal.store(queued_call::asleep, std::memory_order_relaxed);
  lock.unlock();
  while (sleep_once(until)) {
  }
  if (call_.signal.load(std::memory_order_acquire) != queued_call::done) {
    lock.lock();
    call_.wakes_by_itself = false;
  }
}

// Only a thread that reads changes the context without the lock.
bool pipelined_call::is_broken() const {
  return state_.is_broken || (!state_.is_reading && ::is_broken(slot_.context_));
}

// The connection was broken before this call could use it: that counts as its first send.
void pipelined_call::note_broken_connection() {
  if (slot_.context_ != nullptr) {
    call_.error = connection_error(*slot_.context_);
  }
  call_.is_second_send = true;
}

// ---- Writing ----

pipelined_call::write_chance pipelined_call::may_write(time_point now, bool has_replied) const {
  if (state_.is_rebuilding || state_.is_blocked || state_.has_failed_to_write || is_broken()) {
    return write_chance::on_event;
  }
  const queued_call* next = first_to_send(state_.unsent, now);
  if (next != nullptr && next->written > 0) {
    return state_.is_writing ? write_chance::on_event : write_chance::now;  // the rest of it
  }
  if (state_.is_ending || state_.is_alone) {
    return write_chance::on_event;
  }
  if (must_send_alone_next(state_, now)) {
    return state_.in_flight.empty() && !state_.is_writing ? write_chance::now
                                                          : write_chance::on_event;
  }
  if (next == nullptr || (!state_.in_flight.empty() && is_check_due(state_, now))) {
    return write_chance::on_event;
  }
  if (state_.is_writing) {
    return write_chance::after_pause;
  }
  const std::size_t direct = is_near() ? near_direct_sends : direct_sends;
  const bool at_once =
      state_.in_flight.size() < direct || has_replied || now - state_.last_write >= state_.pause;
  return at_once ? write_chance::now : write_chance::after_pause;
}

bool pipelined_call::is_near() const {
  return state_.shortest_round_trip >= shortest_near_round_trip &&
         state_.shortest_round_trip <= longest_near_round_trip;
}

std::chrono::microseconds pipelined_call::pause_after(std::size_t commands) const {
  const bool is_latency_bound = is_near() && state_.in_flight.size() < few_in_flight;
  return commands == 1 || is_latency_bound ? short_write_pause : write_pause;
}

void pipelined_call::put_in_flight(queued_call& call, time_point now) {
  call.where = place::in_flight;
  call.sent_at = now;
  call.was_sent = true;
  call.waiting.end();
  call.rebuilds_before_send = slot_.rebuilds_;
  call.replies_to_skip = state_.replies_to_skip;
  set_replies_to_skip(state_, 0);
  state_.in_flight.push_back(call);
}

// Puts waiting commands in flight, oldest first and within the bounds of a write. Calls past their
// deadline stay: they are about to leave.
std::size_t pipelined_call::take_batch(std::span<queued_call*> batch, time_point now) {
  std::size_t count = 0;
  std::size_t bytes = 0;
  // A connection that is ending takes the rest of a command, and no more.
  const std::size_t max_calls = state_.is_alone || state_.is_ending ? 1 : batch.size();
  for (queued_call* call = state_.unsent.front(); call != nullptr && count < max_calls;) {
    queued_call* const next = call->next;
    if (now < call->deadline || call->written > 0) {
      bytes += call->wire->length();
      if (count > 0 && bytes > max_write_bytes) {
        break;
      }
      state_.unsent.remove(*call);
      put_in_flight(*call, now);
      call->is_being_written = true;
      batch[count++] = call;
    }
    call = next;
  }
  return count;
}

void pipelined_call::write(guard& lock, time_point now) {
  if (state_.in_flight.empty() && state_.replies_to_skip == 0 && needs_check(state_, now)) {
    check_in_step(lock, now);
    return;
  }
  std::array<queued_call*, max_write_commands> calls;
  std::array<iovec, max_write_commands> bytes;
  std::size_t count = 1;
  if (must_send_alone_next(state_, now)) {
    queued_call& call = *first_to_send(state_.alone, now);
    state_.alone.remove(call);
    put_in_flight(call, now);
    state_.is_alone = true;
    if (call.wire->refused()) {
      call.was_sent = false;
      call.wire->report_refusal(*slot_.context_);
      break_off();
      wake_next(lock);
      return;
    }
    call.is_being_written = true;
    calls[0] = &call;
  } else {
    count = take_batch(calls, now);
  }
  const std::span<queued_call*> batch = std::span(calls).first(count);
  std::transform(batch.begin(), batch.end(), bytes.begin(), [](const queued_call* call) {
    return iovec{call->wire->bytes() + call->written, call->wire->length() - call->written};
  });
  state_.is_writing = true;
  state_.was_checked = false;
  state_.last_write = now;
  state_.pause = pause_after(count);
  lock.unlock();
  const ssize_t sent = send_some(*slot_.context_, std::span(bytes).first(count));
  const int error = errno;
  lock.lock();
  state_.is_writing = false;
  note_written(lock, batch, sent > 0 ? static_cast<std::size_t>(sent) : 0);
  if (sent < 0) {
    stop_writing(error);
  } else if (state_.is_ending && state_.in_flight.empty()) {
    check_idle_connection();  // the connection began to end while its socket was full
  }
  wake_next(lock);
}

// Commands that the socket has taken completely are in flight; the others go back to the head of
// the queue. A call whose reply has already arrived is done.
void pipelined_call::note_written(guard& lock, std::span<queued_call*> batch, std::size_t bytes) {
  for (queued_call* call : batch) {
    const std::size_t taken = std::min(bytes, call->wire->length() - call->written);
    bytes -= taken;
    call->written += taken;
  }
  for (std::size_t i = batch.size(); i-- > 0;) {
    queued_call& call = *batch[i];
    call.is_being_written = false;
    if (call.where == place::nowhere) {
      if (call.written < call.wire->length()) {  // its reply is out of step
        state_.end = out_of_step_error();
        break_off();
      }
      lock.send_signal(call, queued_call::done);
      continue;
    }
    if (call.written < call.wire->length()) {
      put_back(call);
    }
    if (call.is_leaving) {
      lock.send_signal(call, queued_call::recheck);
    }
  }
}

void pipelined_call::put_back(queued_call& call) {
  state_.in_flight.remove(call);
  set_replies_to_skip(state_, state_.replies_to_skip + std::exchange(call.replies_to_skip, 0));
  if (call.written == 0) {
    call.was_sent = false;
  }
  const bool returns_alone = state_.is_alone && call.written == 0;
  call.where = returns_alone ? place::alone : place::unsent;
  call_list& list = returns_alone ? state_.alone : state_.unsent;
  list.insert_before(list.front(), call);
  state_.is_alone = state_.is_alone && call.written > 0;
  state_.is_blocked = true;
}

// A connection that takes no bytes may still hold received replies: those are read first.
void pipelined_call::stop_writing(int error) {
  state_.is_blocked = false;
  state_.has_failed_to_write = true;
  if (!std::exchange(state_.is_ending, true)) {
    state_.end = system_error(error);
  }
  if (state_.in_flight.empty()) {
    check_idle_connection();
  }
}

// The socket's buffer is full: the head of the queue waits until it takes more.
void pipelined_call::wait_until_writable(guard& lock) {
  const auto timeout = terms_.limits.socket_timeout;
  const time_point end = timeout.count() > 0 ? state_.last_write + timeout : no_deadline;
  state_.is_writing = true;
  lock.unlock();
  const wait_end waited = wait_for_peer(*slot_.context_, POLLOUT, std::min(end, call_.deadline));
  lock.lock();
  state_.is_writing = false;
  if (waited != wait_end::timed_out) {
    state_.is_blocked = false;
  } else if (clock::now() < call_.deadline) {
    state_.end = timeout_error();
    break_off();
  }
  wake_next(lock);
}

// Nothing is in flight: nobody asked for bytes that arrive now. A stray reply that has shifted the
// others arrives within a round trip of the last command: the check waits for it, but not for long,
// since calls wait for the check.
void pipelined_call::check_in_step(guard& lock, time_point now) {
  state_.is_writing = true;
  state_.last_check = now;
  const time_point stray_reply_due = state_.last_write + state_.known_round_trip;
  state_.known_round_trip = std::exchange(state_.round_trip, std::chrono::nanoseconds(0));
  lock.unlock();
  if (stray_reply_due > now) {
    wait_for_peer(*slot_.context_, POLLIN,
                  std::min({stray_reply_due, now + longest_check, call_.deadline}));
  }
  const connection_error found = check_unused(*slot_.context_);
  lock.lock();
  state_.is_writing = false;
  state_.was_checked = true;
  if (found.code != 0) {
    state_.end = found;
    break_off();
  }
  wake_next(lock);
}

// ---- Reading ----

void pipelined_call::read(guard& lock, time_point now) {
  redisContext& context = *slot_.context_;
  const auto timeout = terms_.limits.socket_timeout;
  const time_point due =
      timeout.count() > 0 ? std::max(call_.sent_at, state_.last_arrival) + timeout : no_deadline;
  std::array<redisReply*, max_write_commands> replies;
  const std::size_t max_replies =
      std::min(replies.size(), state_.in_flight.size() + call_.replies_to_skip);
  std::size_t count = 0;
  const auto take_replies = [&] {
    while (count < max_replies && (replies[count] = next_reply(context).release()) != nullptr) {
      ++count;
    }
  };
  state_.is_reading = true;
  lock.unlock();
  wait_end end = wait_end::ready;
  bool has_received = false;
  take_replies();
  if (count == 0 && context.err == 0) {
    end = receive_some(context, timeout, std::min(due, call_.deadline));
    has_received = end == wait_end::ready;
    take_replies();
  }
  now = clock::now();
  lock.lock();
  state_.is_reading = false;
  if (has_received) {
    state_.last_arrival = now;
  }
  if (state_.is_broken) {  // by another thread, which has recorded the reason
    set_error(context, state_.end);
  }
  if (context.err == 0 && end == wait_end::timed_out && now < call_.deadline) {
    set_error(context, timeout_error());
  }
  if (context.err != 0) {
    break_off();
  }
  deliver(lock, std::span(replies).first(count), now);
}

// Gives the replies to their calls, hands the reading over to the next call, and writes the waiting
// commands. Only then wakes the served calls: what they do next needs the processor, too.
void pipelined_call::deliver(guard& lock, std::span<redisReply*> replies, time_point now) {
  std::array<queued_call*, max_write_commands> served;
  std::size_t count = 0;
  for (redisReply* received : replies) {
    reply_ptr reply(received);
    queued_call* const first = state_.in_flight.front();
    if (first == nullptr && state_.replies_to_skip == 0) {  // its command has been put back
      state_.end = out_of_step_error();
      break_off();
      continue;
    }
    if (first == nullptr) {
      set_replies_to_skip(state_, state_.replies_to_skip - 1);
      continue;
    }
    if (first->replies_to_skip > 0) {
      --first->replies_to_skip;
      continue;
    }
    queued_call& call = state_.in_flight.pop_front();
    call.where = place::nowhere;
    call.reply = std::move(reply);
    call.is_first_reply = std::exchange(slot_.awaits_first_reply_, false);
    state_.has_answered = true;
    const std::chrono::nanoseconds round_trip = now - call.sent_at;
    if (state_.round_trip.count() == 0 || round_trip < state_.round_trip) {
      state_.round_trip = round_trip;
    }
    if (state_.shortest_round_trip.count() == 0 || round_trip < state_.shortest_round_trip) {
      state_.shortest_round_trip = round_trip;
    }
    if (!call.is_being_written) {
      served[count++] = &call;
    }
  }
  if (state_.in_flight.empty()) {
    state_.is_alone = false;
    check_idle_connection();
  }
  wake_next(lock);
  for (bool has_replied = !replies.empty(); may_write(now, has_replied) == write_chance::now;) {
    if (state_.in_flight.empty() && needs_check(state_, now)) {
      break;  // a check may wait: the next call does it, the served ones do not pay for it
    }
    write(lock, now);
    has_replied = false;
  }
  for (queued_call* call : std::span(served).first(count)) {
    lock.send_signal(*call, queued_call::done);
  }
}

// Nothing is in flight: gives up the connection if it is ending or out of step.
void pipelined_call::check_idle_connection() {
  redisContext& context = *slot_.context_;
  if (context.err != 0) {
    return;
  }
  const auto may_write_rest = [this] {
    const queued_call* head = state_.head();
    return head != nullptr && head->written > 0 && !state_.has_failed_to_write;
  };
  if (state_.is_ending && !may_write_rest()) {
    set_error(context, state_.end);
  } else if (state_.replies_to_skip == 0) {
    break_if_out_of_step(context);
  }
  if (context.err != 0) {
    break_off();
  }
}

// ---- Breaks ----

// The connection is unusable. Threads that wait for its socket return at once; the last of them
// calls finish_break().
void pipelined_call::break_off() {
  state_.is_broken = true;
  if (state_.is_reading || state_.is_writing) {
    ::shutdown(slot_.context_->fd, SHUT_RDWR);
  }
}

// Called after anything that may change the next step.
void pipelined_call::wake_next(guard& lock) {
  if (state_.is_broken && !state_.is_reading && !state_.is_writing && !state_.is_rebuilding) {
    finish_break(lock);
  }
  queued_call* const reads = state_.in_flight.front();
  if (reads != nullptr && reads != &call_ && !state_.is_reading && !reads->is_being_written) {
    lock.send_signal(*reads, queued_call::recheck);
  }
  queued_call* const head = state_.head();
  if (head != nullptr && head != &call_ && !head->wakes_by_itself && !state_.is_writing &&
      !state_.is_rebuilding) {
    lock.send_signal(*head, queued_call::recheck);
  }
}

// A break uses up a send of each call in flight. Those behind the call whose reply was due are
// resent first, in their order; that call is resent alone and after them, so that a command which
// stalls or kills its connection fails by itself. A command that was sent twice has failed.
void pipelined_call::finish_break(guard& lock) {
  redisContext& context = *slot_.context_;
  if (context.err == 0) {
    set_error(context, state_.end);
  }
  // The call whose reply was due, unless it has left.
  queued_call* const first = state_.in_flight.front();
  queued_call* const due = first != nullptr && first->replies_to_skip == 0 ? first : nullptr;
  // A partly written command counts as sent.
  while (!state_.unsent.empty() && state_.unsent.front()->written > 0) {
    state_.in_flight.push_back(state_.unsent.pop_front());
  }
  bool is_counted = false;
  const auto end = [&](queued_call& call) {
    call.where = place::nowhere;
    call.counts_failure = !std::exchange(is_counted, true);
    lock.send_signal(call, queued_call::done);
  };
  // A connection that broke before it answered anything would not answer the second sends in
  // `alone` either: they fail, too.
  for (queued_call* call = state_.has_answered ? nullptr : state_.alone.front(); call != nullptr;) {
    queued_call* const next = call->next;
    if (call->is_second_send) {
      state_.alone.remove(*call);
      end(*call);
    }
    call = next;
  }
  queued_call* const later = state_.unsent.front();
  while (!state_.in_flight.empty()) {
    queued_call& call = state_.in_flight.pop_front();
    call.error = connection_error(context);
    call.written = 0;
    call.replies_to_skip = 0;
    const bool is_resent = !call.is_second_send && !(call.must_not_resend && call.was_sent);
    call.has_broken = !call.is_second_send;
    if (!is_resent) {
      end(call);
      continue;
    }
    call.is_second_send = true;
    const bool goes_alone = &call == due || call.wire->refused();
    call.where = goes_alone ? place::alone : place::unsent;
    if (goes_alone) {
      state_.alone.push_back(call);
    } else {
      state_.unsent.insert_before(later, call);
    }
    lock.send_signal(call, queued_call::recheck);
  }
  set_replies_to_skip(state_, 0);
  state_.is_broken = false;  // or the next check would count it against the second sends, too
  state_.is_alone = state_.is_blocked = state_.is_ending = state_.has_failed_to_write = false;
}

void pipelined_call::rebuild(guard& lock, rebuilder& rebuilder) {
  state_.is_rebuilding = true;
  for (call_list* list : {&state_.unsent, &state_.alone}) {
    for (queued_call* call = list->front(); call != nullptr; call = call->next) {
      call->shares_rebuild = true;
    }
  }
  lock.unlock();
  context_ptr fresh = rebuilder.rebuild();
  lock.lock();
  if (join_after_fork()) {
    return;  // a log output has forked the process: the connection may be the parent's
  }
  state_.is_rebuilding = false;
  if (fresh) {
    replace_context(slot_, std::move(fresh));
    state_.has_answered = false;
    state_.round_trip = state_.known_round_trip = state_.shortest_round_trip =
        std::chrono::nanoseconds(0);
    state_.last_check = clock::now();
  } else if (clock::now() < call_.deadline) {
    share_failed_rebuild(lock);
  } else {
    call_.rebuild_failed = call_.counts_failure = true;
  }
  wake_next(lock);
}

// Calls that arrived meanwhile do not share the failure: they try again themselves.
void pipelined_call::share_failed_rebuild(guard& lock) {
  for (call_list* list : {&state_.unsent, &state_.alone}) {
    for (queued_call* call = list->front(); call != nullptr;) {
      queued_call* const next = call->next;
      if (call->shares_rebuild) {
        list->remove(*call);
        call->where = place::nowhere;
        call->rebuild_failed = true;
        call->counts_failure = call == &call_;
        if (slot_.context_ != nullptr && call->error.code == 0) {
          call->error = connection_error(*slot_.context_);
        }
        lock.send_signal(*call, queued_call::done);
      }
      call = next;
    }
  }
}

// The deadline has come. A command in flight still gets a reply, which will be dropped.
void pipelined_call::leave(guard& lock) {
  if (call_.where == place::in_flight) {
    queued_call* const next = call_.next;
    const std::uint32_t replies = call_.replies_to_skip + 1;
    state_.in_flight.remove(call_);
    if (next != nullptr) {
      next->replies_to_skip += replies;
    } else {
      set_replies_to_skip(state_, state_.replies_to_skip + replies);
    }
    if (state_.in_flight.empty()) {
      state_.is_alone = false;
      check_idle_connection();
    }
    if (state_.last_arrival <= call_.sent_at && state_.last_silence <= call_.sent_at) {
      call_.counts_failure = true;
      state_.last_silence = clock::now();  // shared by the calls in flight together
      slot_.awaits_first_reply_ = true;    // which ends the silence
    }
  } else if (call_.where != place::nowhere) {
    (call_.where == place::alone ? state_.alone : state_.unsent).remove(call_);
    if (call_.written > 0) {
      state_.end = deadline_error();
      break_off();
    }
  }
  call_.where = place::nowhere;
  wake_next(lock);
}

#include "connection_turn.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace {

using call_fate = waiting_call::call_fate;

waiting_call busy_mark;
waiting_call* const busy = &busy_mark;

void sleep_until_fated(const std::atomic<call_fate>& fate) {
  while (fate.load(std::memory_order_acquire) == call_fate::waits) {
    // Returns at once when the fate has come meanwhile.
    ::syscall(SYS_futex, &fate, FUTEX_WAIT_PRIVATE, call_fate::waits, nullptr, nullptr, 0);
  }
}

// The last touch of the call. The system is then told an address, which it does not look into.
void wake(waiting_call& call, call_fate fate) {
  std::atomic<call_fate>* const address = &call.fate;
  address->store(fate, std::memory_order_release);
  ::syscall(SYS_futex, address, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

// Looks first: among many slots that are taken, only the free one is to be written to.
bool take_if_free(conn_node& slot) {
  const std::atomic_ref line(slot.line_);
  waiting_call* state = line.load(std::memory_order_relaxed);
  return state == nullptr && line.compare_exchange_strong(state, busy, std::memory_order_acquire,
                                                          std::memory_order_relaxed);
}

// Takes the slot if it is free, else gets in its line. True when the slot was taken.
bool take_or_join(conn_node& slot, waiting_call& call) {
  const std::atomic_ref line(slot.line_);
  waiting_call* newest = line.load(std::memory_order_relaxed);
  do {
    call.neighbour = newest == busy ? nullptr : newest;
  } while (!line.compare_exchange_weak(newest, newest == nullptr ? busy : &call,
                                       std::memory_order_acq_rel, std::memory_order_relaxed));
  return newest == nullptr;
}

}  // namespace

void waiting_call::note_error(const redisContext& context) {
  error = context.err;
  std::copy(std::begin(context.errstr), std::end(context.errstr), error_text);
}

// The slot whose turn it is, or the next free one.
bool connection_turn::take_free_slot(server_node& server) {
  const std::size_t count = server.context_arr_.size();
  const auto turn = static_cast<std::size_t>(slot_ - server.context_arr_.data());
  for (std::size_t i = 0; i < count; ++i) {
    conn_node& candidate = server.context_arr_[(turn + i) % count];
    if (take_if_free(candidate)) {
      slot_ = &candidate;
      return true;
    }
  }
  return false;
}

bool connection_turn::wait_in_line() {
  if (!has_slot_) {
    call_.fate.store(call_fate::waits, std::memory_order_relaxed);
    if (!take_or_join(*slot_, call_)) {
      sleep_until_fated(call_.fate);
      if (call_.fate.load(std::memory_order_relaxed) == call_fate::served) {
        return true;
      }
      first_ = call_.neighbour;
      last_ = call_.last;
    }
    has_slot_ = true;
  }
  return lock();
}

// Appends those that have come to the line behind this thread.
void connection_turn::take_line() {
  const std::atomic_ref line(slot_->line_);
  if (line.load(std::memory_order_relaxed) == busy) {
    return;
  }
  waiting_call* const newest = line.exchange(busy, std::memory_order_acquire);
  waiting_call* oldest = nullptr;
  for (waiting_call* call = newest; call != nullptr;) {
    waiting_call* const before = call->neighbour;
    call->neighbour = oldest;
    oldest = call;
    call = before;
  }
  (first_ == nullptr ? first_ : last_->neighbour) = oldest;
  last_ = newest;
}

// This call and, of those behind it, as many as a batch holds; they then stand no longer in line.
std::span<waiting_call*> connection_turn::fill_batch() {
  batch_[0] = &call_;
  batch_size_ = 1;
  woken_ = 1;
  if (call_.goes_alone()) {
    return std::span(batch_).first(1);
  }
  take_line();
  std::size_t bytes = call_.wire->length();
  while (first_ != nullptr && batch_size_ < batch_.size() && !first_->goes_alone()) {
    if (first_->is_late()) {
      waiting_call& late = *std::exchange(first_, first_->neighbour);
      late.is_left_out = true;
      wake(late, call_fate::served);
      continue;
    }
    bytes += first_->wire->length();
    if (bytes > max_batch_bytes) {
      break;
    }
    batch_[batch_size_++] = std::exchange(first_, first_->neighbour);
  }
  return std::span(batch_).first(batch_size_);
}

void connection_turn::send_alone() {
  call_.sent = true;
  call_.sent_after = slot_->rebuilds_;
  call_.reply = exchange(*slot_->context_, *call_.wire);
  if (!call_.reply) {
    call_.note_error(*slot_->context_);
  }
}

void connection_turn::send_batch() {
  const std::span<waiting_call*> batch = fill_batch();
  if (batch.size() == 1) {
    send_alone();
    return;
  }
  redisContext& context = *slot_->context_;
  for (waiting_call* call : batch) {
    call->sent = true;
    call->sent_after = slot_->rebuilds_;
  }
  const std::size_t replies = exchange_batch(context, batch);
  if (replies < batch.size()) {
    for (waiting_call* call : batch.subspan(replies)) {
      call->note_error(context);
    }
    wake_served(batch.size());
  }
}

// Returns the number of replies that came.
std::size_t connection_turn::exchange_batch(redisContext& context, std::span<waiting_call*> batch) {
  std::array<iovec, max_batch_commands> bytes;
  std::transform(batch.begin(), batch.end(), bytes.begin(), [](const waiting_call* call) {
    return iovec{call->wire->bytes(), call->wire->length()};
  });
  if (!send_together(context, std::span(bytes).first(batch.size()))) {
    return 0;
  }
  for (std::size_t replies = 0; replies < batch.size(); ++replies) {
    reply_ptr reply = received_reply(context);
    if (!reply) {
      wake_served(replies);  // rather than let them wait for what is not theirs
      reply = wait_for_reply(context);
    }
    if (!reply) {
      return replies;
    }
    batch[replies]->reply = std::move(reply);
  }
  break_if_out_of_step(context);
  return batch.size();
}

void connection_turn::wake_served(std::size_t end) {
  while (woken_ < end) {
    wake(*batch_[woken_++], call_fate::served);
  }
}

void connection_turn::begin_rebuild() {
  if (is_shared_) {
    take_line();
  }
}

void connection_turn::share_failed_rebuild() {
  while (first_ != nullptr) {
    waiting_call& call = *std::exchange(first_, first_->neighbour);
    call.rebuild_failed = true;
    if (slot_->context_ != nullptr) {
      call.note_error(*slot_->context_);
    }
    wake(call, call_fate::served);
  }
}

void connection_turn::leave_line() {
  if (has_slot_) {
    has_slot_ = false;
    hand_over();
  }
  wake_served(batch_size_);  // the next leader first: it has a round trip before it
}

void connection_turn::hand_over() {
  waiting_call* expected = busy;
  if (first_ == nullptr &&
      std::atomic_ref(slot_->line_)
          .compare_exchange_strong(expected, nullptr, std::memory_order_release,
                                   std::memory_order_relaxed)) {
    return;
  }
  if (first_ == nullptr) {
    take_line();
  }
  first_->last = last_;
  wake(*std::exchange(first_, nullptr), call_fate::leads);
}

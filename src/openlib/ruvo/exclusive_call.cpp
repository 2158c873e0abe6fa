#include "exclusive_call.h"

#include "connection.h"
#include "server_pool.h"
#include "slot_lock.h"

exclusive_call::exclusive_call(conn_node& slot, const wire_command& wire, const send_terms& terms)
    : slot_(slot),
      wire_(wire),
      limits_(terms.limits),
      is_timed_(terms.is_timed),
      must_not_resend_(terms.must_not_resend),
      forks_(slot.pipeline_.forks) {
  outcome_.counts_failure = true;
  waiting_.begin(terms.stats);
}

exclusive_call::~exclusive_call() {
  // In the child of a fork the lock is a new one, which this call does not hold.
  if (has_lock_ && forks_ == slot_.pipeline_.forks) {
    slot_.lock_->release();
  }
}

send_end exclusive_call::send() {
  switch (lock_until(*slot_.lock_, limits_.deadline)) {
    case lock_end::locked:
      has_lock_ = true;
      waiting_.end();
      break;
    case lock_end::failed:
      return send_end::lock_failed;
    case lock_end::timed_out:
      return send_end::out_of_time;
  }
  if (must_not_resend_ && !is_broken(slot_.context_)) {
    // The command must not be lost on a connection that its server has closed.
    const connection_error found = check_unused(*slot_.context_);
    if (found.code != 0) {
      set_error(*slot_.context_, found);
    }
  }
  if (is_broken(slot_.context_)) {
    if (slot_.context_ != nullptr) {
      error_ = connection_error(*slot_.context_);
    }
    return send_end::unanswered;
  }
  return exchange_over_slot();
}

send_end exclusive_call::send_again(rebuilder& rebuilder) {
  context_ptr fresh = rebuilder.rebuild();
  if (!fresh) {
    outcome_.rebuild_failed = true;
    return limits_.has_passed() ? send_end::out_of_time : send_end::rebuild_failed;
  }
  replace_context(slot_, std::move(fresh));
  return limits_.has_passed() ? send_end::out_of_time : exchange_over_slot();
}

void exclusive_call::give_up(const char* reason) {
  error_ = connection_error(REDIS_ERR_OOM, reason);
  outcome_.was_sent = false;
  set_error(*slot_.context_, error_);
}

send_end exclusive_call::exchange_over_slot() {
  if (is_timed_) {
    outcome_.sent_at = std::chrono::steady_clock::now();
  }
  reply_ = exchange(*slot_.context_, wire_, limits_, &outcome_.was_sent);
  if (reply_) {
    outcome_.is_first_reply = std::exchange(slot_.awaits_first_reply_, false);
    return send_end::replied;
  }
  error_ = connection_error(*slot_.context_);
  return limits_.has_passed() ? send_end::out_of_time : send_end::unanswered;
}

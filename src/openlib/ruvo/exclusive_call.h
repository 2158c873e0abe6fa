// A call that holds a slot's lock for its whole visit: threads that meet on a connection wait for
// each other's round trips.
#ifndef RUVO_EXCLUSIVE_CALL_H
#define RUVO_EXCLUSIVE_CALL_H

#include "slot_call.h"

struct conn_node;

class exclusive_call final : public slot_call {
 public:
  exclusive_call(conn_node& slot, const wire_command& wire, const send_terms& terms);
  ~exclusive_call();

  send_end send() override;
  send_end send_again(rebuilder& rebuilder) override;
  void give_up(const char* reason) override;

 private:
  send_end exchange_over_slot();

  conn_node& slot_;
  const wire_command& wire_;
  wait_limits limits_;
  bool is_timed_;
  bool must_not_resend_;
  std::uint64_t forks_;
  bool has_lock_ = false;
  waiting_mark waiting_;  // for the lock
};

#endif

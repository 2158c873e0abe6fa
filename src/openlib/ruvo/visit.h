// A visit of one command to one server: one send, and after a break one rebuild and one more send.
#ifndef RUVO_VISIT_H
#define RUVO_VISIT_H

#include "slot_call.h"
#include "walk.h"

// How a call has spent its time, for the log line of a slow call.
struct call_times {
  std::chrono::nanoseconds connecting{0};
  std::chrono::nanoseconds replies{0};
  std::size_t visits = 0;
  const server_node* last_server = nullptr;
};

enum class visit_end { replied, unanswered, may_have_run, out_of_time, lock_failed };

struct visit_result {
  visit_end end;
  bool was_sent;    // a byte of the command may have reached the server
  reply_ptr reply;  // without one: the latest refusal of a server that will not serve
};

// `times` is null if nobody needs them.
visit_result visit(ruvo_redis& redis, const command& command, conn_node& slot, server_node& server,
                   call_times* times);

bool has_passed(time_point deadline);
void log_out_of_time(const ruvo_redis& redis, const command& command);

#endif

// The walk of one command over the servers of its pool.
//
// The typed and the raw path share it. They differ in the method that log lines name (which the
// command carries), in the server that comes next and in the bound (which the route tells), and in
// what they make of the end (which each does by itself).
#ifndef RUVO_WALK_H
#define RUVO_WALK_H

#include <bitset>

#include "exchange.h"
#include "ruvo.h"
#include "server_pool.h"

class ruvo_redis;
struct server_choice;

// A command on its way.
struct command {
  const char* method;  // that the walk's log lines name
  const char* key;     // that they show
  RedisServerType pool;
  wire_command wire;
  time_point deadline;
  bool must_not_resend;  // once a byte of it may have reached a server
};

// The positions that a walk has visited. Those beyond the last bit count as visited.
using tried_servers = std::bitset<256>;

// Where a walk goes.
struct route {
  // The server after one that failed; none when none is usable.
  server_choice (*next_server)(ruvo_redis& redis, const server_node& failed, RedisServerType pool);
  // When the walk is back where it began: a server of the pool that it has passed over.
  server_choice (*ejected_server)(ruvo_redis& redis, const tried_servers& tried,
                                  RedisServerType pool);
  // The servers that the walk's bound counts.
  std::size_t (*servers_in_reach)(const ruvo_redis& redis, RedisServerType pool);
};
extern const route typed_route;
extern const route raw_route;

enum class walk_end {
  replied,
  no_server_at_start,
  no_server_left,
  out_of_time,
  may_have_run,  // a command that must not be sent again
  all_tried,     // back where it began, or as many visits as the bound allows
  lock_failed
};

// Visits servers until one replies; `reply` then holds what it said. With wait_for_servers it waits
// in an outage of the pool, and visits them again.
walk_end walk(ruvo_redis& redis, const route& route, const command& command, reply_ptr& reply);

#endif

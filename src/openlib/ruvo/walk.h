// The walk of one command over the servers of its pool.
//
// The typed and the raw path share it. They differ in the method that log lines name (part of the
// command), in the next server and the bound (part of the route), and in what each makes of the
// result.
#ifndef RUVO_WALK_H
#define RUVO_WALK_H

#include <bitset>

#include "exchange.h"
#include "ruvo.h"
#include "server_pool.h"

class ruvo_redis;
struct server_choice;

// A command to be run.
struct command {
  const char* method;  // named in the walk's log lines
  const char* key;     // shown in them
  RedisServerType pool;
  wire_command wire;
  time_point deadline;
  bool must_not_resend;  // once a byte of it may have reached a server
};

// The positions that a walk has visited. Those beyond the last bit count as visited.
using tried_servers = std::bitset<256>;

// Which servers a walk visits.
struct route {
  // The server after one that failed; none if no server is usable.
  server_choice (*next_server)(ruvo_redis& redis, const server_node& failed, RedisServerType pool);
  // Once the walk is back at its first server: an ejected server that it has not visited.
  server_choice (*ejected_server)(ruvo_redis& redis, const tried_servers& tried,
                                  RedisServerType pool);
  // The number of servers, for the bound of the walk.
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
  all_tried,     // back at the first server, or at the bound
  lock_failed
};

// Visits servers until one replies, and stores the reply. With wait_for_servers it waits in an
// outage of the pool, and visits them again.
walk_end walk(ruvo_redis& redis, const route& route, const command& command, reply_ptr& reply);

#endif

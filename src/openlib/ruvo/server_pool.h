// The model of a server pool: a list of servers, each with its connection slots and failure state.
//
// The lists do not change between start-up and shutdown and are read without a lock. The counters
// and the failure state are plain fields that all threads share: they are accessed through atomic
// references only. A slot's context is accessed only by the thread that holds the slot's lock, by
// those that pipeline.h describes, and by the fork handler.
#ifndef RUVO_SERVER_POOL_H
#define RUVO_SERVER_POOL_H

#include <ace/Thread_Mutex.h>
#include <hiredis/hiredis.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "outage.h"
#include "pipeline.h"
#include "settings.h"

// A connection slot. Its server's pool frees context and lock.
struct conn_node {
  redisContext* context_ = nullptr;  // null or in error state: rebuilt when it is used
  ACE_Thread_Mutex* lock_ = nullptr;
  pipeline_state pipeline_;          // the calls that share the connection; guarded by the lock
  std::uint64_t rebuilds_ = 0;       // how often the context was replaced; guarded by the lock
  bool awaits_first_reply_ = false;  // since a rebuild or a silence; guarded by the lock
  bool was_used_at_fork_ = false;    // another thread was changing the context
};

struct ruvo_server_stats;
struct ruvo_pool_stats;

struct server_node {
  std::vector<conn_node> context_arr_;
  server_addr addr_;
  std::int32_t failure_count_ = 0;      // failures since the last event that cleared them
  std::time_t next_retry_time_ = 0;     // when an ejected server may be retried; 0: not set
  server_probe probe_;                  // used while it is ejected, or its pool does not answer
  ruvo_server_stats* stats_ = nullptr;  // null: no statistics
  std::size_t index_ = 0;               // position in the pool
  std::int64_t conn_count_ = 0;         // round-robin among the slots
};

struct server_pool {
  server_pool() { apply(pool_settings()); }

  // A negative failure limit is never reached.
  void apply(const pool_settings& settings) {
    conn_num_ = static_cast<std::uint32_t>(settings.connect_num);
    auto_eject_ = settings.auto_eject_server;
    failure_limit_ = static_cast<std::uint32_t>(settings.server_failure_limit);
    retry_timeout_ = settings.server_retry_timeout;
    redis_password_ = settings.password;
  }

  std::vector<server_node> servers_;
  std::uint32_t server_num_ = 0;     // addresses in the configured list
  std::uint32_t conn_num_ = 0;       // connections to each server
  bool auto_eject_ = false;          // eject failing servers
  std::uint32_t failure_limit_ = 0;  // failures that eject a server
  std::int32_t retry_timeout_ = 0;   // seconds that an ejected server is skipped
  std::int64_t server_count_ = 0;    // round-robin among the servers
  std::string redis_password_;       // empty: none
  int number_ = 0;                   // its RedisServerType
  pool_outage outage_;
  ruvo_pool_stats* stats_ = nullptr;  // null: no statistics
};

#endif

// Statistics for observers outside the host: counters in a file that the process maps (stats.h has
// its layout and what a reader needs). Without the key `stats_file` every pointer below is null,
// and a hook costs one test.
//
// Start-up makes the file once the pools are built, and gives each server_pool and server_node the
// pointer to its record:
//
//   statistics_.begin(path, pools)           before operations are accepted
//   pool.stats_ = statistics_.pool(i), server.stats_ = statistics_.server(i, server.index_)
//   statistics_.end()                        in fini, when the pools are closed
//
// What is counted where:
//
//   call_timer            around an exported operation: its result code and its time
//   note_cause()          where a call fails with RUVO_ERR_FAILED: why
//   calls                 a visit has chosen a slot
//   waiting_mark          from then until the command is sent for the first time
//   second_sends          the command goes out again
//   replies, no_replies   a visit has ended: exactly one of them for each, so `calls` minus both is
//                         the number of visits under way; error_replies in addition
//   reconnects, failed_reconnects
//                         a connection has been rebuilt, or the rebuild has failed
//   note_failures()       failure_count_ and next_retry_time_ have changed
//   ejections, retries    the failure that reaches the limit of a pool that ejects, and the retry
//
// The counters are relaxed: they order nothing. call_timer gets its thread a lane, whose cache
// lines no other thread writes, so that it counts with plain loads and stores. Threads that find
// all lanes taken, and the child of a fork, count in the first one, which is shared.
#ifndef RUVO_STATISTICS_H
#define RUVO_STATISTICS_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <utility>

#include "call_clock.h"
#include "ruvo.h"
#include "stats.h"

struct server_pool;

using pool_stats = ruvo_pool_stats;
using server_stats = ruvo_server_stats;
using server_counters = ruvo_server_counters;

// The lane of this thread; 0: the shared one. The TLS model is initial-exec: with the others, the
// reads of the lane in a call take longer than the counting.
[[gnu::tls_model("initial-exec")]] inline constinit thread_local std::uint32_t stats_lane = 0;

// Gets this thread a lane until it ends, if one is free.
void claim_stats_lane() noexcept;

inline void add(std::uint64_t& counter, std::uint64_t amount) noexcept {
  const std::atomic_ref shared(counter);
  if (stats_lane != 0) {
    shared.store(shared.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
  } else {
    shared.fetch_add(amount, std::memory_order_relaxed);
  }
}

inline void count(server_stats* server, std::uint64_t server_counters::*counter) noexcept {
  if (server != nullptr) {
    add(server->lanes[stats_lane].*counter, 1);
  }
}

inline void note_failures(server_stats* server, std::int64_t failures,
                          std::time_t next_retry_time) noexcept {
  if (server != nullptr) {
    std::atomic_ref(server->failure_count).store(failures, std::memory_order_relaxed);
    std::atomic_ref(server->next_retry_time).store(next_retry_time, std::memory_order_relaxed);
  }
}

// A visit that waits for its command to be sent. Another thread may end it, so only the sum over
// all lanes is meaningful.
class waiting_mark {
 public:
  waiting_mark() = default;
  ~waiting_mark() { end(); }
  waiting_mark(const waiting_mark&) = delete;
  waiting_mark& operator=(const waiting_mark&) = delete;

  void begin(server_stats* server) noexcept {
    server_ = server;
    count(server_, &server_counters::waiting);
  }
  void end() noexcept {
    if (server_ != nullptr) {
      constexpr std::uint64_t minus_one = ~std::uint64_t{0};
      add(std::exchange(server_, nullptr)->lanes[stats_lane].waiting, minus_one);
    }
  }

 private:
  server_stats* server_ = nullptr;
};

inline void record_call(pool_stats& pool, ruvo_stats_result result,
                        std::chrono::nanoseconds duration) noexcept {
  const auto time = static_cast<std::uint64_t>(duration.count());
  ruvo_pool_counters& lane = pool.lanes[stats_lane];
  add(lane.results[result], 1);
  add(lane.time_sum, time);
  add(lane.buckets[ruvo_stats_bucket(time)], 1);
}

// RUVO_ERR_FAILED alone says little, so the place that fails a call notes why. The thread's latest
// cause counts; that of a second command which does not change the result is ignored.
inline constinit thread_local ruvo_stats_result latest_cause = RUVO_STATS_OTHER_FAILURE;
inline void note_cause(ruvo_stats_result cause) noexcept { latest_cause = cause; }

ruvo_stats_result result_of(int code) noexcept;

// Measures one call. A thread has one at a time: an exported function calls no other.
class call_timer {
 public:
  call_timer() = default;
  explicit call_timer(pool_stats* pool) noexcept { begin(pool); }

  // Null: the call is not counted.
  void begin(pool_stats* pool) noexcept {
    if (pool != nullptr) {
      pool_ = pool;
      call_begin = call_clock::now();
      if (stats_lane == 0) {
        claim_stats_lane();
      }
    }
  }

  // With the result code of a typed operation.
  void end(int code) noexcept {
    if (pool_ != nullptr) {
      record_call(*pool_, code == RUVO_OK ? RUVO_STATS_OK : result_of(code),
                  call_clock::now() - std::exchange(call_begin, call_clock::time_point()));
      latest_cause = RUVO_STATS_OTHER_FAILURE;
    }
  }
  // With the redisReply of a raw command; null if there is none.
  void end(const void* reply) noexcept;

 private:
  pool_stats* pool_ = nullptr;
};

// The file of one start-up.
class statistics_file {
 public:
  struct counted_pool {
    RedisServerType type;
    const server_pool& pool;
    std::uint32_t connections;  // to each server
  };

  statistics_file() = default;
  ~statistics_file() { end(); }
  statistics_file(const statistics_file&) = delete;
  statistics_file& operator=(const statistics_file&) = delete;

  // Creates the file, with a record for each pool and server, and puts it in place; "%p" in the
  // path stands for the process id. False if it cannot be created, which is logged, or if the
  // environment has RUVO_NO_STATS_FILE; the pointers are then null.
  bool begin(const std::string& path, std::span<const counted_pool> pools);
  // Leaves the file with its last numbers. Pointers into it become invalid.
  void end() noexcept;

  pool_stats* pool(std::size_t number) noexcept;
  server_stats* server(std::size_t pool_number, std::size_t position) noexcept;

 private:
  bool make(const char* name, std::span<const counted_pool> pools);
  void describe(std::uint32_t number, const counted_pool& from);

  ruvo_stats_header* head_ = nullptr;  // the mapping
};

#endif

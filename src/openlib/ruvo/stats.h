/// @file
/// The statistics file of libruvo (key `stats_file`): its layout, and what a reader needs.
///
/// The library counts into the file through a shared mapping, from any number of threads and from
/// the children of a fork. A reader opens it read-only, checks it, and reads while the host runs:
///
///     int fd = open("/run/my_server/ruvo.stats", O_RDONLY);
///     size_t length = (size_t)lseek(fd, 0, SEEK_END);
///     const void* file = mmap(NULL, length, PROT_READ, MAP_SHARED, fd, 0);
///     const char* error = ruvo_stats_check(file, length);
///     if (error != NULL) { ... }
///     for (uint32_t i = 0; i < ruvo_stats_head(file)->server_count; ++i) {
///       const struct ruvo_server_stats* server = ruvo_stats_server(file, i);
///       struct ruvo_server_counters now;
///       ruvo_stats_read_server(server, &now);
///       printf("%s:%u %llu replies\n", server->address, server->port,
///              (unsigned long long)now.replies);
///     }
///
/// LIFETIME. A start-up of the library makes a new file under another name and renames it into
/// place. A mapping of the old file stays valid, but the new start-up does not count into it: to
/// follow a host, open the path again. A reader that must survive a file that someone else
/// truncates copies it with pread instead of mapping it, into memory that is aligned for uint64_t.
///
/// COUNTERS. A record holds every counter once in each of its lanes: a thread of the host gets a
/// lane of its own if one is free, so that counting costs next to nothing, and the first lane is
/// for all others. ruvo_stats_read_pool and ruvo_stats_read_server add the lanes up. All counters
/// are 64-bit words, read in one piece, and only grow, except where stated. Each sum is exact; two
/// sums may be a few calls apart, since the host goes on while they are read.
///
/// COMPATIBILITY. Later libraries may append fields to a record, which changes the sizes in the
/// header. Find records with ruvo_stats_pool and ruvo_stats_server, which use those sizes. Any
/// other change increases the version, and ruvo_stats_check then refuses the file.
#ifndef RUVO_STATS_H
#define RUVO_STATS_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#define RUVO_STATS_MAGIC "RUVOSTAT"  ///< the file's first 8 bytes, without a terminating zero
#define RUVO_STATS_VERSION 1u        ///< of the layout in this header

#define RUVO_STATS_LANES 64u          ///< lanes of each record; the first is shared
#define RUVO_STATS_RESULT_SLOTS 15u   ///< counters in ruvo_pool_counters::results
#define RUVO_STATS_BUCKETS 226u       ///< counters in ruvo_pool_counters::buckets
#define RUVO_STATS_ADDRESS_SIZE 256u  ///< bytes of ruvo_server_stats::address

/// How a call of an exported function ended.
enum ruvo_stats_result {
  RUVO_STATS_OK = 0,                ///< success
  RUVO_STATS_ABSENT = 1,            ///< no such key or field: RUVO_ABSENT, RUVO_ERR_NOT_FOUND
  RUVO_STATS_NOTHING_DONE = 2,      ///< RUVO_NOTHING_DONE
  RUVO_STATS_ERROR_REPLY = 3,       ///< failed: the server refused the command
  RUVO_STATS_UNEXPECTED_REPLY = 4,  ///< failed: the reply has another type than the command's
  RUVO_STATS_NO_SERVER = 5,         ///< failed: no server of the pool replied
  RUVO_STATS_DEADLINE = 6,          ///< failed: `call_timeout` has passed
  RUVO_STATS_MAY_HAVE_RUN = 7,      ///< failed: not sent again because of `send_once`
  RUVO_STATS_BAD_ARGUMENT = 8,      ///< refused: a null pointer, or an argument that is too long
  RUVO_STATS_NO_MEMORY = 9,         ///< failed: RUVO_ERR_NO_MEMORY
  RUVO_STATS_OTHER_FAILURE = 10,    ///< failed in another way
  RUVO_STATS_RESULTS = 11           ///< how many results there are
};

/// The state of a file.
enum ruvo_stats_state {
  RUVO_STATS_INCOMPLETE = 0,  ///< still being made
  RUVO_STATS_LIVE = 1,        ///< the host counts into it
  RUVO_STATS_ENDED = 2        ///< the host has shut the library down; forked children may go on
};

/// The beginning of the file. Written once, except for `state`.
struct ruvo_stats_header {
  char magic[8];          ///< RUVO_STATS_MAGIC
  uint32_t version;       ///< RUVO_STATS_VERSION
  uint32_t state;         ///< ruvo_stats_state
  uint32_t header_size;   ///< bytes of this header; the pools' records follow
  uint32_t pool_size;     ///< bytes of a pool's record; the servers' records follow the last pool
  uint32_t server_size;   ///< bytes of a server's record
  uint32_t pool_count;    ///< pools
  uint32_t server_count;  ///< servers of all pools
  uint32_t bucket_count;  ///< RUVO_STATS_BUCKETS
  uint32_t lane_count;    ///< RUVO_STATS_LANES
  uint32_t padding;       ///< zero
  uint64_t file_size;     ///< bytes of the file
  int64_t process_id;     ///< of the process that has started the library
  int64_t start_time;     ///< of the library, nanoseconds since 1970-01-01 00:00 UTC
  char reserved[56];      ///< zero
};

/// What is counted for a pool.
struct ruvo_pool_counters {
  uint64_t time_sum;                          ///< nanoseconds that all calls took
  uint64_t results[RUVO_STATS_RESULT_SLOTS];  ///< calls, by ruvo_stats_result
  uint64_t buckets[RUVO_STATS_BUCKETS];       ///< calls, by ruvo_stats_bucket of their time
  uint64_t reserved[6];                       ///< zero
};

/// What is counted for a server. A call that fails over from one server to the next visits both.
/// Visits that are neither in `replies` nor in `no_replies` are under way.
struct ruvo_server_counters {
  uint64_t calls;          ///< visits: calls that have chosen a connection of this server
  uint64_t replies;        ///< visits that ended with a reply, error replies included
  uint64_t error_replies;  ///< error replies; also those of `failover_replies`, which do not count
                           ///< as the reply of a visit
  uint64_t no_replies;     ///< visits that ended without a reply
  uint64_t second_sends;   ///< commands sent a second time in a visit
  uint64_t reconnects;     ///< connections rebuilt
  uint64_t failed_reconnects;  ///< connections that could not be rebuilt
  uint64_t ejections;          ///< times that `failure_limit` was reached
  uint64_t retries;            ///< retries of the ejected server once its retry time had come;
                               ///< probes do not count
  uint64_t waiting;            ///< visits that wait for a connection now; rises and falls
  uint64_t reserved[6];        ///< zero
};

/// A pool. Written once, except for the counters.
struct ruvo_pool_stats {
  char name[16];            ///< "temp", "persist", "personality"
  uint32_t type;            ///< RedisServerType
  uint32_t first_server;    ///< number of its first server's record
  uint32_t server_count;    ///< servers, in the order of the configuration
  uint32_t connections;     ///< configured for each server
  uint32_t ejects_servers;  ///< 1 if failing servers are ejected, else 0
  uint32_t failure_limit;   ///< failures that eject a server
  int32_t retry_timeout;    ///< seconds from a failure until an ejected server is retried
  char reserved[20];        ///< zero
  struct ruvo_pool_counters lanes[RUVO_STATS_LANES];
};

/// A server of a pool. Written once, except for failures, retry time and counters.
struct ruvo_server_stats {
  char address[RUVO_STATS_ADDRESS_SIZE];  ///< as configured, zero-terminated, cut if longer
  uint32_t port;                          ///< as configured
  uint32_t pool;                          ///< number of its pool's record
  uint32_t position;                      ///< in the pool, from 0
  uint32_t reserved;                      ///< zero
  int64_t failure_count;                  ///< failures now; after a fork those of the latest writer
  int64_t next_retry_time;                ///< when it is retried if it is ejected, seconds since
                                          ///< 1970; 0: no failure yet; after a fork that of the
                                          ///< latest writer
  char reserved_too[32];                  ///< zero
  struct ruvo_server_counters lanes[RUVO_STATS_LANES];
};

/// A server as the host sees it.
enum ruvo_server_state {
  RUVO_SERVER_HEALTHY = 0,   ///< no failures
  RUVO_SERVER_FAILING = 1,   ///< some failures, not ejected
  RUVO_SERVER_EJECTED = 2,   ///< skipped until its retry time
  RUVO_SERVER_RETRY_DUE = 3  ///< ejected, its retry time has passed: the next call tries it
};

#ifdef __cplusplus
#define RUVO_STATS_CAST(type, value) reinterpret_cast<type>(value)
#define RUVO_STATS_NUMBER(type, value) static_cast<type>(value)
extern "C" {
#else
#define RUVO_STATS_CAST(type, value) ((type)(value))
#define RUVO_STATS_NUMBER(type, value) ((type)(value))
#endif

/// Reads a counter that other processes change.
static inline uint64_t ruvo_stats_load(const uint64_t* counter) {
  return __atomic_load_n(counter, __ATOMIC_ACQUIRE);
}

/// Reads a signed field that other processes change.
static inline int64_t ruvo_stats_load_signed(const int64_t* field) {
  return __atomic_load_n(field, __ATOMIC_ACQUIRE);
}

/// The header of a file.
static inline const struct ruvo_stats_header* ruvo_stats_head(const void* file) {
  return RUVO_STATS_CAST(const struct ruvo_stats_header*, file);
}

/// The record of a pool, `number` from 0 to pool_count - 1.
static inline const struct ruvo_pool_stats* ruvo_stats_pool(const void* file, uint32_t number) {
  const struct ruvo_stats_header* head = ruvo_stats_head(file);
  const char* first = RUVO_STATS_CAST(const char*, file) + head->header_size;
  const void* record = first + RUVO_STATS_NUMBER(size_t, head->pool_size) * number;
  return RUVO_STATS_CAST(const struct ruvo_pool_stats*, record);
}

/// The record of a server, `number` from 0 to server_count - 1.
static inline const struct ruvo_server_stats* ruvo_stats_server(const void* file, uint32_t number) {
  const struct ruvo_stats_header* head = ruvo_stats_head(file);
  const void* first = ruvo_stats_pool(file, head->pool_count);
  const void* record =
      RUVO_STATS_CAST(const char*, first) + RUVO_STATS_NUMBER(size_t, head->server_size) * number;
  return RUVO_STATS_CAST(const struct ruvo_server_stats*, record);
}

/// Checks a file of `length` bytes, mapped or copied. Returns null if it can be read, else a static
/// text that says why not. Looks at nothing beyond `length`.
static inline const char* ruvo_stats_check(const void* file, size_t length) {
  const struct ruvo_stats_header* head = ruvo_stats_head(file);
  uint32_t i;
  if (length < sizeof head->magic || memcmp(file, RUVO_STATS_MAGIC, sizeof head->magic) != 0) {
    return "not a statistics file of libruvo";
  }
  if (length >= offsetof(struct ruvo_stats_header, state) && head->version != RUVO_STATS_VERSION) {
    return "of another version: read it with the tools of the library that writes it";
  }
  if (length < sizeof *head) {
    return "shorter than its header";
  }
  if (__atomic_load_n(&head->state, __ATOMIC_ACQUIRE) == RUVO_STATS_INCOMPLETE) {
    return "not complete yet";
  }
  if (head->header_size < sizeof *head || head->header_size % sizeof(uint64_t) != 0 ||
      head->pool_size < sizeof(struct ruvo_pool_stats) || head->pool_size % sizeof(uint64_t) != 0 ||
      head->server_size < sizeof(struct ruvo_server_stats) ||
      head->server_size % sizeof(uint64_t) != 0 || head->bucket_count != RUVO_STATS_BUCKETS ||
      head->lane_count != RUVO_STATS_LANES) {
    return "its records have other sizes: read it with the tools of the library that writes it";
  }
  // A division, since the product of two numbers from a damaged file could overflow.
  length -= head->header_size <= length ? head->header_size : length;
  if (head->pool_count > length / head->pool_size ||
      head->server_count >
          (length - RUVO_STATS_NUMBER(size_t, head->pool_size) * head->pool_count) /
              head->server_size) {
    return "shorter than its header says";
  }
  for (i = 0; i < head->pool_count; ++i) {
    const struct ruvo_pool_stats* pool = ruvo_stats_pool(file, i);
    if (pool->first_server > head->server_count ||
        pool->server_count > head->server_count - pool->first_server ||
        memchr(pool->name, 0, sizeof pool->name) == NULL) {
      return "damaged";
    }
  }
  for (i = 0; i < head->server_count; ++i) {
    const struct ruvo_server_stats* server = ruvo_stats_server(file, i);
    if (server->pool >= head->pool_count ||
        memchr(server->address, 0, sizeof server->address) == NULL) {
      return "damaged";
    }
  }
  return NULL;
}

/// The bucket of a time in nanoseconds. Bucket 0 holds times up to 512 ns; each power of two above,
/// up to 137 s, is divided into 8 buckets, so that a time is known to 12.5 %; the last bucket holds
/// all longer times.
static inline uint32_t ruvo_stats_bucket(uint64_t nanoseconds) {
  uint64_t below = nanoseconds - 1;
  uint32_t exponent;
  if (nanoseconds <= 512) {
    return 0;
  }
  exponent = 63u - RUVO_STATS_NUMBER(uint32_t, __builtin_clzll(below));
  if (exponent > 36) {
    return RUVO_STATS_BUCKETS - 1;
  }
  return 1 + (exponent - 9) * 8 + (RUVO_STATS_NUMBER(uint32_t, below >> (exponent - 3)) & 7u);
}

/// The longest time, in nanoseconds, that a bucket holds.
static inline uint64_t ruvo_stats_bucket_limit(uint32_t bucket) {
  if (bucket == 0) {
    return 512;
  }
  if (bucket >= RUVO_STATS_BUCKETS - 1) {
    return UINT64_MAX;
  }
  return RUVO_STATS_NUMBER(uint64_t, 9 + (bucket - 1) % 8) << (6 + (bucket - 1) / 8);
}

/// The time, in nanoseconds, that `percent` of the counted calls did not exceed: the limit of its
/// bucket. 0 if there are none. `counts` holds RUVO_STATS_BUCKETS numbers: the sums of a pool's
/// buckets, or the differences of two readings.
static inline uint64_t ruvo_stats_percentile(const uint64_t* counts, double percent) {
  uint64_t total = 0;
  uint64_t seen = 0;
  double wanted;
  uint32_t i;
  for (i = 0; i < RUVO_STATS_BUCKETS; ++i) {
    total += counts[i];
  }
  wanted = RUVO_STATS_NUMBER(double, total) * percent / 100;
  for (i = 0; total > 0 && i < RUVO_STATS_BUCKETS; ++i) {
    seen += counts[i];
    if (seen > 0 && RUVO_STATS_NUMBER(double, seen) >= wanted) {
      return ruvo_stats_bucket_limit(i);
    }
  }
  return 0;
}

/// Adds up a pool's counters.
static inline void ruvo_stats_read_pool(const struct ruvo_pool_stats* pool,
                                        struct ruvo_pool_counters* sum) {
  uint32_t lane;
  uint32_t i;
  memset(sum, 0, sizeof *sum);
  for (lane = 0; lane < RUVO_STATS_LANES; ++lane) {
    const struct ruvo_pool_counters* from = &pool->lanes[lane];
    sum->time_sum += ruvo_stats_load(&from->time_sum);
    for (i = 0; i < RUVO_STATS_RESULT_SLOTS; ++i) {
      sum->results[i] += ruvo_stats_load(&from->results[i]);
    }
    for (i = 0; i < RUVO_STATS_BUCKETS; ++i) {
      sum->buckets[i] += ruvo_stats_load(&from->buckets[i]);
    }
  }
}

/// Adds up a server's counters.
static inline void ruvo_stats_read_server(const struct ruvo_server_stats* server,
                                          struct ruvo_server_counters* sum) {
  uint32_t lane;
  memset(sum, 0, sizeof *sum);
  for (lane = 0; lane < RUVO_STATS_LANES; ++lane) {
    const struct ruvo_server_counters* from = &server->lanes[lane];
    // Reads the ends before the starts: a visit that ends meanwhile then counts as under way.
    sum->waiting += ruvo_stats_load(&from->waiting);
    sum->error_replies += ruvo_stats_load(&from->error_replies);
    sum->replies += ruvo_stats_load(&from->replies);
    sum->no_replies += ruvo_stats_load(&from->no_replies);
    sum->calls += ruvo_stats_load(&from->calls);
    sum->second_sends += ruvo_stats_load(&from->second_sends);
    sum->reconnects += ruvo_stats_load(&from->reconnects);
    sum->failed_reconnects += ruvo_stats_load(&from->failed_reconnects);
    sum->ejections += ruvo_stats_load(&from->ejections);
    sum->retries += ruvo_stats_load(&from->retries);
  }
  // A visit that began in a lane after that lane was read may have ended in another lane.
  if (sum->waiting > UINT64_MAX / 2) {
    sum->waiting = 0;
  }
}

/// Visits of a server that are under way and do not wait for a connection.
static inline uint64_t ruvo_stats_in_flight(const struct ruvo_server_counters* sum) {
  const uint64_t rest = sum->replies + sum->no_replies + sum->waiting;
  return sum->calls > rest ? sum->calls - rest : 0;
}

/// The state of a server at `now`, in seconds since 1970.
static inline enum ruvo_server_state ruvo_stats_server_state(const struct ruvo_pool_stats* pool,
                                                             const struct ruvo_server_stats* server,
                                                             int64_t now) {
  const int64_t failures = ruvo_stats_load_signed(&server->failure_count);
  if (pool->ejects_servers == 0 || failures < pool->failure_limit) {
    return failures == 0 ? RUVO_SERVER_HEALTHY : RUVO_SERVER_FAILING;
  }
  return ruvo_stats_load_signed(&server->next_retry_time) > now ? RUVO_SERVER_EJECTED
                                                                : RUVO_SERVER_RETRY_DUE;
}

/// A short name for a ruvo_stats_result: a static string, never null.
static inline const char* ruvo_stats_result_name(uint32_t result) {
  static const char* const names[RUVO_STATS_RESULTS] = {
      "ok",       "absent",       "nothing_done", "error_reply", "unexpected_reply", "no_server",
      "deadline", "may_have_run", "bad_argument", "no_memory",   "other_failure"};
  return result < RUVO_STATS_RESULTS ? names[result] : "unknown";
}

/// A short name for a ruvo_server_state: a static string, never null.
static inline const char* ruvo_stats_state_name(enum ruvo_server_state state) {
  switch (state) {
    case RUVO_SERVER_HEALTHY:
      return "healthy";
    case RUVO_SERVER_FAILING:
      return "failing";
    case RUVO_SERVER_EJECTED:
      return "ejected";
    default:
      return "retry due";
  }
}

#ifdef __cplusplus
}
#endif
#undef RUVO_STATS_CAST
#undef RUVO_STATS_NUMBER

#endif

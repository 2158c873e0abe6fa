// The client behind the exported functions: one class, divided into several files by subject.
//
//   startup.cpp    configuration, default addresses, the order in which pools are built
//   pools.cpp      building and closing a pool; the counted shutdown
//   routing.cpp    choice of server and connection, failure state, rebuilding a connection
//   execution.cpp  the typed path: a walk, and the result code of its reply
//   walk.cpp       the walk over servers (visit.cpp: a visit of one of them)
//   strings.cpp, hashes.cpp, lists.cpp, sets.cpp
//                  the data operations (data_operation.cpp: what they share)
//   raw.cpp        any command, its reply unchanged
//   forking.cpp    what the child of a fork does with its parent's connections
//
// Threads: any number of threads may run operations; init and fini must not overlap them. See
// server_pool.h for what guards what.
#ifndef RUVO_RUVO_REDIS_H
#define RUVO_RUVO_REDIS_H

#include <sys/time.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "busin_config.h"
#include "exchange.h"
#include "options.h"
#include "ruvo.h"
#include "server_pool.h"
#include "statistics.h"

struct operation_call;

// The reader that loads the library's configuration at start-up.
extern vop_config ruvo_cfg;

// What bounds a command of a call, and whether it may be resent.
struct call_terms {
  time_point deadline = no_deadline;
  bool must_not_resend = false;
};

struct server_choice {
  server_node* server = nullptr;  // null: none is usable
  bool is_probe = false;
};

class ruvo_redis {
 public:
  ruvo_redis() = default;
  ~ruvo_redis();
  ruvo_redis(const ruvo_redis&) = delete;
  ruvo_redis& operator=(const ruvo_redis&) = delete;

  // ---- Start-up and configuration ----
  int init(const char* config);
  int init_config(const char* config);
  std::string getDefaultAddr(RedisServerType type) const;
  std::string get_cfg() const;

  // ---- Pools ----
  int init_server_pool(const std::string& addrs, server_pool& pool, RedisServerType type);
  int fini_server_pool(server_pool& pool);
  int fini();

  // ---- Routing ----
  const server_pool& getPool(RedisServerType type) const { return this->*pool_of(type); }
  server_pool& getPool(RedisServerType type) { return this->*pool_of(type); }
  // A usable server of the pool, or null: the next by round-robin if `svc_index` is negative, else
  // the first from that position on.
  server_node* get_server_node(RedisServerType redisSrvType, int svc_index);
  // The same for a walk. A server that the call is to probe is reserved for it until end_probe().
  server_choice choose_server(RedisServerType type, int svc_index);
  // The next slot by round-robin, or null if the server does not have it.
  conn_node* get_conn(server_node& svc_node, RedisServerType redisSrvType);
  bool is_server_valid(server_node* svc_node, RedisServerType redisSrvType);
  void update_server_ok(server_node* svc_node);
  void update_server_failed(server_node* svc_node, RedisServerType redisSrvType);
  // Replaces a slot's context by a new one, or returns null and keeps the old one.
  // REQUIRES: the slot's lock is held.
  redisContext* reset_connection(conn_node& conn, server_addr& addr);
  // Opens the connection that replaces a broken one.
  context_ptr open_replacement(const server_addr& addr, time_point deadline);

  const client_options& options() const { return options_; }
  const timeval& socket_timeout() const { return socket_timeout_tv_; }

  // ---- Forking ----
  // In the child of a fork: every connection belongs to the parent, and is rebuilt on its next use.
  void disown_connections() noexcept;

  // ---- Execution ----
  // Runs a command on a pool. On RUVO_OK with `need_reply`, the caller gets the reply and frees it;
  // in every other case `reply` is unchanged.
  int do_exec_command(const char* key, redisReply*& reply, bool need_reply,
                      RedisServerType redisSrvType, const char* format, ...);

  // ---- String keys ----
  int insert_key(const char* key, const char* data, unsigned long len, int time_out,
                 RedisServerType redisSrvType, const char* server_addr);
  int append_key(const char* key, const char* data, unsigned long len, RedisServerType redisSrvType,
                 const char* server_addr);
  int increase_key(const char* key, long long* value, RedisServerType redisSrvType,
                   const char* server_addr);
  int query_key(const char* key, const char** data, unsigned long* len,
                RedisServerType redisSrvType, const char* server_addr);
  int exists_key(const char* key, RedisServerType redisSrvType, const char* server_addr);
  int delete_key(const char* key, RedisServerType redisSrvType, const char* server_addr);
  int expire_key(const char* key, unsigned int time_out, RedisServerType redisSrvType,
                 const char* server_addr);
  int persist_key(const char* key, RedisServerType redisSrvType, const char* server_addr);
  int free_result(const char* data);

  // ---- Hashes ----
  int hash_set(const char* key, const char* field, unsigned long f_len, const char* value,
               unsigned long v_len, int time_out, RedisServerType redisSrvType,
               const char* server_addr);
  int hash_get(const char* key, const char* field, unsigned long f_len, const char** value,
               unsigned long* v_len, RedisServerType redisSrvType, const char* server_addr);
  int hash_field_exist(const char* key, const char* field, unsigned long f_len,
                       RedisServerType redisSrvType, const char* server_addr);
  int hash_incr_by(const char* key, const char* field, unsigned long f_len, long long increment,
                   long long* result, RedisServerType redisSrvType, const char* server_addr);
  int hash_fields_num(const char* key, long long* fields_num, RedisServerType redisSrvType,
                      const char* server_addr);
  int hash_del_field(const char* key, const char* field, unsigned long f_len,
                     RedisServerType redisSrvType, const char* server_addr);

  // ---- Lists ----
  int list_rem(const char* key, int count, const char* value, RedisServerType redisSrvType,
               const char* server_addr);
  int list_push(const char* key, const char* value, std::size_t length, int timeout,
                long long* count, RedisServerType redisSrvType, const char* server_addr);
  int list_rpop(const char* key, std::string& value, RedisServerType redisSrvType,
                const char* server_addr);
  int list_range(const char* key, int start, int end, std::vector<std::string>& value,
                 RedisServerType redisSrvType, const char* server_addr);
  int list_trim(const char* key, int start, int end, RedisServerType redisSrvType,
                const char* server_addr);

  // ---- Sets ----
  int set_add(const char* key, const char* value, std::size_t len, RedisServerType redisSrvType,
              const char* server_addr);
  int set_rem(const char* key, const char* value, std::size_t len, RedisServerType redisSrvType,
              const char* server_addr);
  int set_ismember(const char* key, const char* value, std::size_t len,
                   RedisServerType redisSrvType, const char* server_addr);
  int set_members(const char* key, std::vector<std::string>& value, RedisServerType redisSrvType,
                  const char* server_addr);

  // ---- Any command ----
  // Returns the reply, which the caller hands to free_reply_object, or null on failure. Leaves `ap`
  // unchanged.
  void* exec_redis_cmd(const char* format, va_list ap, RedisServerType redisSrvType);
  void free_reply_object(void* reply);

 private:
  static server_pool ruvo_redis::*pool_of(RedisServerType type) {
    switch (type) {
      case ePersistServer:
        return &ruvo_redis::p_pool_;
      case ePersonalityServer:
        return &ruvo_redis::personality_pool_;
      default:
        return &ruvo_redis::t_pool_;
    }
  }

  bool is_initialized() const { return initialized_.load(std::memory_order_acquire); }
  void read_timeouts();
  void choose_addresses();
  int build_pools();
  void keep_statistics();
  void watch_forks();
  void forget_forks();
  void close_pools();

  // Runs a command on a pool; see do_exec_command. A null `reply` asks for the code only.
  int exec_command(const call_terms& terms, const char* key, reply_ptr* reply,
                   RedisServerType redisSrvType, const char* format, va_list args);
  // Runs a second command within the deadline of the first. Its outcome does not change the result.
  void exec_regardless(time_point deadline, const char* key, RedisServerType redisSrvType,
                       const char* format, ...);
  int expire(time_point deadline, const char* key, unsigned int time_out, RedisServerType type);
  bool must_not_resend(bool is_idempotent) const { return options_.send_once && !is_idempotent; }
  // Runs a data operation up to its reply, see data_operation.h.
  int run(const operation_call& call, reply_ptr* reply, const char* format, ...);

  std::atomic<bool> initialized_{false};
  std::atomic<std::int64_t> init_count_{0};
  std::string t_server_addrs_;
  std::string p_server_addrs_;
  std::string personality_server_addrs_;
  server_pool t_pool_;
  server_pool p_pool_;
  server_pool personality_pool_;
  client_options options_;
  statistics_file statistics_;
  timeval conn_timeout_tv_{-1, 0};    // seconds -1: no limit
  timeval socket_timeout_tv_{-1, 0};  // likewise
};

#endif

// Building a pool from its address list and settings, and closing it.
#include <array>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "connection.h"
#include "log_line.h"
#include "ruvo_redis.h"
#include "sutils.h"

namespace {

struct pool_keys {
  RedisServerType type;
  const char* connect_num;
  const char* auto_eject;
  const char* failure_limit;
  const char* retry_timeout;
  const char* password;
};

// The temporary pool reads the p_ keys and the persistent pool the t_ keys: deployed configuration
// files are written for it.
constexpr std::array keys_of_pools{
    pool_keys{eTempServer, "p_connect_num", "p_auto_eject_server", "p_server_failure_limit",
              "p_server_retry_timeout", "p_password"},
    pool_keys{ePersistServer, "t_connect_num", "t_auto_eject_server", "t_server_failure_limit",
              "t_server_retry_timeout", "t_password"},
    pool_keys{ePersonalityServer, "ps_connect_num", "ps_auto_eject_server",
              "ps_server_failure_limit", "ps_server_retry_timeout", "ps_password"},
};

constexpr const char* server_section = "server";

void set_default_settings(server_pool& pool) {
  const server_pool defaults;
  pool.conn_num_ = defaults.conn_num_;
  pool.auto_eject_ = defaults.auto_eject_;
  pool.failure_limit_ = defaults.failure_limit_;
  pool.retry_timeout_ = defaults.retry_timeout_;
  pool.redis_password_.clear();
}

// A type without keys of its own keeps the defaults.
void read_settings(server_pool& pool, RedisServerType type) {
  for (const pool_keys& keys : keys_of_pools) {
    if (keys.type != type) {
      continue;
    }
    const int conn_num =
        ruvo_cfg.get_int_val(server_section, keys.connect_num, static_cast<int>(pool.conn_num_));
    if (conn_num >= 0) {
      pool.conn_num_ = static_cast<std::uint32_t>(conn_num);
    } else {
      RUVO_LOG(ERROR, "ruvo_redis::init_server_pool | %s must not be negative: %d, using %u",
               keys.connect_num, conn_num, pool.conn_num_);
    }
    pool.auto_eject_ = ruvo_cfg.get_bool_val(server_section, keys.auto_eject, pool.auto_eject_);
    pool.failure_limit_ = static_cast<std::uint32_t>(ruvo_cfg.get_int_val(
        server_section, keys.failure_limit, static_cast<int>(pool.failure_limit_)));
    pool.retry_timeout_ =
        ruvo_cfg.get_int_val(server_section, keys.retry_timeout, pool.retry_timeout_);
    if (const char* password = ruvo_cfg.get_str_val(server_section, keys.password)) {
      pool.redis_password_ = password;
    }
  }
}

// False when a piece is not of the form ip:port; it is then named in the log.
bool parse_addrs(const std::string& addrs, std::vector<server_addr>& parsed) {
  sp::str_arr pieces;
  sp::split_str(addrs.c_str(), pieces, ",");
  for (const std::string& piece : pieces) {
    sp::str_arr parts;
    sp::split_str(piece.c_str(), parts, ":");
    if (parts.size() != 2) {
      RUVO_LOG(ERROR, "ruvo_redis::init_server_pool | invalid server addr:%s", piece.c_str());
      return false;
    }
    parsed.push_back(
        {parts[0], static_cast<std::uint32_t>(std::strtol(parts[1].c_str(), nullptr, 0))});
  }
  return true;
}

void add_slot(server_node& server, context_ptr context, std::unique_ptr<ACE_Thread_Mutex> lock) {
  conn_node& slot = server.context_arr_.emplace_back();
  slot.context_ = context.release();
  slot.lock_ = lock.release();
}

void close_slots(server_node& server) {
  for (conn_node& slot : server.context_arr_) {
    replace_context(slot, nullptr);
    delete slot.lock_;
  }
  server.context_arr_.clear();
}

// What came of the connections to the servers of a pool.
struct connection_tally {
  int good = 0;
  int failure = RUVO_OK;  // of a connection that could not be opened
};

// Opens a connection. A server that is down keeps its slot, to be repaired when it is used; one
// that does not take the password loses it.
void connect_slot(server_node& server, const connection_settings& settings,
                  std::unique_ptr<ACE_Thread_Mutex> lock, connection_tally& tally) {
  const server_addr& addr = server.addr_;
  opened_connection opened = open_connection(addr, settings);
  switch (opened.outcome) {
    case open_outcome::closed:
    case open_outcome::refused:
      return;
    case open_outcome::unreachable:
    case open_outcome::unanswered:
      RUVO_LOG(ERROR,
               "ruvo_redis::init_server_pool | connect to node %s port:%d failed, error code : %s.",
               ip_of(addr), port_of(addr), error_text(opened.context.get()));
      tally.failure = RUVO_ERR_NO_CONNECTION;
      break;
    case open_outcome::ready:
      if (opened.timeout_result.value_or(REDIS_OK) != REDIS_OK) {
        RUVO_LOG(ERROR, "ruvo_redis::init_server_pool | redisSetTimeOut err, ret:%d",
                 *opened.timeout_result);
      }
      RUVO_LOG(INFO, "ruvo_redis::init_server_pool | connect to proxy: %s port:%d succeeded.",
               ip_of(addr), port_of(addr));
      ++tally.good;
  }
  add_slot(server, std::move(opened.context), std::move(lock));
}

// Opens the connections of a server. False when there is no memory for a lock.
bool connect_server(server_node& server, std::uint32_t connections,
                    const connection_settings& settings, connection_tally& tally) {
  for (std::uint32_t i = 0; i < connections; ++i) {
    std::unique_ptr<ACE_Thread_Mutex> lock(new (std::nothrow) ACE_Thread_Mutex);
    if (!lock) {
      RUVO_LOG(ERROR, "ruvo_redis::init_server_pool | memory overflow.");
      return false;
    }
    connect_slot(server, settings, std::move(lock), tally);
  }
  return true;
}

}  // namespace

ruvo_redis::~ruvo_redis() {
  forget_forks();
  close_pools();
}

int ruvo_redis::init_server_pool(const std::string& addrs, server_pool& pool,
                                 RedisServerType type) {
  set_default_settings(pool);
  if (addrs.empty()) {
    RUVO_LOG(ERROR, "ruvo_redis::init_server_pool | addr is empty");
    return RUVO_ERR_ADDRESS_LIST;
  }
  std::vector<server_addr> server_addrs;
  if (!parse_addrs(addrs, server_addrs)) {
    return RUVO_ERR_ADDRESS_LIST;
  }
  read_settings(pool, type);
  pool.server_count_ = 0;
  pool.server_num_ = static_cast<std::uint32_t>(server_addrs.size());
  // The temporary pool's number sizes the servers of every pool, as get_conn counts.
  const std::uint32_t connections = t_pool_.conn_num_;
  RUVO_LOG(INFO,
           "ruvo_redis::init_server_pool | server: conn_num:%u, auto_eject:%s, failure_limit:%u, "
           "retry_timeout:%d (s)",
           connections, t_pool_.auto_eject_ ? "true" : "false", pool.failure_limit_,
           pool.retry_timeout_);

  const connection_settings settings{conn_timeout_tv_, socket_timeout_tv_, pool.redis_password_};
  connection_tally tally;
  for (const server_addr& addr : server_addrs) {
    server_node& server = pool.servers_.emplace_back();
    server.addr_ = addr;
    server.index_ = pool.servers_.size() - 1;
    if (!connect_server(server, connections, settings, tally)) {
      close_slots(server);
      pool.servers_.pop_back();
      fini();  // says that nothing is initialised: deployed systems know the line
      return RUVO_ERR_NO_MEMORY;
    }
  }
  RUVO_LOG(INFO, "ruvo_redis::init_server_pool | connect to server ok num:%d", tally.good);
  return tally.good > 0 ? RUVO_OK : tally.failure;
}

int ruvo_redis::fini_server_pool(server_pool& pool) {
  for (server_node& server : pool.servers_) {
    close_slots(server);
    RUVO_LOG(INFO, "ruvo_redis::fini | disconnect redis node %s port:%d.", ip_of(server.addr_),
             port_of(server.addr_));
  }
  pool.servers_.clear();
  return RUVO_OK;
}

void ruvo_redis::close_pools() {
  fini_server_pool(t_pool_);
  fini_server_pool(p_pool_);
  fini_server_pool(personality_pool_);
}

int ruvo_redis::fini() {
  const unlimited_log all_lines;
  if (!is_initialized()) {
    RUVO_LOG(ERROR, "ruvo_redis::fini | redis is not initialized");
    return RUVO_ERR_NOT_INITIALIZED;
  }
  if (init_count_.fetch_sub(1) == 1) {
    close_pools();
    ruvo_cfg.close();
    initialized_.store(false, std::memory_order_release);
    set_log_limit(0);
    RUVO_LOG(INFO, "ruvo_redis::fini | ruvo fini succeed");
  }
  return RUVO_OK;
}

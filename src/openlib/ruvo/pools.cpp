// Building a pool from its address list and settings, and closing it.
#include <memory>
#include <new>
#include <utility>

#include "connection.h"
#include "log_line.h"
#include "ruvo_redis.h"
#include "settings.h"

namespace {

// The type decides which keys belong to the pool.
pool_settings read_settings(RedisServerType type) {
  return read_pool_settings(
      ruvo_cfg, type, [](const setting& key, setting_fault why, const char* value) {
        if (why == setting_fault::no_number) {  // an invalid truth value is not logged
          RUVO_LOG(ERROR, "ruvo_redis::init_server_pool | %s must not be negative: %d, using %s",
                   key.name.c_str(), parse_leading_number(value), default_text(key).c_str());
        }
      });
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

// The results of opening the connections of a pool.
struct connection_tally {
  int good = 0;
  int failure = RUVO_OK;  // the code for a connection that could not be opened
};

// Opens a connection. A server that is down keeps its slot, to be reconnected when it is used; one
// that rejects the password loses it, unless every slot is to be kept.
open_outcome connect_slot(server_node& server, const connection_settings& settings,
                          bool keeps_every_slot, std::unique_ptr<ACE_Thread_Mutex> lock,
                          connection_tally& tally) {
  const server_addr& addr = server.addr_;
  opened_connection opened = open_connection(addr, settings);
  switch (opened.outcome) {
    case open_outcome::refused:
      set_error(*opened.context, {REDIS_ERR_OTHER, "the password was refused"});
      [[fallthrough]];
    case open_outcome::closed:
      if (!keeps_every_slot) {
        return opened.outcome;
      }
      break;
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
  return opened.outcome;
}

// Opens the connections of a server. False if there is no memory for a lock. If every slot is kept,
// the first connection that cannot be opened leaves the others for their first use.
bool connect_server(server_node& server, std::uint32_t connections,
                    const connection_settings& settings, bool keeps_every_slot,
                    connection_tally& tally) {
  bool is_ready = true;
  for (std::uint32_t i = 0; i < connections; ++i) {
    std::unique_ptr<ACE_Thread_Mutex> lock(new (std::nothrow) ACE_Thread_Mutex);
    if (!lock) {
      RUVO_LOG(ERROR, "ruvo_redis::init_server_pool | memory overflow.");
      return false;
    }
    if (is_ready || !keeps_every_slot) {
      is_ready = connect_slot(server, settings, keeps_every_slot, std::move(lock), tally) ==
                 open_outcome::ready;
    } else {
      add_slot(server, nullptr, std::move(lock));
    }
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
  pool.apply(pool_settings());
  pool.number_ = type;
  if (addrs.empty()) {
    RUVO_LOG(ERROR, "ruvo_redis::init_server_pool | addr is empty");
    return RUVO_ERR_ADDRESS_LIST;
  }
  const address_list list = parse_addresses(addrs);
  if (list.malformed) {
    RUVO_LOG(ERROR, "ruvo_redis::init_server_pool | invalid server addr:%s",
             list.malformed->c_str());
    return RUVO_ERR_ADDRESS_LIST;
  }
  pool.apply(read_settings(type));
  pool.server_count_ = 0;
  pool.server_num_ = static_cast<std::uint32_t>(list.servers.size());
  // The temporary pool's number sizes the servers of every pool, as get_conn expects.
  const std::uint32_t connections = t_pool_.conn_num_;
  RUVO_LOG(INFO,
           "ruvo_redis::init_server_pool | server: conn_num:%u, auto_eject:%s, failure_limit:%u, "
           "retry_timeout:%d (s)",
           connections, t_pool_.auto_eject_ ? "true" : "false", pool.failure_limit_,
           pool.retry_timeout_);

  const connection_settings settings{conn_timeout_tv_, socket_timeout_tv_, pool.redis_password_};
  connection_tally tally;
  for (const server_addr& addr : list.servers) {
    server_node& server = pool.servers_.emplace_back();
    server.addr_ = addr;
    server.index_ = pool.servers_.size() - 1;
    if (!connect_server(server, connections, settings, options_.start_without_servers, tally)) {
      close_slots(server);
      pool.servers_.pop_back();
      fini();  // logs that nothing is initialised: deployed systems know the line
      return RUVO_ERR_NO_MEMORY;
    }
  }
  RUVO_LOG(INFO, "ruvo_redis::init_server_pool | connect to server ok num:%d", tally.good);
  return tally.good > 0 || options_.start_without_servers ? RUVO_OK : tally.failure;
}

int ruvo_redis::fini_server_pool(server_pool& pool) {
  for (server_node& server : pool.servers_) {
    close_slots(server);
    RUVO_LOG(INFO, "ruvo_redis::fini | disconnect redis node %s port:%d.", ip_of(server.addr_),
             port_of(server.addr_));
  }
  pool.servers_.clear();
  pool.stats_ = nullptr;
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
    statistics_.end();
    ruvo_cfg.close();
    initialized_.store(false, std::memory_order_release);
    set_log_limit(0);
    RUVO_LOG(INFO, "ruvo_redis::fini | ruvo fini succeed");
  }
  return RUVO_OK;
}

// Choice of a server and a connection, the failure state of servers, and rebuilding a connection.
#include <atomic>
#include <ctime>
#include <utility>

#include "connection.h"
#include "log_line.h"
#include "ruvo_redis.h"
#include "statistics.h"

namespace {

constexpr std::uint64_t highest_number = 10001;  // of a round-robin counter

// Takes the next number of a round-robin counter. Two threads may both reset a counter that has
// passed its highest number: a few numbers are then used twice, which does no harm.
std::uint64_t next_number(std::int64_t& counter) {
  const std::atomic_ref<std::int64_t> shared(counter);
  const auto number = static_cast<std::uint64_t>(shared.fetch_add(1));
  if (number >= highest_number) {
    shared.store(0);
  }
  return number;
}

void clear_failures(server_node& server) {
  std::atomic_ref(server.failure_count_).store(0);
  std::atomic_ref(server.next_retry_time_).store(0);
  note_failures(server.stats_, 0, 0);
}

// The position where a search for a server begins.
std::size_t start_position(server_pool& pool, int svc_index) {
  const std::uint64_t number =
      svc_index < 0 ? next_number(pool.server_count_) : static_cast<std::uint64_t>(svc_index);
  return number % pool.servers_.size();
}

}  // namespace

server_node* ruvo_redis::get_server_node(RedisServerType redisSrvType, int svc_index) {
  const server_choice choice = choose_server(redisSrvType, svc_index);
  if (choice.is_probe) {
    release_probe(choice.server->probe_);
  }
  return choice.server;
}

server_choice ruvo_redis::choose_server(RedisServerType type, int svc_index) {
  server_pool& pool = getPool(type);
  const std::size_t count = pool.servers_.size();
  const std::size_t start = count > 0 ? start_position(pool, svc_index) : 0;
  // In an outage each server is probed by one call at a time, ejected or not.
  const bool only_probes = pool.outage_.is_on();
  for (std::size_t offset = 0; offset < count; ++offset) {
    server_node& candidate = pool.servers_[(start + offset) % count];
    if (offset == 0) {
      RUVO_LOG(DEBUG, "ruvo_redis::get_redis_node | addr:%s port:%d", ip_of(candidate.addr_),
               port_of(candidate.addr_));
    } else {
      RUVO_LOG(DEBUG, "ruvo_redis::get_server_node | try next server:%s,port:%d",
               ip_of(candidate.addr_), port_of(candidate.addr_));
    }
    if (only_probes ? begin_probe(candidate.probe_) : is_server_valid(&candidate, type)) {
      return {&candidate, only_probes};
    }
  }
  RUVO_LOG(INFO, "ruvo_redis::get_server_node | all servers invalid");
  for (std::size_t i = 0; options_.try_ejected_servers && !only_probes && i < count; ++i) {
    server_node& candidate = pool.servers_[(start + i) % count];
    if (begin_probe(candidate.probe_)) {
      return {&candidate, true};
    }
  }
  return {};
}

bool ruvo_redis::is_server_valid(server_node* svc_node, RedisServerType redisSrvType) {
  const server_pool& pool = getPool(redisSrvType);
  if (!pool.auto_eject_) {
    return true;
  }
  const std::int32_t failures = std::atomic_ref(svc_node->failure_count_).load();
  if (static_cast<std::uint32_t>(failures) < pool.failure_limit_) {
    return true;
  }
  const std::time_t retry_time = std::atomic_ref(svc_node->next_retry_time_).load();
  if (retry_time <= std::time(nullptr)) {
    RUVO_LOG(WARN, "ruvo_redis::is_server_valid | server, ip:%s port:%d start retry",
             ip_of(svc_node->addr_), port_of(svc_node->addr_));
    clear_failures(*svc_node);
    count(svc_node->stats_, &server_counters::retries);
    return true;
  }
  RUVO_LOG(WARN,
           "ruvo_redis::is_server_valid | server,ip:%s port:%d invalid, failure count:%d, retry "
           "after %ld seconds",
           ip_of(svc_node->addr_), port_of(svc_node->addr_), failures,
           static_cast<long>(retry_time - std::time(nullptr)));
  return false;
}

void ruvo_redis::update_server_ok(server_node* svc_node) { clear_failures(*svc_node); }

// Pushes the retry time forward on every failure, so that a server stays ejected for the whole
// retry timeout after its latest one.
void ruvo_redis::update_server_failed(server_node* svc_node, RedisServerType redisSrvType) {
  const server_pool& pool = getPool(redisSrvType);
  const std::time_t next_retry = std::time(nullptr) + pool.retry_timeout_;
  // Stored first, so that no thread finds the limit reached and an old retry time.
  std::atomic_ref(svc_node->next_retry_time_).store(next_retry);
  const std::int32_t failures = std::atomic_ref(svc_node->failure_count_).fetch_add(1) + 1;
  RUVO_LOG(DEBUG, "ruvo_redis::update_server_failed | server, ip:%s port:%d failure count:%d",
           ip_of(svc_node->addr_), port_of(svc_node->addr_), failures);
  note_failures(svc_node->stats_, failures, next_retry);
  if (pool.auto_eject_ && static_cast<std::uint32_t>(failures) == pool.failure_limit_) {
    count(svc_node->stats_, &server_counters::ejections);
    reset_probe(svc_node->probe_);
  }
}

// Counts modulo the temporary pool's number of connections, which sizes every server's slots.
conn_node* ruvo_redis::get_conn(server_node& svc_node, RedisServerType /*redisSrvType*/) {
  const std::uint32_t conn_num = t_pool_.conn_num_;
  const std::uint64_t number = next_number(svc_node.conn_count_);
  const auto index = static_cast<std::uint32_t>(conn_num > 0 ? number % conn_num : 0);
  RUVO_LOG(DEBUG, "ruvo_redis::get_conn | connection index: %u/%u", index, conn_num);
  if (index >= svc_node.context_arr_.size()) {
    RUVO_LOG(WARN, "ruvo_redis::get_conn | no connection %u on server %s port:%d", index,
             ip_of(svc_node.addr_), port_of(svc_node.addr_));
    return nullptr;
  }
  return &svc_node.context_arr_[index];
}

context_ptr ruvo_redis::open_replacement(const server_addr& addr, time_point deadline) {
  RUVO_LOG(WARN, "ruvo_redis::reset_connection | reset connection,ip:%s port:%d", ip_of(addr),
           port_of(addr));
  // The persistent pool's password opens the servers of every pool: deployed sites share one.
  opened_connection fresh = open_connection(
      addr, {conn_timeout_tv_, socket_timeout_tv_, p_pool_.redis_password_, deadline});
  if (fresh.outcome == open_outcome::unreachable) {
    RUVO_LOG(ERROR,
             "ruvo_redis::reset_connection | reconnect to server %s port:%d failed, error code is "
             "%s.",
             ip_of(addr), port_of(addr), error_text(fresh.context.get()));
  }
  if (fresh.outcome != open_outcome::ready) {
    return nullptr;
  }
  if (fresh.timeout_result.value_or(REDIS_OK) != REDIS_OK) {
    RUVO_LOG(ERROR, "ruvo_redis::reset_connection | redisSetTimeOut err, ret:%d",
             *fresh.timeout_result);
  } else if (fresh.timeout_result) {
    RUVO_LOG(
        DEBUG, "ruvo_redis::reset_connection | redisSetTimeOut time_out:%d (ms), success",
        static_cast<int>(socket_timeout_tv_.tv_sec * 1000 + socket_timeout_tv_.tv_usec / 1000));
  }
  return std::move(fresh.context);
}

redisContext* ruvo_redis::reset_connection(conn_node& conn, server_addr& addr) {
  context_ptr fresh = open_replacement(addr, no_deadline);
  if (!fresh) {
    return nullptr;
  }
  replace_context(conn, std::move(fresh));
  return conn.context_;
}

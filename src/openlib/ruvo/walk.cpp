#include "walk.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "connection.h"
#include "data_operation.h"
#include "exclusive_call.h"
#include "log_line.h"
#include "pipeline.h"
#include "ruvo_redis.h"

namespace {

constexpr std::size_t visits_per_server = 2;

// The deadline of the call has come.
void log_out_of_time(const ruvo_redis& redis, const command& command) {
  RUVO_LOG(WARN, "ruvo_redis::%s | key:%s, call time-out of %d ms has passed", command.method,
           command.key, redis.options().call_timeout);
}

bool has_passed(time_point deadline) {
  return deadline != no_deadline && std::chrono::steady_clock::now() >= deadline;
}

// Rebuilds a connection of a server.
class connection_rebuilder final : public rebuilder {
 public:
  connection_rebuilder(ruvo_redis& redis, server_node& server, time_point deadline)
      : redis_(redis), server_(server), deadline_(deadline) {}

  context_ptr rebuild() override {
    context_ptr fresh = redis_.open_replacement(server_.addr_, deadline_);
    if (fresh && !redis_.options().eject_silent_servers) {
      redis_.update_server_ok(&server_);
    }
    return fresh;
  }

 private:
  ruvo_redis& redis_;
  server_node& server_;
  time_point deadline_;
};

// Counts the failure of a visit that has ended without a reply. Where calls share what has
// happened, one of them counts it.
void count_failure(ruvo_redis& redis, const command& command, const slot_call& call,
                   server_node& server, send_end end) {
  const bool is_silent = redis.options().eject_silent_servers && !command.wire.refused();
  const bool is_failure =
      end == send_end::rebuild_failed ||
      (is_silent && (end == send_end::unanswered || (end == send_end::out_of_time && call.was_sent())));
  if (is_failure && call.state().counts_failure) {
    redis.update_server_failed(&server, command.pool);
  }
}

// A visit: one send, and on a broken connection one rebuild and one more send.
send_end visit(ruvo_redis& redis, const command& command, slot_call& call, server_node& server) {
  send_end end = call.send();
  if (end == send_end::unanswered) {
    const connection_error& error = call.state().error;
    if (error.code != 0) {
      RUVO_LOG(WARN, "ruvo_redis::%s | key:%s, connection err,try reset,ret:%d, err:%s",
               command.method, command.key, error.code, error.text);
    }
    connection_rebuilder rebuilder(redis, server, command.deadline);
    end = call.send_again(rebuilder);
  }
  if (end != send_end::replied) {
    count_failure(redis, command, call, server, end);
  } else if (redis.options().eject_silent_servers && call.state().is_first_reply) {
    redis.update_server_ok(&server);  // a rebuilt connection alone would not do
  }
  if (end == send_end::rebuild_failed) {
    RUVO_LOG(ERROR,
             "ruvo_redis::%s | key:%s, null reply and reset connection to server %s port:%d "
             "failed.",
             command.method, command.key, ip_of(server.addr_), port_of(server.addr_));
  } else if (end == send_end::out_of_time) {
    log_out_of_time(redis, command);
  }
  return end;
}

send_end visit(ruvo_redis& redis, const command& command, conn_node& slot, server_node& server,
               reply_ptr& reply) {
  const auto visit_with = [&](auto&& call) {
    const send_end end = visit(redis, command, call, server);
    reply = call.take_reply();
    return end;
  };
  const send_terms terms{{limit_of(redis.socket_timeout()), command.deadline}};
  return redis.options().auto_pipelining
             ? visit_with(pipelined_call(server, slot, command.wire, terms))
             : visit_with(exclusive_call(slot, command.wire, terms));
}

server_node* next_of_pool(ruvo_redis& redis, const server_node& failed, RedisServerType pool) {
  return redis.get_server_node(pool, static_cast<int>(failed.index_) + 1);
}

// With try_ejected_servers a call does not fail while a server may answer that is ejected for an
// earlier fault, also where the others are not ejected yet.
server_node* ejected_of_pool(ruvo_redis& redis, const tried_servers& tried, RedisServerType pool) {
  std::vector<server_node>& servers = redis.getPool(pool).servers_;
  const std::size_t count = std::min(servers.size(), tried.size());
  for (std::size_t i = 0; redis.options().try_ejected_servers && i < count; ++i) {
    if (!tried[i]) {
      return &servers[i];
    }
  }
  return nullptr;
}

std::size_t servers_of_pool(const ruvo_redis& redis, RedisServerType pool) {
  return redis.getPool(pool).servers_.size();
}

// Takes the next position as the number of a pool, and that pool's next server in turn: deployed
// systems rely on raw commands reaching the other pools.
server_node* next_of_any_pool(ruvo_redis& redis, const server_node& failed, RedisServerType) {
  return redis.get_server_node(static_cast<RedisServerType>(failed.index_ + 1), -1);
}

server_node* none(ruvo_redis&, const tried_servers&, RedisServerType) { return nullptr; }

std::size_t servers_of_all_pools(const ruvo_redis& redis, RedisServerType) {
  return servers_of_pool(redis, eTempServer) + servers_of_pool(redis, ePersistServer) +
         servers_of_pool(redis, ePersonalityServer);
}

}  // namespace

const route typed_route{next_of_pool, ejected_of_pool, servers_of_pool};
const route raw_route{next_of_any_pool, none, servers_of_all_pools};

// Each visit has its turn at one connection, also while the next server is chosen, and lets it go
// before the next is taken. The bound is for walks that do not come round: one that crosses pools
// can turn for ever, and a typed one could be held for a whole retry time-out by a server that
// accepts connections and never answers.
walk_end walk(ruvo_redis& redis, const route& route, const command& command, reply_ptr& reply) {
  server_node* server = redis.get_server_node(command.pool, -1);
  if (server == nullptr) {
    return walk_end::no_server_at_start;
  }
  const std::size_t first = server->index_;
  tried_servers tried;
  bool has_come_round = false;
  for (std::size_t visits = 1;; ++visits) {
    conn_node* conn = redis.get_conn(*server, command.pool);
    server_node* next = nullptr;
    if (conn == nullptr) {
      redis.update_server_failed(server, command.pool);
      next = route.next_server(redis, *server, command.pool);
    } else {
      switch (visit(redis, command, *conn, *server, reply)) {
        case send_end::replied:
          return walk_end::replied;
        case send_end::lock_failed:
          return walk_end::lock_failed;
        case send_end::out_of_time:
          return walk_end::out_of_time;
        default:
          next = route.next_server(redis, *server, command.pool);
      }
    }
    if (next == nullptr) {
      return walk_end::no_server_left;
    }
    tried.set(std::min(server->index_, tried.size() - 1));
    has_come_round = has_come_round || next->index_ == first;
    server = has_come_round ? route.last_resort(redis, tried, command.pool) : next;
    const std::size_t bound = visits_per_server * route.servers_in_reach(redis, command.pool);
    if (server == nullptr || visits == bound) {
      RUVO_LOG(WARN, "ruvo_redis::%s | can not find an available server", command.method);
      return walk_end::all_tried;
    }
    if (has_passed(command.deadline)) {
      log_out_of_time(redis, command);
      return walk_end::out_of_time;
    }
  }
}

// ---- The typed path, which makes a result code of the reply ----

int ruvo_redis::exec_command(const char* key, reply_ptr* reply, RedisServerType redisSrvType,
                             const char* format, va_list args) {
  if (key == nullptr) {
    RUVO_LOG(ERROR, "ruvo_redis::do_exec_command | key is NULL");
    return RUVO_ERR_NULL_ARGUMENT;
  }
  RUVO_LOG(INFO, "ruvo_redis::do_exec_command | key:%s, redis-server-type:%d", key,
           static_cast<int>(redisSrvType));
  const command command{"do_exec_command", key, redisSrvType, wire_command(format, args),
                        options_.deadline()};
  reply_ptr received;
  switch (walk(*this, typed_route, command, received)) {
    case walk_end::replied:
      break;
    case walk_end::lock_failed:
      return RUVO_ERR_FAILED;
    default:
      log_key_as_format(key);
      return RUVO_ERR_FAILED;
  }
  if (received->type == REDIS_REPLY_ERROR) {
    RUVO_LOG(ERROR, "ruvo_redis::do_exec_command | exec key:%s failed, redis reply str:%s.", key,
             received->str);
    return RUVO_ERR_FAILED;
  }
  if (received->type == REDIS_REPLY_NIL) {
    // Every pool counts as persistent here, only the number 0 does not: deployed systems rely on
    // it.
    RUVO_LOG(WARN, "ruvo_redis::do_exec_command | redis key:%s, persistence:%s, redis reply is nil",
             key, static_cast<int>(redisSrvType) != 0 ? "true" : "false");
    return RUVO_ERR_NOT_FOUND;
  }
  if (reply != nullptr) {
    *reply = std::move(received);
  }
  return RUVO_OK;
}

int ruvo_redis::do_exec_command(const char* key, redisReply*& reply, bool need_reply,
                                RedisServerType redisSrvType, const char* format, ...) {
  reply_ptr received;
  va_list args;
  va_start(args, format);
  const int ret = exec_command(key, need_reply ? &received : no_reply, redisSrvType, format, args);
  va_end(args);
  if (received) {
    reply = received.release();
  }
  return ret;
}

void ruvo_redis::exec_regardless(const char* key, RedisServerType redisSrvType, const char* format,
                                 ...) {
  va_list args;
  va_start(args, format);
  exec_command(key, no_reply, redisSrvType, format, args);
  va_end(args);
}

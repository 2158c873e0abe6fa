#include "walk.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "connection.h"
#include "connection_turn.h"
#include "data_operation.h"
#include "log_line.h"
#include "ruvo_redis.h"

namespace {

constexpr std::size_t visits_per_server = 2;

enum class visit_end { replied, no_reply, out_of_time, lock_failed };

// Has the time passed that a command may take? If so, the log says it.
bool is_out_of_time(const ruvo_redis& redis, const command& command) {
  if (std::chrono::steady_clock::now() < command.not_after) {
    return false;
  }
  RUVO_LOG(WARN, "ruvo_redis::%s | key:%s, call time-out of %d ms has passed", command.method,
           command.key, redis.options().call_timeout);
  return true;
}

// The first send, by this thread or by another that leads. Without a reply, the call knows why.
visit_end send_first(ruvo_redis& redis, const command& command, connection_turn& turn) {
  waiting_call& call = turn.call();
  if (!turn.wait()) {
    return visit_end::lock_failed;
  }
  if (call.is_left_out || (turn.leads() && call.is_late())) {
    is_out_of_time(redis, command);
    return visit_end::out_of_time;
  }
  if (turn.leads()) {
    if (!is_broken(turn.slot().context_)) {
      turn.send();
    } else if (turn.slot().context_ != nullptr) {
      call.note_error(*turn.slot().context_);
    }
  }
  return call.reply ? visit_end::replied : visit_end::no_reply;
}

// What follows a first send without a reply: a connection that nobody has rebuilt since is rebuilt,
// and the command sent once more.
visit_end send_again(ruvo_redis& redis, const command& command, connection_turn& turn,
                     server_node& server) {
  waiting_call& call = turn.call();
  if (is_out_of_time(redis, command)) {
    return visit_end::out_of_time;
  }
  if (!turn.leads()) {
    call.not_after = command.not_after;
    if (!turn.wait()) {
      return visit_end::lock_failed;
    }
    if ((turn.leads() || call.is_left_out) && is_out_of_time(redis, command)) {
      return visit_end::out_of_time;
    }
  }
  if (turn.leads()) {
    if (!turn.was_rebuilt() || is_broken(turn.slot().context_)) {
      turn.begin_rebuild();
      if (redis.reset_connection(turn.slot(), server.addr_) == nullptr) {
        call.rebuild_failed = true;
        turn.share_failed_rebuild();
        return visit_end::no_reply;
      }
      if (!redis.options().eject_silent_servers) {
        redis.update_server_ok(&server);
      }
      if (is_out_of_time(redis, command)) {
        return visit_end::out_of_time;
      }
    }
    turn.send();
  }
  return call.reply ? visit_end::replied : visit_end::no_reply;
}

// With eject_silent_servers it is an answer on a rebuilt connection that clears the failures.
void note_reply(ruvo_redis& redis, connection_turn& turn, server_node& server) {
  if (redis.options().eject_silent_servers && turn.leads() &&
      std::exchange(turn.slot().is_unproven_, false)) {
    redis.update_server_ok(&server);
  }
}

// A visit: one send, and on a broken connection one rebuild and one more send. A call whose command
// another thread has sent goes on from what came of that.
visit_end visit(ruvo_redis& redis, const command& command, connection_turn& turn,
                server_node& server) {
  waiting_call& call = turn.call();
  visit_end end = send_first(redis, command, turn);
  if (end == visit_end::no_reply) {
    if (call.error != 0) {
      RUVO_LOG(WARN, "ruvo_redis::%s | key:%s, connection err,try reset,ret:%d, err:%s",
               command.method, command.key, call.error, call.error_text);
    }
    if (!call.rebuild_failed) {
      end = send_again(redis, command, turn, server);
    }
    if (call.rebuild_failed) {
      redis.update_server_failed(&server, command.pool);
      RUVO_LOG(ERROR,
               "ruvo_redis::%s | key:%s, null reply and reset connection to server %s port:%d "
               "failed.",
               command.method, command.key, ip_of(server.addr_), port_of(server.addr_));
    } else if (end != visit_end::replied && redis.options().eject_silent_servers &&
               !command.wire.refused()) {
      redis.update_server_failed(&server, command.pool);
    }
  }
  if (end == visit_end::replied) {
    note_reply(redis, turn, server);
  }
  return end;
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
      connection_turn turn(*server, *conn, command.wire, redis.options().auto_pipelining);
      if (visits > 1) {
        turn.call().not_after = command.not_after;
      }
      const visit_end end = visit(redis, command, turn, *server);
      if (end == visit_end::replied) {
        reply = std::move(turn.call().reply);
        return walk_end::replied;
      }
      if (end != visit_end::no_reply) {
        return end == visit_end::lock_failed ? walk_end::lock_failed : walk_end::out_of_time;
      }
      next = route.next_server(redis, *server, command.pool);
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
    if (is_out_of_time(redis, command)) {
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
                        options_.end_of_command()};
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

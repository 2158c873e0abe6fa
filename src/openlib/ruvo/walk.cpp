#include "walk.h"

#include <optional>

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

// REQUIRES: the turn leads, and the context is not broken.
void exchange(ruvo_redis& redis, connection_turn& turn, server_node& server) {
  turn.exchange();
  if (turn.call().reply && turn.slot().owes_reply_) {
    turn.slot().owes_reply_ = false;
    redis.update_server_ok(&server);
  }
}

// The first send, by this thread or by another that leads. The call then has its reply, or knows
// why there is none. False when the slot's lock could not be taken.
bool send_first(ruvo_redis& redis, connection_turn& turn, server_node& server) {
  if (!turn.wait()) {
    return false;
  }
  if (turn.leads()) {
    if (!is_broken(turn.slot().context_)) {
      exchange(redis, turn, server);
    } else if (turn.slot().context_ != nullptr) {
      turn.call().note_error(*turn.slot().context_);
    }
  }
  return true;
}

// What follows a first send without a reply, with the lock: a connection that nobody has rebuilt
// since is rebuilt, and the command sent once more.
visit_end rebuild_and_send(ruvo_redis& redis, const command& command, connection_turn& turn,
                           server_node& server) {
  waiting_call& call = turn.call();
  if (!turn.was_rebuilt() || is_broken(turn.slot().context_)) {
    if (is_out_of_time(redis, command)) {
      return visit_end::out_of_time;
    }
    if (redis.reset_connection(turn.slot(), server.addr_) == nullptr) {
      call.rebuild_failed = true;
      turn.share_failed_rebuild();
      return visit_end::no_reply;
    }
    turn.slot().owes_reply_ = redis.options().eject_silent_servers;
    if (!turn.slot().owes_reply_) {
      redis.update_server_ok(&server);
    }
  }
  if (is_out_of_time(redis, command)) {
    return visit_end::out_of_time;
  }
  exchange(redis, turn, server);
  return visit_end::no_reply;
}

// A visit: one send, and on a broken connection one rebuild and one more send. A call whose command
// another thread has sent goes on from what came of that.
visit_end visit(ruvo_redis& redis, const command& command, connection_turn& turn,
                server_node& server) {
  waiting_call& call = turn.call();
  if (!send_first(redis, turn, server)) {
    return visit_end::lock_failed;
  }
  if (call.reply) {
    return visit_end::replied;
  }
  if (call.error != 0) {
    RUVO_LOG(WARN, "ruvo_redis::%s | key:%s, connection err,try reset,ret:%d, err:%s",
             command.method, command.key, call.error, call.error_text);
  }
  visit_end end = visit_end::no_reply;
  if (!call.rebuild_failed) {
    if (is_out_of_time(redis, command)) {
      end = visit_end::out_of_time;
    } else if (call.not_after = command.not_after; !turn.leads() && !turn.wait()) {
      return visit_end::lock_failed;
    } else if (turn.leads()) {
      end = rebuild_and_send(redis, command, turn, server);
    }
  }
  if (call.reply) {
    return visit_end::replied;
  }
  if (call.rebuild_failed) {
    redis.update_server_failed(&server, command.pool);
    RUVO_LOG(ERROR,
             "ruvo_redis::%s | key:%s, null reply and reset connection to server %s port:%d "
             "failed.",
             command.method, command.key, ip_of(server.addr_), port_of(server.addr_));
  } else if (redis.options().eject_silent_servers && !command.wire.refused()) {
    redis.update_server_failed(&server, command.pool);
  }
  return end;
}

}  // namespace

// The next position of the same pool.
const route typed_route{
    .next_server =
        [](ruvo_redis& redis, const server_node& failed, RedisServerType pool) {
          return redis.get_server_node(pool, static_cast<int>(failed.index_) + 1);
        },
    .servers_in_reach = [](const ruvo_redis& redis,
                           RedisServerType pool) { return redis.getPool(pool).servers_.size(); },
};

// Takes the next position as the number of a pool, and that pool's next server in turn: deployed
// systems rely on raw commands reaching the other pools.
const route raw_route{
    .next_server =
        [](ruvo_redis& redis, const server_node& failed, RedisServerType) {
          return redis.get_server_node(static_cast<RedisServerType>(failed.index_ + 1), -1);
        },
    .servers_in_reach =
        [](const ruvo_redis& redis, RedisServerType) {
          return redis.getPool(eTempServer).servers_.size() +
                 redis.getPool(ePersistServer).servers_.size() +
                 redis.getPool(ePersonalityServer).servers_.size();
        },
};

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
  for (std::size_t visits = 1;; ++visits) {
    std::optional<connection_turn> turn;
    if (conn_node* conn = redis.get_conn(*server, command.pool)) {
      turn.emplace(*server, *conn, command.wire, redis.options().auto_pipelining);
      if (visits > 1) {
        turn->call().not_after = command.not_after;
      }
      switch (visit(redis, command, *turn, *server)) {
        case visit_end::replied:
          reply = std::move(turn->call().reply);
          return walk_end::replied;
        case visit_end::lock_failed:
          return walk_end::lock_failed;
        case visit_end::out_of_time:
          return walk_end::out_of_time;
        case visit_end::no_reply:
          break;
      }
    } else {
      redis.update_server_failed(server, command.pool);
    }
    server = route.next_server(redis, *server, command.pool);
    if (server == nullptr) {
      return walk_end::no_server_left;
    }
    const std::size_t bound = visits_per_server * route.servers_in_reach(redis, command.pool);
    if (server->index_ == first || visits == bound) {
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

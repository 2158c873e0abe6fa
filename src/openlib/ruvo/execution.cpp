// One walk over the servers of a pool, and the typed path that sorts its reply into a result code.
//
// The typed and the raw path differ in four points of the walk, each told in one function here:
// the method that log lines name, the server that comes next, the bound, and how the end is told
// (by each path itself).
#include <ace/Guard_T.h>

#include <optional>

#include "connection.h"
#include "log_line.h"
#include "ruvo_redis.h"

namespace {

constexpr std::size_t visits_per_server = 2;

}  // namespace

// The method that the walk's log lines name.
const char* ruvo_redis::method_of(walk_path path) {
  return path == walk_path::raw ? "exec_redis_cmd" : "do_exec_command";
}

// A visit: one send, and on a broken connection one rebuild and one more send. Null when the server
// gave no reply. REQUIRES: the slot's lock is held.
reply_ptr ruvo_redis::visit(walk_path path, const char* key, conn_node& conn, server_node& server,
                            RedisServerType redisSrvType, const char* format, va_list args) {
  const char* method = method_of(path);
  if (!is_broken(conn.context_)) {
    if (reply_ptr reply = send_vcommand(*conn.context_, format, args)) {
      return reply;
    }
  }
  if (conn.context_ != nullptr && conn.context_->err != 0) {
    RUVO_LOG(WARN, "ruvo_redis::%s | key:%s, connection err,try reset,ret:%d, err:%s", method, key,
             conn.context_->err, conn.context_->errstr);
  }
  redisContext* fresh = reset_connection(conn, server.addr_);
  if (fresh == nullptr) {
    update_server_failed(&server, redisSrvType);
    RUVO_LOG(ERROR,
             "ruvo_redis::%s | key:%s, null reply and reset connection to server %s port:%d "
             "failed.",
             method, key, server.addr_.ip_.c_str(), static_cast<int>(server.addr_.port_));
    return nullptr;
  }
  update_server_ok(&server);
  return send_vcommand(*fresh, format, args);
}

// The typed path goes on with the next position of the same pool. The raw path takes the position
// as the number of a pool, and that pool's next server in turn: deployed systems rely on raw
// commands reaching the other pools.
server_node* ruvo_redis::next_server(walk_path path, const server_node& server,
                                     RedisServerType redisSrvType) {
  const int next = static_cast<int>(server.index_) + 1;
  return path == walk_path::raw ? get_server_node(static_cast<RedisServerType>(next), -1)
                                : get_server_node(redisSrvType, next);
}

// Bounds the walk: one that crosses pools can turn for ever, and a typed one could be held for a
// whole retry time-out by a server that accepts connections and never answers.
std::size_t ruvo_redis::visit_limit(walk_path path, RedisServerType redisSrvType) const {
  const std::size_t servers =
      path == walk_path::raw
          ? t_pool_.servers_.size() + p_pool_.servers_.size() + personality_pool_.servers_.size()
          : getPool(redisSrvType).servers_.size();
  return visits_per_server * servers;
}

// Visits servers until one replies. Each visit holds the lock of one connection, also while the
// next server is chosen, and lets it go before the next is taken.
ruvo_redis::walk_end ruvo_redis::walk(walk_path path, const char* key, RedisServerType redisSrvType,
                                      const char* format, va_list args, reply_ptr& reply) {
  server_node* server = get_server_node(redisSrvType, -1);
  if (server == nullptr) {
    return walk_end::no_server_at_start;
  }
  const std::size_t first = server->index_;
  for (std::size_t visits_left = visit_limit(path, redisSrvType);;) {
    std::optional<ACE_Guard<ACE_Thread_Mutex>> guard;
    if (conn_node* conn = get_conn(*server, redisSrvType)) {
      guard.emplace(*conn->lock_);
      if (!guard->locked()) {
        return walk_end::lock_failed;
      }
      reply = visit(path, key, *conn, *server, redisSrvType, format, args);
      if (reply) {
        return walk_end::replied;
      }
    } else {
      update_server_failed(server, redisSrvType);
    }
    server = next_server(path, *server, redisSrvType);
    if (server == nullptr) {
      return walk_end::no_server_left;
    }
    if (server->index_ == first || --visits_left == 0) {
      RUVO_LOG(WARN, "ruvo_redis::%s | can not find an available server", method_of(path));
      return walk_end::came_round;
    }
  }
}

int ruvo_redis::exec_command(const char* key, reply_ptr* reply, RedisServerType redisSrvType,
                             const char* format, va_list args) {
  if (key == nullptr) {
    RUVO_LOG(ERROR, "ruvo_redis::do_exec_command | key is NULL");
    return RUVO_ERR_NULL_ARGUMENT;
  }
  RUVO_LOG(INFO, "ruvo_redis::do_exec_command | key:%s, redis-server-type:%d", key,
           static_cast<int>(redisSrvType));
  reply_ptr received;
  switch (walk(walk_path::typed, key, redisSrvType, format, args, received)) {
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
  const int ret = exec_command(key, need_reply ? &received : nullptr, redisSrvType, format, args);
  va_end(args);
  if (received) {
    reply = received.release();
  }
  return ret;
}

#include "walk.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "connection.h"
#include "log_line.h"
#include "ruvo_redis.h"
#include "statistics.h"
#include "visit.h"

namespace {

using clock = std::chrono::steady_clock;

constexpr std::size_t visits_per_server = 2;

// If servers answer other commands but not this one, it is sent in at most this many walks.
constexpr int max_walks_while_others_answered = 3;

// How often a call that waits for servers checks whether one may be probed.
constexpr std::chrono::milliseconds shortest_wait{1};
constexpr std::chrono::milliseconds longest_wait{50};

server_choice next_of_pool(ruvo_redis& redis, const server_node& failed, RedisServerType pool) {
  return redis.choose_server(pool, static_cast<int>(failed.index_) + 1);
}

// With try_ejected_servers, a call does not fail before it has tried the servers that are ejected
// for an earlier fault, even if the others are not ejected yet.
server_choice ejected_of_pool(ruvo_redis& redis, const tried_servers& tried, RedisServerType pool) {
  std::vector<server_node>& servers = redis.getPool(pool).servers_;
  const std::size_t count = std::min(servers.size(), tried.size());
  for (std::size_t i = 0; redis.options().try_ejected_servers && i < count; ++i) {
    if (!tried[i] && begin_probe(servers[i].probe_)) {
      return {&servers[i], true};
    }
  }
  return {};
}

std::size_t servers_of_pool(const ruvo_redis& redis, RedisServerType pool) {
  return redis.getPool(pool).servers_.size();
}

// The failed server's position, counted from 1, is the number of the next pool, which gives its
// next server by round-robin: deployed systems rely on raw commands reaching the other pools.
server_choice next_of_any_pool(ruvo_redis& redis, const server_node& failed, RedisServerType) {
  return redis.choose_server(static_cast<RedisServerType>(failed.index_ + 1), -1);
}

server_choice none(ruvo_redis&, const tried_servers&, RedisServerType) { return {}; }

std::size_t servers_of_all_pools(const ruvo_redis& redis, RedisServerType) {
  return servers_of_pool(redis, eTempServer) + servers_of_pool(redis, ePersistServer) +
         servers_of_pool(redis, ePersonalityServer);
}

// Why a call has failed, for the statistics.
ruvo_stats_result cause_of(walk_end end) {
  switch (end) {
    case walk_end::out_of_time:
      return RUVO_STATS_DEADLINE;
    case walk_end::may_have_run:
      return RUVO_STATS_MAY_HAVE_RUN;
    case walk_end::lock_failed:
      return RUVO_STATS_OTHER_FAILURE;
    default:
      return RUVO_STATS_NO_SERVER;
  }
}

// Ends a probe when the visit has ended, whatever its result.
class probe_guard {
 public:
  explicit probe_guard(const server_choice& choice)
      : probe_(choice.is_probe ? &choice.server->probe_ : nullptr) {}
  ~probe_guard() {
    if (probe_ != nullptr) {
      end_probe(*probe_, has_answered);
    }
  }
  probe_guard(const probe_guard&) = delete;
  probe_guard& operator=(const probe_guard&) = delete;

  bool has_answered = false;

 private:
  server_probe* probe_;
};

// The walk of a command, and its state between visits.
class walker {
 public:
  walker(ruvo_redis& redis, const route& route, const command& command)
      : redis_(redis),
        route_(route),
        command_(command),
        pool_(redis.getPool(command.pool)),
        names_{command.method, pool_.number_} {
    if (redis.options().slow_call_log > 0) {
      begin_ = clock::now();
      timed_ = &times_;
    }
  }

  walk_end run(reply_ptr& reply) {
    walk_end end = walk_once(reply);
    if (end == walk_end::replied && timed_ == nullptr) {
      return end;
    }
    if (redis_.options().wait_for_servers) {
      end = wait_and_walk_again(end, reply);
    }
    // A call whose command may have run after a refusal does not end with that refusal.
    if (end != walk_end::replied && end != walk_end::lock_failed && end != walk_end::may_have_run &&
        refusal_) {
      reply = std::move(refusal_);
      end = walk_end::replied;
    }
    if (end != walk_end::replied) {
      note_cause(cause_of(end));
    }
    if (timed_ != nullptr) {
      log_slow_call();
    }
    return end;
  }

 private:
  walk_end walk_once(reply_ptr& reply);
  void note_answer(const server_choice& choice);
  walk_end wait_and_walk_again(walk_end end, reply_ptr& reply);
  void log_slow_call() const;

  ruvo_redis& redis_;
  const route& route_;
  const command& command_;
  server_pool& pool_;
  pool_outage::log_names names_;
  reply_ptr refusal_;      // the latest error reply of a server that will not serve
  bool has_sent_ = false;  // in the latest walk, without a reply
  call_times times_;
  call_times* timed_ = nullptr;
  time_point begin_{};
};

// Each visit has one connection, and releases it before the next visit takes its own. The bound is
// for walks that do not return to their first server: a walk that crosses pools could go on for
// ever, and one that stays in its pool could spend a whole retry timeout on a server that accepts
// connections and never answers.
walk_end walker::walk_once(reply_ptr& reply) {
  has_sent_ = false;
  server_choice choice = redis_.choose_server(command_.pool, -1);
  if (choice.server == nullptr) {
    return walk_end::no_server_at_start;
  }
  const std::size_t first = choice.server->index_;
  tried_servers tried;
  bool is_back = false;
  for (std::size_t visits = 1;; ++visits) {
    server_node& server = *choice.server;
    server_choice next;
    {
      probe_guard probe(choice);
      conn_node* const conn = redis_.get_conn(server, command_.pool);
      if (conn == nullptr) {
        redis_.update_server_failed(&server, command_.pool);
      } else {
        visit_result result = visit(redis_, command_, *conn, server, timed_);
        if (timed_ != nullptr) {
          ++times_.visits;
          times_.last_server = &server;
        }
        if (result.end != visit_end::replied && result.reply) {
          refusal_ = std::move(result.reply);
        }
        switch (result.end) {
          case visit_end::replied:
            probe.has_answered = true;
            note_answer(choice);
            reply = std::move(result.reply);
            return walk_end::replied;
          case visit_end::lock_failed:
            return walk_end::lock_failed;
          case visit_end::may_have_run:
            return walk_end::may_have_run;
          case visit_end::out_of_time:
            return walk_end::out_of_time;
          case visit_end::unanswered:
            break;
        }
        has_sent_ = has_sent_ || result.was_sent;
      }
      next = route_.next_server(redis_, server, command_.pool);
    }
    if (next.server == nullptr) {
      return walk_end::no_server_left;
    }
    tried.set(std::min(server.index_, tried.size() - 1));
    if (is_back || next.server->index_ == first) {
      is_back = true;
      if (next.is_probe) {
        release_probe(next.server->probe_);
      }
      next = route_.ejected_server(redis_, tried, command_.pool);
    }
    const std::size_t bound = visits_per_server * route_.servers_in_reach(redis_, command_.pool);
    if (next.server == nullptr || visits == bound) {
      if (next.is_probe) {
        release_probe(next.server->probe_);
      }
      RUVO_LOG(WARN, "ruvo_redis::%s | can not find an available server", command_.method);
      return walk_end::all_tried;
    }
    if (has_passed(command_.deadline)) {
      if (next.is_probe) {
        release_probe(next.server->probe_);
      }
      log_out_of_time(redis_, command_);
      return walk_end::out_of_time;
    }
    choice = next;
  }
}

void walker::note_answer(const server_choice& choice) {
  if (choice.is_probe) {
    // Until its failures are cleared, one call at a time uses it, as a probe.
    redis_.update_server_ok(choice.server);
  }
  // The walk of a raw command may have left its pool.
  const std::size_t index = choice.server->index_;
  if (index < pool_.servers_.size() && choice.server == &pool_.servers_[index]) {
    pool_.outage_.note_answer(names_);
  }
}

// In an outage of the pool the call sleeps until a server answers. It probes a server itself if no
// other call does and the server's pause is over.
walk_end walker::wait_and_walk_again(walk_end end, reply_ptr& reply) {
  const time_point began =
      command_.deadline - std::chrono::milliseconds(redis_.options().call_timeout);
  int walks_while_others_answered = 1;
  bool is_new = true;  // it has not waited yet
  while (end == walk_end::no_server_at_start || end == walk_end::no_server_left ||
         end == walk_end::all_tried) {
    if (has_passed(command_.deadline)) {
      log_out_of_time(redis_, command_);
      return walk_end::out_of_time;
    }
    if (pool_.servers_.empty()) {
      return end;
    }
    // Read before the decision to wait: the end of an outage from here on ends the sleep below.
    const std::uint32_t ended = pool_.outage_.ended();
    const bool others_are_answered = pool_.outage_.has_answered() && !pool_.outage_.is_on();
    if (others_are_answered && has_sent_ &&
        ++walks_while_others_answered > max_walks_while_others_answered) {
      return end;  // the command itself is the cause
    }
    if (!others_are_answered &&
        !pool_.outage_.join(names_, began, command_.deadline, std::exchange(is_new, false))) {
      return end;
    }
    time_point next_try = no_deadline;
    for (server_node& server : pool_.servers_) {
      next_try = std::min(next_try, next_probe(server.probe_));
    }
    const time_point now = clock::now();
    pool_.outage_.sleep(ended, std::min(command_.deadline, std::clamp(next_try, now + shortest_wait,
                                                                      now + longest_wait)));
    if (has_passed(command_.deadline)) {
      continue;
    }
    end = walk_once(reply);
  }
  return end;
}

void walker::log_slow_call() const {
  const auto ms = [](std::chrono::nanoseconds time) {
    return static_cast<long long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
  };
  const std::chrono::nanoseconds total = clock::now() - begin_;
  if (ms(total) < redis_.options().slow_call_log) {
    return;
  }
  const server_node* const last = times_.last_server;
  RUVO_LOG(WARN,
           "ruvo_redis::%s | key:%s, slow call: %lld ms, of these %lld waiting to be sent, %lld "
           "connecting, %lld for replies; visits:%zu, last server %s port:%d",
           command_.method, command_.key, ms(total),
           ms(std::max(std::chrono::nanoseconds(0), total - times_.connecting - times_.replies)),
           ms(times_.connecting), ms(times_.replies), times_.visits,
           last != nullptr ? ip_of(last->addr_) : "-", last != nullptr ? port_of(last->addr_) : 0);
}

}  // namespace

const route typed_route{next_of_pool, ejected_of_pool, servers_of_pool};
const route raw_route{next_of_any_pool, none, servers_of_all_pools};

walk_end walk(ruvo_redis& redis, const route& route, const command& command, reply_ptr& reply) {
  return walker(redis, route, command).run(reply);
}

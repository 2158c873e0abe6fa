#include "visit.h"

#include <algorithm>
#include <cstring>

#include "connection.h"
#include "exclusive_call.h"
#include "log_line.h"
#include "pipeline.h"
#include "ruvo_redis.h"
#include "statistics.h"

namespace {

using clock = std::chrono::steady_clock;

// Rebuilds a connection of a server.
class connection_rebuilder final : public rebuilder {
 public:
  connection_rebuilder(ruvo_redis& redis, server_node& server, time_point deadline,
                       call_times* times)
      : redis_(redis), server_(server), deadline_(deadline), times_(times) {}

  context_ptr rebuild() override {
    const time_point begin = times_ != nullptr ? clock::now() : time_point();
    context_ptr fresh = redis_.open_replacement(server_.addr_, deadline_);
    if (times_ != nullptr) {
      times_->connecting += clock::now() - begin;
    }
    count(server_.stats_,
          fresh ? &server_counters::reconnects : &server_counters::failed_reconnects);
    if (fresh && !redis_.options().eject_silent_servers) {
      redis_.update_server_ok(&server_);
    }
    return fresh;
  }

 private:
  ruvo_redis& redis_;
  server_node& server_;
  time_point deadline_;
  call_times* times_;
};

// Is the reply an error that the site's failover_replies list ("not me", "not now")?
bool is_failover_reply(const ruvo_redis& redis, const redisReply* reply) {
  if (reply == nullptr || reply->type != REDIS_REPLY_ERROR || reply->str == nullptr) {
    return false;
  }
  return std::ranges::any_of(redis.options().failover_replies, [reply](const std::string& begin) {
    return std::strncmp(reply->str, begin.c_str(), begin.size()) == 0;
  });
}

class visitor {
 public:
  visitor(ruvo_redis& redis, const command& command, server_node& server, slot_call& call,
          call_times* times)
      : redis_(redis), command_(command), server_(server), call_(call), times_(times) {}

  visit_result run() {
    send_end end = accepted(send_first());
    if (end == send_end::unanswered) {
      log_broken_connection();
      if (!may_have_run()) {
        end = accepted(send_again());
      }
    }
    if (end != send_end::replied) {
      count_failure(end);
    } else if (redis_.options().eject_silent_servers && call_.outcome().is_first_reply) {
      redis_.update_server_ok(&server_);  // a rebuilt connection alone proves nothing
    }
    count_end(end);
    return {end_of_visit(end), call_.outcome().was_sent,
            end == send_end::replied ? call_.take_reply() : std::move(refusal_)};
  }

 private:
  send_end send_first() {
    return timed([this] { return call_.send(); });
  }

  send_end send_again() {
    connection_rebuilder rebuilder(redis_, server_, command_.deadline, times_);
    const bool was_sent = call_.outcome().was_sent;
    const send_end end = timed([&] { return call_.send_again(rebuilder); });
    if (was_sent && (end == send_end::replied || end == send_end::unanswered)) {
      count(server_.stats_, &server_counters::second_sends);
    }
    return end;
  }

  template <typename Send>
  send_end timed(const Send& send) {
    const time_point sent_before = call_.outcome().sent_at;
    const send_end end = send();
    if (times_ != nullptr && call_.outcome().sent_at != sent_before) {
      times_->replies += clock::now() - call_.outcome().sent_at;
    }
    return end;
  }

  // A server that will not serve counts as unanswered.
  send_end accepted(send_end end) {
    if (end != send_end::replied || !is_failover_reply(redis_, call_.reply())) {
      return end;
    }
    count(server_.stats_, &server_counters::error_replies);
    refusal_ = call_.take_reply();
    call_.give_up(refusal_->str);
    return send_end::unanswered;
  }

  // True if the command must not be resent and was sent, unless a reply says that it was not run.
  bool may_have_run() const { return command_.must_not_resend && call_.outcome().was_sent; }

  void log_broken_connection() const {
    redis_.getPool(command_.pool).outage_.note_break();
    const connection_error& error = call_.error();
    if (error.code != 0) {
      RUVO_LOG(WARN, "ruvo_redis::%s | key:%s, connection err,try reset,ret:%d, err:%s",
               command_.method, command_.key, error.code, error.text);
    }
  }

  // Of the calls that share a failure, one counts it.
  void count_failure(send_end end) {
    const bool counts_silence = redis_.options().eject_silent_servers && !command_.wire.refused();
    const bool is_unanswered = end == send_end::unanswered ||
                               (end == send_end::out_of_time &&
                                (call_.outcome().was_sent || call_.outcome().rebuild_failed));
    if ((end == send_end::rebuild_failed || (counts_silence && is_unanswered)) &&
        call_.outcome().counts_failure) {
      redis_.update_server_failed(&server_, command_.pool);
    }
  }

  void count_end(send_end end) const {
    if (end != send_end::replied) {
      count(server_.stats_, &server_counters::no_replies);
      return;
    }
    count(server_.stats_, &server_counters::replies);
    const redisReply* reply = call_.reply();
    if (reply != nullptr && reply->type == REDIS_REPLY_ERROR) {
      count(server_.stats_, &server_counters::error_replies);
    }
  }

  visit_end end_of_visit(send_end end) const {
    switch (end) {
      case send_end::replied:
        return visit_end::replied;
      case send_end::lock_failed:
        return visit_end::lock_failed;
      case send_end::out_of_time:
        log_out_of_time(redis_, command_);
        return visit_end::out_of_time;
      case send_end::rebuild_failed:
        RUVO_LOG(ERROR,
                 "ruvo_redis::%s | key:%s, null reply and reset connection to server %s port:%d "
                 "failed.",
                 command_.method, command_.key, ip_of(server_.addr_), port_of(server_.addr_));
        break;
      case send_end::unanswered:
        break;
    }
    if (!may_have_run()) {
      return visit_end::unanswered;
    }
    RUVO_LOG(WARN, "ruvo_redis::%s | key:%s, not sent again: it may have run", command_.method,
             command_.key);
    return visit_end::may_have_run;
  }

  ruvo_redis& redis_;
  const command& command_;
  server_node& server_;
  slot_call& call_;
  call_times* times_;
  reply_ptr refusal_;
};

}  // namespace

bool has_passed(time_point deadline) { return deadline != no_deadline && clock::now() >= deadline; }

void log_out_of_time(const ruvo_redis& redis, const command& command) {
  RUVO_LOG(WARN, "ruvo_redis::%s | key:%s, call time-out of %d ms has passed", command.method,
           command.key, redis.options().call_timeout);
}

visit_result visit(ruvo_redis& redis, const command& command, conn_node& slot, server_node& server,
                   call_times* times) {
  const send_terms terms{{limit_of(redis.socket_timeout()), command.deadline},
                         times != nullptr,
                         command.must_not_resend,
                         server.stats_};
  count(server.stats_, &server_counters::calls);
  if (redis.options().auto_pipelining) {
    pipelined_call call(server, slot, command.wire, terms);
    return visitor(redis, command, server, call, times).run();
  }
  exclusive_call call(slot, command.wire, terms);
  return visitor(redis, command, server, call, times).run();
}

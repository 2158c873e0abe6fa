#include "judge.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string_view>
#include <utility>

using std::chrono::milliseconds;

const std::array<const char*, failure_count> failure_names{"the other server still ejected",
                                                           "a fault in each server",
                                                           "visits used up",
                                                           "raw command back at its start",
                                                           "call timeout",
                                                           "not sent again: it may have run",
                                                           "connection out of step",
                                                           "pool down for too long",
                                                           "outage expected",
                                                           "NOT ALLOWED"};

namespace {

constexpr int visits_per_server = 2;

void store_maximum(std::atomic<Clock::rep>& highest, Clock::rep value) {
  for (Clock::rep known = highest; known < value && !highest.compare_exchange_weak(known, value);) {
  }
}

milliseconds visit_bound(const Settings& settings) {
  return milliseconds(settings.connect_timeout_ms + 6 * settings.socket_timeout_ms);
}

void print(const char* verdict, const Call& call, double seconds, const Walk& walk) {
  std::ostringstream line;
  line << verdict << ": " << call.what << ", pool " << call.pool << ", after " << seconds << " s;";
  for (const std::string& server : walk.rebuilds) {
    line << " tried " << server;
  }
  for (const std::string& server : walk.skipped) {
    line << " skipped " << server;
  }
  std::puts(line.str().c_str());
}

}  // namespace

Judge::Judge(const Site& site, const FaultRecord& faults, int threads)
    : site_(site),
      faults_(faults),
      threads_(threads),
      callers_(static_cast<std::size_t>(threads)) {}

double Judge::seconds(Ticks time) {
  return std::chrono::duration<double>(Clock::duration(time)).count();
}

Judge::Caller& Judge::own_caller() {
  thread_local const std::size_t number = next_thread_++;
  return callers_.at(number % callers_.size());
}

bool Judge::is_bound_to_pool(const Call& call) const {
  return call.family != raw || site_.settings.options.raw_commands_stay_in_pool;
}

// As the operations guide derives it. Without a deadline a visit takes at most C + 6 S, and each
// visit waits for those of the threads that share its connection.
Clock::duration Judge::bound(const Call& call) const {
  const Settings& settings = site_.settings;
  if (settings.options.call_timeout > 0) {
    return milliseconds(settings.options.call_timeout) + scheduling_tolerance;
  }
  const std::size_t servers =
      is_bound_to_pool(call) ? site_.pools.at(index_of(call.pool)).size() : site_.all_servers();
  const int commands = std::string_view(call.what) == "increase" ? 2 : 1;
  return commands * visits_per_server * static_cast<int>(servers) * sharers() *
         visit_bound(settings);
}

// How many visits to a connection a call may have to wait for, its own included. With
// auto_pipelining the threads that share it visit it together: a call waits for the visits in
// progress, and then for its own.
int Judge::sharers() const {
  const Settings& settings = site_.settings;
  const int threads = (threads_ + settings.connections - 1) / settings.connections;
  return settings.options.auto_pipelining ? std::min(threads, 2) : threads;
}

std::string Judge::explain_bound() const {
  const Settings& settings = site_.settings;
  std::ostringstream text;
  text << std::chrono::duration<double>(bound({strings, "", 1})).count() << " s";
  if (settings.options.call_timeout > 0) {
    text << ": call_timeout, and " << scheduling_tolerance.count() << " ms to schedule the thread";
    return text.str();
  }
  text << " for a typed command, " << std::chrono::duration<double>(bound({raw, "", 1})).count()
       << " s for a raw one: 2 visits x servers x (C + 6 S) x " << sharers()
       << (settings.options.auto_pipelining ? " rounds" : " threads")
       << " on a connection; C = " << settings.connect_timeout_ms
       << " ms, S = " << settings.socket_timeout_ms << " ms";
  return text.str();
}

bool Judge::finds_hang() const {
  const Ticks longest = std::max(bound({strings, "increase", 1}), bound({raw, "", 1})).count();
  return has_call_from_before(Clock::now() - Clock::duration(longest));
}

bool Judge::has_call_from_before(Clock::time_point time) const {
  return std::any_of(callers_.begin(), callers_.end(), [time](const Caller& caller) {
    const Ticks begun = caller.begin;
    return begun != 0 && begun < time.time_since_epoch().count();
  });
}

void Judge::call_begins(const Call& call) {
  begin_walk();
  Caller& caller = own_caller();
  caller.served_last = served_.at(index_of(call.pool));
  caller.begin = Clock::now().time_since_epoch().count();
}

void Judge::call_ended(const Call& call, int result) {
  const Ticks begun = own_caller().begin.exchange(0);
  const Clock::time_point from{Clock::duration(begun)};
  const Clock::time_point to = Clock::now();
  end_walk();
  const Walk& walk = current_walk();
  const Ticks taken = (to - from).count();
  store_maximum(call.family == raw ? longest_raw_ : longest_typed_, taken);
  if (to - from > bound(call)) {
    ++too_long_;
    print("TOO LONG", call, seconds(taken), walk);
  }
  const milliseconds deadline(site_.settings.options.call_timeout);
  if (deadline.count() > 0 && 2 * (to - from) > deadline) {
    check_wait(call, from, to);
  }
  for (const std::string& server : walk.failed) {
    if (!faults_.touches(server, from, to)) {
      ++failed_without_fault_;
      print("NO CONNECTION TO A SERVER THAT IS UP", call, seconds(taken), walk);
    }
  }
  if (result != RUVO_ERR_FAILED) {
    served_.at(index_of(call.pool)) = to;
    return;
  }
  const Failure why = explain(call, walk, from, to);
  ++failures_[why];
  if (why == unexplained) {
    print("FAILED WITHOUT REASON", call, seconds(taken), walk);
  }
}

Failure Judge::explain(const Call& call, const Walk& walk, Clock::time_point from,
                       Clock::time_point to) {
  const Settings& settings = site_.settings;
  const auto& servers = site_.pools.at(index_of(call.pool));
  if (site_.outage_expected) {
    return in_an_outage;
  }
  if (faults_.may_be_out_of_step(call.pool, from, to)) {
    return out_of_step;
  }
  if (may_fail_in_outage(call, from, to)) {
    return in_a_long_outage;
  }
  // A connection that broke in a fault may not have been used since: its threads waited in other
  // pools.
  const milliseconds max_time_unused(settings.options.call_timeout);
  if (walk.may_have_run && std::any_of(servers.begin(), servers.end(), [&](const auto& server) {
        return faults_.touches(server->addr(), from - max_time_unused, to);
      })) {
    return may_have_run;
  }
  if (is_bound_to_pool(call) && settings.one_server_suffices()) {
    return unexplained;  // no call may fail
  }
  const bool tried_faulty_ones_only =
      std::all_of(walk.rebuilds.begin(), walk.rebuilds.end(),
                  [&](const std::string& server) { return faults_.touches(server, from, to); });
  if (!tried_faulty_ones_only) {
    return unexplained;
  }
  if (walk.timed_out) {
    return out_of_time;
  }
  if (!is_bound_to_pool(call) && walk.failed_over()) {
    return raw_back_at_start;
  }
  const auto is_in = [](const std::vector<std::string>& list, const std::string& server) {
    return std::find(list.begin(), list.end(), server) != list.end();
  };
  // A server is ejected for failures in a fault, and at most for the time that the settings say.
  const Clock::duration ejection =
      std::chrono::seconds(settings.retry_timeout_s) + visit_bound(settings);
  for (const auto& server : servers) {
    if (!is_in(walk.rebuilds, server->addr()) &&
        !(is_in(walk.skipped, server->addr()) &&
          faults_.touches(server->addr(), from - ejection, to))) {
      return unexplained;
    }
  }
  if (walk.rebuilds.size() >= visits_per_server * servers.size()) {
    return visits_used_up;
  }
  return walk.skipped.empty() ? each_had_a_fault : still_ejected;
}

// The latest outage of its pool, if it had lasted long when the call ended. If calls wait for
// servers, a shorter outage fails no call.
std::optional<Outage> Judge::long_outage(const Call& call, Clock::time_point to) {
  const milliseconds deadline(site_.settings.options.call_timeout);
  const std::optional<Outage> outage =
      faults_.outage_before(call.pool, to, own_caller().served_last);
  return outage && std::min(outage->to, to) - outage->from >= deadline / 2 ? outage : std::nullopt;
}

// A thread waits once in an outage, whether its call is served or not: then the pool is given up.
void Judge::check_wait(const Call& call, Clock::time_point from, Clock::time_point to) {
  const std::optional<Outage> outage = long_outage(call, to);
  if (outage && from <= outage->to &&
      std::exchange(own_caller().waited_in.at(index_of(call.pool)), outage->from) == outage->from) {
    ++waited_again_;
    print("WAITED AGAIN IN THE SAME OUTAGE", call, seconds((to - from).count()), current_walk());
  }
}

// After a long outage calls may fail until the first is served. That takes a thread that calls the
// pool and probes its servers, and each thread may first have to wait in the other pools.
bool Judge::may_fail_in_outage(const Call& call, Clock::time_point from, Clock::time_point to) {
  const milliseconds deadline(site_.settings.options.call_timeout);
  const Clock::duration recovery_time =
      static_cast<int>(pool_count - 1) * deadline + longest_probe_pause + scheduling_tolerance;
  const std::optional<Outage> outage = long_outage(call, to);
  return outage && (from <= outage->to ||
                    (own_caller().served_last <= outage->to && from - outage->to <= recovery_time));
}

bool Judge::may_be_out_of_step(const Call& call, Clock::time_point begin) const {
  return faults_.may_be_out_of_step(call.pool, begin, Clock::now());
}

bool Judge::may_have_left_pool() const { return current_walk().failed_over(); }

#include "judge.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string_view>

using std::chrono::milliseconds;

const std::array<const char*, failure_count> failure_names{"the other server still ejected",
                                                           "a fault in each server",
                                                           "visits used up",
                                                           "raw command came round",
                                                           "call timeout",
                                                           "outage expected",
                                                           "NOT ALLOWED"};

namespace {

constexpr int visits_per_server = 2;

void raise_to(std::atomic<Clock::rep>& highest, Clock::rep value) {
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
    : site_(site), faults_(faults), threads_(threads), begins_(static_cast<std::size_t>(threads)) {}

double Judge::seconds(Ticks time) {
  return std::chrono::duration<double>(Clock::duration(time)).count();
}

std::atomic<Judge::Ticks>& Judge::my_begin() {
  thread_local const std::size_t mine = next_thread_++;
  return begins_.at(mine % begins_.size());
}

// As the operations guide derives it: a visit takes at most C + 6 S.
//
// Threads that meet on a connection wait for each other: one visit each, or, where they share its
// round trips, one visit of the thread that leads, whose last send takes those along that wait.
//
// When call_timeout passes, what is under way still ends, and nothing else is begun: at most
// such a wait and one step of this thread's own, a rebuild (C + 2 S) or an exchange (2 S).
Clock::duration Judge::bound(const Call& call) const {
  const Settings& settings = site_.settings;
  const auto pool = static_cast<std::size_t>(call.pool - 1);
  const std::size_t servers =
      call.family == raw ? site_.all_servers() : site_.pools.at(pool).size();
  const int commands = std::string_view(call.what) == "increase" ? 2 : 1;
  const Clock::duration walk =
      visit_bound(settings) * static_cast<int>(servers) * visits_per_server * sharers();
  const Clock::duration timed =
      milliseconds(settings.call_timeout_ms) + visit_bound(settings) * (sharers() - 1) +
      milliseconds(settings.connect_timeout_ms + 2 * settings.socket_timeout_ms);
  return commands * (settings.call_timeout_ms > 0 ? std::min(walk, timed) : walk);
}

// The visits that pass at a connection until a call there has had its own.
int Judge::sharers() const {
  const Settings& settings = site_.settings;
  const int threads = (threads_ + settings.connections - 1) / settings.connections;
  return settings.auto_pipelining ? std::min(threads, 2) : threads;
}

std::string Judge::explain_bound() const {
  const double typed = std::chrono::duration<double>(bound({strings, "", 1})).count();
  const double any = std::chrono::duration<double>(bound({raw, "", 1})).count();
  std::ostringstream text;
  text << typed << " s for a typed command, " << any
       << " s for a raw one: 2 visits x servers x (C + 6 S) x "
       << (site_.settings.auto_pipelining ? "2 where threads" : "threads that")
       << " share a connection";
  if (site_.settings.call_timeout_ms > 0) {
    text << ", or T + " << sharers() - 1
         << " (C + 6 S) + C + 2 S, T = " << site_.settings.call_timeout_ms << " ms";
  }
  text << "; C = " << site_.settings.connect_timeout_ms
       << " ms, S = " << site_.settings.socket_timeout_ms << " ms, " << threads_ << " threads on "
       << site_.settings.connections << " connections";
  return text.str();
}

bool Judge::finds_hang() const {
  const Ticks longest = std::max(bound({strings, "increase", 1}), bound({raw, "", 1})).count();
  return has_call_from_before(Clock::now() - Clock::duration(longest));
}

bool Judge::has_call_from_before(Clock::time_point time) const {
  return std::any_of(begins_.begin(), begins_.end(), [time](const std::atomic<Ticks>& begin) {
    const Ticks begun = begin;
    return begun != 0 && begun < time.time_since_epoch().count();
  });
}

void Judge::call_begins(const Call& /*call*/) {
  begin_walk();
  my_begin() = Clock::now().time_since_epoch().count();
}

void Judge::call_ended(const Call& call, int result) {
  const Ticks begun = my_begin().exchange(0);
  const Clock::time_point from{Clock::duration(begun)};
  const Clock::time_point to = Clock::now();
  end_walk();
  const Walk& walk = current_walk();
  const Ticks taken = (to - from).count();
  raise_to(call.family == raw ? longest_raw_ : longest_typed_, taken);
  if (to - from > bound(call)) {
    ++too_long_;
    print("TOO LONG", call, seconds(taken), walk);
  }
  for (const std::string& server : walk.failed) {
    if (!faults_.touches(server, from, to)) {
      ++failed_without_fault_;
      print("NO CONNECTION TO A SERVER THAT IS UP", call, seconds(taken), walk);
    }
  }
  if (result == RUVO_ERR_FAILED) {
    const Failure why = explain(call, walk, from, to);
    ++failures_[why];
    if (why == unexplained) {
      print("FAILED WITHOUT REASON", call, seconds(taken), walk);
    }
  }
}

Failure Judge::explain(const Call& call, const Walk& walk, Clock::time_point from,
                       Clock::time_point to) const {
  if (site_.outage_expected) {
    return in_an_outage;
  }
  if (call.family != raw && site_.settings.spares_calls()) {
    return unexplained;  // none may fail
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
  if (call.family == raw && walk.failed_over()) {
    return raw_came_round;
  }
  const auto& servers = site_.pools.at(static_cast<std::size_t>(call.pool - 1));
  const auto is_in = [](const std::vector<std::string>& list, const std::string& server) {
    return std::find(list.begin(), list.end(), server) != list.end();
  };
  // A server is ejected for failures in a fault, and for no longer than the settings say.
  const Settings& settings = site_.settings;
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

bool Judge::may_have_left_pool() const { return current_walk().failed_over(); }

// Checks every call: did it end in time, and was it allowed to fail?
#ifndef RUVO_TOOLS_CHAOS_JUDGE_H
#define RUVO_TOOLS_CHAOS_JUDGE_H

#include <array>
#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "driver.h"
#include "walk_log.h"
#include "workload.h"

// Allowed beyond the library's own bound of a call: the time until its thread runs on a busy
// machine.
constexpr std::chrono::milliseconds scheduling_tolerance(1000);
// Upper bound of the pause between two probes of an ejected server.
constexpr std::chrono::milliseconds longest_probe_pause(500);

// Why a call failed. The rules of failover allow all but the last.
enum Failure {
  // The walk met a server that was up and still ejected for its last failure: it is skipped until
  // its retry time has come.
  still_ejected,
  // Each server of the pool had a fault during the call: the second one after the call had already
  // waited for the first.
  each_had_a_fault,
  // The walk made two visits for each server, which is its upper bound, and no server replied.
  visits_used_up,
  // A raw command that may leave its pool fails over to the pool whose number is the position of
  // the failed server, counted from 1. It gives up when it meets a server at the position where it
  // began, though another may be up.
  raw_back_at_start,
  // The time that a call may take had passed.
  out_of_time,
  // With send_once: the connection broke in a fault, and the command may have run.
  may_have_run,
  // The call got another call's reply, or none: a connection of the pool received an extra reply.
  out_of_step,
  // All servers of its pool were down for longer than a call waits, and until one was found again.
  in_a_long_outage,
  // The operator has said that all servers of a pool may fail at once.
  in_an_outage,
  unexplained,
  failure_count
};
extern const std::array<const char*, failure_count> failure_names;

class Judge : public CallObserver {
 public:
  Judge(const Site& site, const FaultRecord& faults, int threads);

  void call_begins(const Call& call) override;
  void call_ended(const Call& call, int result) override;
  bool may_have_left_pool() const override;
  bool may_be_out_of_step(const Call& call, Clock::time_point begin) const override;

  // The upper bound of a call's time, and its derivation.
  Clock::duration bound(const Call& call) const;
  std::string explain_bound() const;
  // Has a call in progress taken longer than the upper bound?
  bool finds_hang() const;
  // Is a call in progress that began before this time?
  bool has_call_from_before(Clock::time_point time) const;

  long failures(Failure why) const { return failures_[why]; }
  long too_long() const { return too_long_; }
  long failed_without_fault() const { return failed_without_fault_; }
  long waited_again() const { return waited_again_; }
  double longest_typed() const { return seconds(longest_typed_); }
  double longest_raw() const { return seconds(longest_raw_); }

 private:
  using Ticks = Clock::rep;
  // A thread that calls.
  struct Caller {
    std::atomic<Ticks> begin{0};  // of its call; 0 between calls
    // When the call began: the time at which its pool had last served one.
    Clock::time_point served_last;
    // By pool: the start of the latest outage that it waited in.
    std::array<Clock::time_point, pool_count> waited_in;
  };

  static double seconds(Ticks time);
  Caller& own_caller();
  int sharers() const;
  bool is_bound_to_pool(const Call& call) const;
  Failure explain(const Call& call, const Walk& walk, Clock::time_point from, Clock::time_point to);
  std::optional<Outage> long_outage(const Call& call, Clock::time_point to);
  void check_wait(const Call& call, Clock::time_point from, Clock::time_point to);
  bool may_fail_in_outage(const Call& call, Clock::time_point from, Clock::time_point to);

  const Site& site_;
  const FaultRecord& faults_;
  int threads_;
  std::vector<Caller> callers_;
  static inline std::atomic<std::size_t> next_thread_{0};  // shared: a thread has one number
  // When each pool last served a call.
  std::array<std::atomic<Clock::time_point>, pool_count> served_{};
  std::array<std::atomic<long>, failure_count> failures_{};
  std::atomic<long> too_long_{0};
  std::atomic<long> failed_without_fault_{0};
  std::atomic<long> waited_again_{0};
  std::atomic<Ticks> longest_typed_{0};
  std::atomic<Ticks> longest_raw_{0};
};

#endif

// Injects faults into one server of each pool at a time, or into all of a pool, on a plan that a
// seed determines, and records when.
#ifndef RUVO_TOOLS_CHAOS_DRIVER_H
#define RUVO_TOOLS_CHAOS_DRIVER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "site.h"

using Clock = std::chrono::steady_clock;

// An extra reply shifts the later ones until the library checks the connection: after 100 ms or 64
// round trips, whichever is longer, once nothing is in flight.
constexpr std::chrono::milliseconds out_of_step_window(1000);

struct Outage {
  Clock::time_point from;
  Clock::time_point to;  // the maximum while it lasts
};

// When each server had a fault. Read by the calling threads, written by the driver. Pools are
// counted from 1.
class FaultRecord {
 public:
  // `outside`: others inject the faults, and any server may have one at any time.
  explicit FaultRecord(bool outside) : outside_(outside) {}
  void begin(const std::string& server);
  void end(const std::string& server);
  // Did it have a fault at any time between the two?
  bool touches(const std::string& server, Clock::time_point from, Clock::time_point to) const;

  // All servers of a pool are down.
  void begin_outage(int pool);
  void end_outage(int pool);
  // The latest outage that began before `time`. It includes earlier ones that ended after `served`,
  // the time of the last served call: to the host they are one outage.
  std::optional<Outage> outage_before(int pool, Clock::time_point time,
                                      Clock::time_point served) const;

  // A connection of the pool gets a reply that nobody asked for.
  void note_extra_reply(int pool);
  // May a call of that time have received another call's reply?
  bool may_be_out_of_step(int pool, Clock::time_point from, Clock::time_point to) const;

 private:
  struct Span {
    std::string server;
    Outage time;
  };

  bool outside_;
  std::array<std::atomic<Clock::rep>, pool_count> extra_replies_{};  // the latest; 0: none
  mutable std::mutex mutex_;
  std::vector<Span> spans_;  // the latest one last; guarded by mutex_, like the next field
  std::array<std::vector<Outage>, pool_count> outages_;
};

class Driver {
 public:
  // Is a call in progress that began before this time?
  using HasCallFromBefore = std::function<bool(Clock::time_point)>;

  // Injects no fault while `has_call_from_before` is true for the time at which the previous one
  // was cleared: no call meets two.
  Driver(Site& site, std::uint64_t seed, std::vector<Fault> faults, FaultRecord& record,
         HasCallFromBefore has_call_from_before);

  // Does what is due, and returns when the next step is due.
  Clock::time_point step();
  void clear_all();  // step() injects nothing afterwards
  const std::array<long, fault_count>& injected() const { return injected_; }

 private:
  struct Pool {
    std::mt19937_64 plan;
    Clock::time_point next;
    Clock::time_point cleared;
    std::vector<Target*> targets;  // that have a fault
    Fault fault = killed;
  };

  void inject(int number, Pool& pool);
  void clear(int number, Pool& pool);
  std::chrono::milliseconds length_of(Fault fault, std::mt19937_64& plan) const;
  static void plan_next(Pool& pool);

  Site& site_;
  std::vector<Fault> faults_;
  FaultRecord& record_;
  HasCallFromBefore has_call_from_before_;
  Clock::time_point start_ = Clock::now();
  std::array<Pool, pool_count> pools_;
  std::array<long, fault_count> injected_{};
};

#endif

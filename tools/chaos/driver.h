// Injects faults into one server of each pool at a time, on a plan that a seed determines, and
// remembers when.
#ifndef RUVO_TOOLS_CHAOS_DRIVER_H
#define RUVO_TOOLS_CHAOS_DRIVER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "site.h"

using Clock = std::chrono::steady_clock;

// When each server was at fault. Asked by the threads that call, written by the driver.
class FaultRecord {
 public:
  // `outside`: somebody else injects faults, and any server may have one at any time.
  explicit FaultRecord(bool outside) : outside_(outside) {}
  void begin(const std::string& server);
  void end(const std::string& server);
  // Was it at fault at any time in between?
  bool touches(const std::string& server, Clock::time_point from, Clock::time_point to) const;

 private:
  struct Span {
    std::string server;
    Clock::time_point from;
    Clock::time_point to;  // the greatest there is while it lasts
  };

  bool outside_;
  mutable std::mutex mutex_;
  std::vector<Span> spans_;  // guarded by mutex_; the latest last
};

class Driver {
 public:
  // Is a call still under way that began before this?
  using CallsFrom = std::function<bool(Clock::time_point)>;

  // No fault is injected while `calls_from_before` says that a call has seen the one before: no
  // call meets two.
  Driver(Site& site, std::uint64_t seed, std::vector<Fault> faults, FaultRecord& record,
         CallsFrom calls_from_before);

  // Does what is due, and returns when the next thing is.
  Clock::time_point step();
  void clear_all();  // step() injects nothing afterwards
  const std::array<long, fault_count>& injected() const { return injected_; }

 private:
  struct Pool {
    std::mt19937_64 plan;
    Clock::time_point next;
    Clock::time_point cleared;
    Target* target = nullptr;  // that has a fault
    Fault fault = killed;
  };

  void inject(std::size_t number, Pool& pool);
  void clear(Pool& pool);
  static void plan_next(Pool& pool);

  Site& site_;
  std::vector<Fault> faults_;
  FaultRecord& record_;
  CallsFrom calls_from_before_;
  Clock::time_point start_ = Clock::now();
  std::array<Pool, pool_count> pools_;
  std::array<long, fault_count> injected_{};
};

#endif

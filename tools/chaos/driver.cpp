#include "driver.h"

#include <algorithm>
#include <cstdio>

using std::chrono::milliseconds;

namespace {

// A pause between two faults may be shorter than an ejection and longer. A fault is from a moment
// to several socket timeouts long.
constexpr int shortest_pause_ms = 200;
constexpr int longest_pause_ms = 2500;
constexpr int shortest_fault_ms = 50;
constexpr int longest_fault_ms = 2000;

milliseconds between(std::mt19937_64& plan, int shortest, int longest) {
  return milliseconds(shortest +
                      static_cast<int>(plan() % static_cast<unsigned>(longest - shortest)));
}

double seconds(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

}  // namespace

void FaultRecord::begin(const std::string& server) {
  const std::scoped_lock lock(mutex_);
  spans_.push_back({server, Clock::now(), Clock::time_point::max()});
}

void FaultRecord::end(const std::string& server) {
  const std::scoped_lock lock(mutex_);
  const auto latest = std::find_if(spans_.rbegin(), spans_.rend(),
                                   [&](const Span& span) { return span.server == server; });
  latest->to = Clock::now();
}

bool FaultRecord::touches(const std::string& server, Clock::time_point from,
                          Clock::time_point to) const {
  const std::scoped_lock lock(mutex_);
  return outside_ || std::any_of(spans_.rbegin(), spans_.rend(), [&](const Span& span) {
           return span.server == server && span.from <= to && span.to >= from;
         });
}

Driver::Driver(Site& site, std::uint64_t seed, std::vector<Fault> faults, FaultRecord& record,
               CallsFrom calls_from_before)
    : site_(site),
      faults_(std::move(faults)),
      record_(record),
      calls_from_before_(std::move(calls_from_before)) {
  seed *= pool_count;
  for (Pool& pool : pools_) {
    pool.plan.seed(seed++);
    pool.next = start_ + between(pool.plan, shortest_pause_ms, longest_pause_ms);
  }
}

Clock::time_point Driver::step() {
  Clock::time_point next = Clock::time_point::max();
  for (std::size_t number = 0; number < pool_count && !faults_.empty(); ++number) {
    Pool& pool = pools_[number];
    if (pool.next <= Clock::now()) {
      if (pool.target == nullptr && calls_from_before_(pool.cleared)) {
        pool.next = Clock::now() + milliseconds(shortest_fault_ms);
      } else if (pool.target == nullptr) {
        inject(number, pool);
      } else {
        clear(pool);
        plan_next(pool);
      }
    }
    next = std::min(next, pool.next);
  }
  return next;
}

void Driver::clear_all() {
  for (Pool& pool : pools_) {
    if (pool.target != nullptr) {
      clear(pool);
    }
  }
  faults_.clear();
}

void Driver::inject(std::size_t number, Pool& pool) {
  const auto& servers = site_.pools[number];
  const std::size_t server = pool.plan() % servers.size();
  pool.fault = faults_[pool.plan() % faults_.size()];
  const milliseconds length = between(pool.plan, shortest_fault_ms, longest_fault_ms);
  pool.target = servers[server].get();
  std::printf("%8.2f s  planned %8.2f s  %-5s  pool %zu server %zu", seconds(Clock::now() - start_),
              seconds(pool.next - start_), fault_names[pool.fault], number + 1, server + 1);
  std::printf(pool.fault == reset ? "\n" : "  for %4ld ms\n", static_cast<long>(length.count()));
  record_.begin(pool.target->addr());
  pool.target->inject(pool.fault);
  ++injected_[pool.fault];
  if (pool.fault == reset) {
    clear(pool);
    plan_next(pool);
  } else {
    pool.next += length;
  }
}

// A machine that is too slow for the plan gets its pauses all the same.
void Driver::plan_next(Pool& pool) {
  pool.next = std::max(pool.next + between(pool.plan, shortest_pause_ms, longest_pause_ms),
                       Clock::now() + milliseconds(shortest_pause_ms));
}

void Driver::clear(Pool& pool) {
  pool.target->clear(pool.fault);
  record_.end(pool.target->addr());
  pool.cleared = Clock::now();
  pool.target = nullptr;
}

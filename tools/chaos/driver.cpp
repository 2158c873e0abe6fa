#include "driver.h"

#include <algorithm>
#include <cstdio>

using std::chrono::milliseconds;

namespace {

// A pause between two faults may be shorter or longer than an ejection. A fault may be as short as
// a moment and as long as several socket timeouts.
constexpr int shortest_pause_ms = 200;
constexpr int longest_pause_ms = 2500;
constexpr int shortest_fault_ms = 50;
constexpr int longest_fault_ms = 2000;

milliseconds between(std::mt19937_64& plan, int shortest, int longest) {
  return milliseconds(shortest +
                      static_cast<int>(plan() % static_cast<unsigned>(longest - shortest)));
}

bool hits_all_servers(Fault fault) { return fault == away || fault == long_away; }

// Calls end much sooner, unless options make the timeouts minutes long: without these outages a
// long run needs no more memory than a short one.
bool is_forgotten(const Outage& past) { return past.to < Clock::now() - std::chrono::minutes(5); }

double seconds(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

}  // namespace

void FaultRecord::begin(const std::string& server) {
  const std::scoped_lock lock(mutex_);
  std::erase_if(spans_, [](const Span& span) { return is_forgotten(span.time); });
  spans_.push_back({server, {Clock::now(), Clock::time_point::max()}});
}

void FaultRecord::end(const std::string& server) {
  const std::scoped_lock lock(mutex_);
  const auto latest = std::find_if(spans_.rbegin(), spans_.rend(),
                                   [&](const Span& span) { return span.server == server; });
  latest->time.to = Clock::now();
}

bool FaultRecord::touches(const std::string& server, Clock::time_point from,
                          Clock::time_point to) const {
  const std::scoped_lock lock(mutex_);
  return outside_ || std::any_of(spans_.rbegin(), spans_.rend(), [&](const Span& span) {
           return span.server == server && span.time.from <= to && span.time.to >= from;
         });
}

void FaultRecord::begin_outage(int pool) {
  const std::scoped_lock lock(mutex_);
  std::erase_if(outages_.at(index_of(pool)), is_forgotten);
  outages_.at(index_of(pool)).push_back({Clock::now(), Clock::time_point::max()});
}

void FaultRecord::end_outage(int pool) {
  const std::scoped_lock lock(mutex_);
  outages_.at(index_of(pool)).back().to = Clock::now();
}

std::optional<Outage> FaultRecord::outage_before(int pool, Clock::time_point time,
                                                 Clock::time_point served) const {
  const std::scoped_lock lock(mutex_);
  const std::vector<Outage>& all = outages_.at(index_of(pool));
  std::optional<Outage> found;
  for (auto one = all.rbegin(); one != all.rend(); ++one) {
    if (!found && one->from <= time) {
      found = *one;
    } else if (found && one->to >= served) {
      found->from = one->from;
    } else if (found) {
      break;
    }
  }
  return found;
}

void FaultRecord::note_extra_reply(int pool) {
  extra_replies_.at(index_of(pool)) = Clock::now().time_since_epoch().count();
}

bool FaultRecord::may_be_out_of_step(int pool, Clock::time_point from, Clock::time_point to) const {
  const Clock::rep ticks = extra_replies_.at(index_of(pool));
  const Clock::time_point begin{Clock::duration(ticks)};
  return ticks != 0 && begin <= to && from <= begin + out_of_step_window;
}

Driver::Driver(Site& site, std::uint64_t seed, std::vector<Fault> faults, FaultRecord& record,
               HasCallFromBefore has_call_from_before)
    : site_(site),
      faults_(std::move(faults)),
      record_(record),
      has_call_from_before_(std::move(has_call_from_before)) {
  seed *= pool_count;
  for (Pool& pool : pools_) {
    pool.plan.seed(seed++);
    pool.next = start_ + between(pool.plan, shortest_pause_ms, longest_pause_ms);
  }
}

Clock::time_point Driver::step() {
  Clock::time_point next = Clock::time_point::max();
  for (int number = 1; number <= static_cast<int>(pool_count) && !faults_.empty(); ++number) {
    Pool& pool = pools_.at(index_of(number));
    if (pool.next <= Clock::now()) {
      if (pool.targets.empty() && has_call_from_before_(pool.cleared)) {
        pool.next = Clock::now() + milliseconds(shortest_fault_ms);
      } else if (pool.targets.empty()) {
        inject(number, pool);
      } else {
        clear(number, pool);
        plan_next(pool);
      }
    }
    next = std::min(next, pool.next);
  }
  return next;
}

void Driver::clear_all() {
  for (int number = 1; number <= static_cast<int>(pool_count); ++number) {
    Pool& pool = pools_.at(index_of(number));
    if (!pool.targets.empty()) {
      clear(number, pool);
    }
  }
  faults_.clear();
}

void Driver::inject(int number, Pool& pool) {
  const auto& servers = site_.pools.at(index_of(number));
  const std::size_t server = pool.plan() % servers.size();
  pool.fault = faults_[pool.plan() % faults_.size()];
  const milliseconds length = length_of(pool.fault, pool.plan);
  std::printf("%8.2f s  planned %8.2f s  %-12s  pool %d ", seconds(Clock::now() - start_),
              seconds(pool.next - start_), fault_names.at(pool.fault), number);
  if (hits_all_servers(pool.fault)) {
    std::printf("all servers");
    record_.begin_outage(number);
    for (const auto& target : servers) {
      pool.targets.push_back(target.get());
    }
  } else {
    std::printf("server %zu", server + 1);
    pool.targets.push_back(servers[server].get());
  }
  std::printf(pool.fault == reset ? "\n" : "  for %4ld ms\n", static_cast<long>(length.count()));
  if (pool.fault == extra_reply) {
    record_.note_extra_reply(number);
  }
  for (Target* target : pool.targets) {
    record_.begin(target->addr());
    target->inject(pool.fault);
  }
  ++injected_.at(pool.fault);
  if (pool.fault == reset) {
    clear(number, pool);
    plan_next(pool);
  } else {
    pool.next = Clock::now() + length;
  }
}

milliseconds Driver::length_of(Fault fault, std::mt19937_64& plan) const {
  const int reply_ms = site_.settings.socket_timeout_ms;
  const int call_ms = site_.settings.options.call_timeout;
  switch (fault) {
    case stalled:  // the client gives the connection up, if it uses it
      return between(plan, 2 * reply_ms, 4 * reply_ms);
    case extra_reply:  // no other fault may hit a connection that is out of step
      return out_of_step_window;
    case away:  // the remaining time of a call is enough to find the servers again
      return between(plan, call_ms / 20, call_ms * 2 / 5);
    case long_away:  // what is left after a thread's first wait is enough to detect a second one
      return between(plan, call_ms * 7 / 4, call_ms * 9 / 4);
    default:
      return between(plan, shortest_fault_ms, longest_fault_ms);
  }
}

// On a machine that is too slow for the plan, a pause still has its lower bound.
void Driver::plan_next(Pool& pool) {
  pool.next = std::max(pool.next + between(pool.plan, shortest_pause_ms, longest_pause_ms),
                       Clock::now() + milliseconds(shortest_pause_ms));
}

void Driver::clear(int number, Pool& pool) {
  for (Target* target : pool.targets) {
    target->clear(pool.fault);
    record_.end(target->addr());
  }
  if (hits_all_servers(pool.fault)) {
    record_.end_outage(number);
  }
  pool.targets.clear();
  pool.cleared = Clock::now();
}

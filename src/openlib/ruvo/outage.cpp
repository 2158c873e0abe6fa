#include "outage.h"

#include <algorithm>
#include <limits>
#include <random>

#include "futex.h"
#include "log_line.h"

namespace {

using std::chrono::steady_clock;

constexpr std::int64_t being_probed = std::numeric_limits<std::int64_t>::max();

std::int64_t ticks(time_point at) {
  return std::chrono::nanoseconds(at.time_since_epoch()).count();
}

// Keeps hosts that lost a server at the same moment from probing it at the same moment.
std::chrono::nanoseconds with_jitter(std::chrono::nanoseconds pause) {
  // A std::random_device may throw.
  thread_local std::minstd_rand random(static_cast<std::minstd_rand::result_type>(
      ticks(steady_clock::now()) ^ reinterpret_cast<std::intptr_t>(&random)));
  std::uniform_int_distribution<std::int64_t> part(0, pause.count() / 2);
  return pause - std::chrono::nanoseconds(part(random));
}

}  // namespace

bool begin_probe(server_probe& probe) {
  const std::atomic_ref shared(probe.next_probe_at);
  std::int64_t next_probe_at = shared.load(std::memory_order_relaxed);
  return next_probe_at <= ticks(steady_clock::now()) &&
         shared.compare_exchange_strong(next_probe_at, being_probed, std::memory_order_acquire,
                                        std::memory_order_relaxed);
}

void end_probe(server_probe& probe, bool has_answered) {
  const std::atomic_ref pause(probe.pause_ms);
  std::int64_t next_probe_at = 0;
  if (has_answered) {
    pause.store(0, std::memory_order_relaxed);
  } else {
    const std::int64_t next =
        std::clamp<std::int64_t>(2 * pause.load(std::memory_order_relaxed),
                                 first_probe_pause.count(), longest_probe_pause.count());
    pause.store(next, std::memory_order_relaxed);
    next_probe_at = ticks(steady_clock::now() + with_jitter(std::chrono::milliseconds(next)));
  }
  std::atomic_ref(probe.next_probe_at).store(next_probe_at, std::memory_order_release);
}

void release_probe(server_probe& probe) {
  std::atomic_ref(probe.next_probe_at).store(0, std::memory_order_release);
}

void reset_probe(server_probe& probe) {
  std::atomic_ref(probe.pause_ms).store(0, std::memory_order_relaxed);
  const std::atomic_ref shared(probe.next_probe_at);
  std::int64_t next_probe_at = shared.load(std::memory_order_relaxed);
  if (next_probe_at != being_probed) {
    shared.compare_exchange_strong(next_probe_at, 0, std::memory_order_relaxed);
  }
}

time_point next_probe(server_probe& probe) {
  const std::int64_t next_probe_at =
      std::atomic_ref(probe.next_probe_at).load(std::memory_order_relaxed);
  return next_probe_at == being_probed ? no_deadline
                                       : time_point(std::chrono::nanoseconds(next_probe_at));
}

bool pool_outage::join(const log_names& names, time_point began, time_point deadline, bool is_new) {
  const std::scoped_lock lock(mutex_);
  if (!is_on()) {
    began_ = steady_clock::now();
    given_up_at_ = deadline;
    waited_ = 0;
    is_on_.store(true, std::memory_order_relaxed);
    RUVO_LOG(WARN, "ruvo_redis::%s | no server of pool %d answers, calls wait up to %d ms",
             names.method, names.pool,
             static_cast<int>(
                 std::chrono::duration_cast<std::chrono::milliseconds>(deadline - began).count()));
  } else if (began >= given_up_at_) {
    return false;
  }
  given_up_at_ = std::min(given_up_at_, deadline);  // a call that began earlier may join later
  waited_ += is_new ? 1 : 0;
  return true;
}

void pool_outage::sleep(std::uint32_t ended, time_point until) const {
  sleep_on(&ended_, ended, until);
}

void pool_outage::end(const log_names& names) {
  const std::scoped_lock lock(mutex_);
  if (!is_on()) {
    return;
  }
  is_on_.store(false, std::memory_order_relaxed);
  ended_.fetch_add(1, std::memory_order_release);
  wake(&ended_);
  RUVO_LOG(INFO, "ruvo_redis::%s | pool %d answers again after %lld ms, %llu calls waited",
           names.method, names.pool,
           static_cast<long long>(
               std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - began_)
                   .count()),
           waited_);
}

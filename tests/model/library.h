// Compiles the library's own source so that the model sees the interactions of threads: its
// atomics, clock and locks are those of the model. The guards of replaced library headers are
// defined here.
#ifndef RUVO_TESTS_MODEL_LIBRARY_H
#define RUVO_TESTS_MODEL_LIBRARY_H

#include <hiredis/hiredis.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "engine.h"

// ---- The clock: it moves only while a thread waits ----

extern std::chrono::nanoseconds time_now;

namespace std::chrono {
struct model_clock {
  using duration = nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = chrono::time_point<model_clock>;
  static constexpr bool is_steady = true;
  static time_point now() { return time_point(time_now); }
};
}  // namespace std::chrono

inline void pass_time_until(std::chrono::model_clock::time_point then) {
  time_now = std::max(time_now, then.time_since_epoch());
}

// ---- Atomics ----

model::word* model_sleep_word(const void* address);  // null: not such a word

namespace std {

template <typename T>
class model_atomic {
 public:
  constexpr explicit model_atomic(T value) : value_(value) {}
  T load(memory_order = memory_order_seq_cst) const { return value_; }
  void store(T value, memory_order = memory_order_seq_cst) { value_ = value; }
  bool compare_exchange_strong(T& expected, T value) {
    return value_ == expected ? (value_ = value, true) : (expected = value_, false);
  }

 private:
  T value_;
};

// The signal of a call.
template <>
class model_atomic<uint32_t> {
 public:
  explicit model_atomic(uint32_t value) : word_(value) {}
  uint32_t load(memory_order order) const { return word_.load(order); }
  void store(uint32_t value, memory_order order) { word_.store(value, order); }
  uint32_t exchange(uint32_t value, memory_order order) { return word_.exchange(value, order); }
  bool compare_exchange_strong(uint32_t& expected, uint32_t value, memory_order order) {
    return word_.compare_exchange(expected, value, order);
  }

 private:
  model::word word_;
};

// Plain fields: counters that order nothing, and the words that calls sleep on.
template <typename T>
class model_atomic_ref {
 public:
  explicit model_atomic_ref(T& value) : value_(value) {}
  T load(memory_order order) const {
    if (const model::word* word = model_sleep_word(&value_)) {
      return word->load(order);
    }
    model::step();
    return value_;
  }
  void store(T value, memory_order) const { value_ = value; }
  T fetch_add(T count, memory_order order) const {
    if (model::word* word = model_sleep_word(&value_)) {
      return word->add(count, order);
    }
    model::step();
    return std::exchange(value_, value_ + count);
  }
  T fetch_sub(T count, memory_order order) const { return fetch_add(T{} - count, order); }
  bool compare_exchange_strong(T& expected, T value, memory_order) const {
    model::step();
    return value_ == expected ? (value_ = value, true) : (expected = value_, false);
  }

 private:
  T& value_;
};

}  // namespace std

// ---- Locks ----

struct model_mutex {
  int owner = -1;
  model::lock_order order;

  bool lock(std::chrono::model_clock::time_point until);
  bool try_lock();
  void unlock();
};

#define ACE_THREAD_MUTEX_H
class ACE_Thread_Mutex {
 public:
  const model_mutex& lock() const { return mutex_; }
  int acquire() { return mutex_.lock(std::chrono::model_clock::time_point::max()) ? 0 : -1; }
  int tryacquire() { return mutex_.try_lock() ? 0 : -1; }
  int release() { return mutex_.unlock(), 0; }

 private:
  model_mutex mutex_;
};

inline int model_mutex_lock(model_mutex* mutex) {
  mutex->lock(std::chrono::model_clock::time_point::max());
  return 0;
}
inline int model_mutex_clocklock(model_mutex* mutex, clockid_t, const timespec* end) {
  const std::chrono::nanoseconds until =
      std::chrono::seconds(end->tv_sec) + std::chrono::nanoseconds(end->tv_nsec);
  return mutex->lock(std::chrono::model_clock::time_point(until)) ? 0 : ETIMEDOUT;
}
int model_shutdown(int number, int how);
inline int model_close(int) { return 0; }

#define atomic model_atomic
#define atomic_ref model_atomic_ref
#define steady_clock model_clock
#define pthread_mutex_t model_mutex
#define pthread_mutex_lock model_mutex_lock
#define pthread_mutex_clocklock model_mutex_clocklock
#define shutdown model_shutdown
#define close model_close

// ---- Other headers of the library ----

#include "exchange.h"

#define RUVO_FUTEX_H
constexpr std::uint32_t any_sleeper = ~0U;
bool sleep_on(const void* word, std::uint32_t value, time_point until,
              std::uint32_t bits = any_sleeper);
void wake(const void* word, std::uint32_t bits = any_sleeper);

#define RUVO_OUTAGE_H
struct server_probe {};
class pool_outage {};

// Bounds that three threads can reach.
#define direct_sends direct_sends_of_the_library
#define max_write_commands max_write_commands_of_the_library
#define write_pause write_pause_of_the_library
#define short_write_pause short_write_pause_of_the_library
#include "pipeline.h"
#undef direct_sends
#undef max_write_commands
#undef write_pause
#undef short_write_pause
constexpr std::size_t direct_sends = 1;
constexpr std::size_t max_write_commands = 2;
constexpr std::chrono::microseconds write_pause{10};
constexpr std::chrono::microseconds short_write_pause{10};

#include "connection.h"
#include "server_pool.h"

#define RUVO_LOG_LINE_H
#define RUVO_LOG(...)
#define RUVO_RUVO_REDIS_H
class ruvo_redis {
 public:
  void watch_forks();
  void forget_forks();
  void disown_connections() noexcept;

  server_pool t_pool_, p_pool_, personality_pool_;
};

#endif

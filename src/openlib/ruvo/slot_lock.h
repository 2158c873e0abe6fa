// The lock of a connection slot, and waiting for it at most until a deadline.
#ifndef RUVO_SLOT_LOCK_H
#define RUVO_SLOT_LOCK_H

#include <ace/Thread_Mutex.h>
#include <pthread.h>

#include <cerrno>

#include "exchange.h"

enum class lock_end { locked, failed, timed_out };

inline pthread_mutex_t* native_handle(ACE_Thread_Mutex& mutex) {
  return const_cast<pthread_mutex_t*>(&mutex.lock());  // ACE gives only read access
}

inline lock_end lock_until(ACE_Thread_Mutex& mutex, time_point deadline) {
  if (deadline == no_deadline) {
    return mutex.acquire() != -1 ? lock_end::locked : lock_end::failed;
  }
  const bool has_passed = std::chrono::steady_clock::now() >= deadline;
  if (has_passed) {
    return mutex.tryacquire() != -1 ? lock_end::locked : lock_end::timed_out;
  }
#ifdef __SANITIZE_THREAD__
  // ThreadSanitizer of GCC 12 does not know pthread_mutex_clocklock.
  const auto wall_clock_deadline =
      std::chrono::system_clock::now() + (deadline - std::chrono::steady_clock::now());
  const std::chrono::nanoseconds at = wall_clock_deadline.time_since_epoch();
#else
  const std::chrono::nanoseconds at = deadline.time_since_epoch();
#endif
  const timespec end{static_cast<std::time_t>(at.count() / 1000000000),
                     static_cast<long>(at.count() % 1000000000)};
#ifdef __SANITIZE_THREAD__
  const int error = pthread_mutex_timedlock(native_handle(mutex), &end);
#else
  const int error = pthread_mutex_clocklock(native_handle(mutex), CLOCK_MONOTONIC, &end);
#endif
  if (error == 0) {
    return lock_end::locked;
  }
  return error == ETIMEDOUT ? lock_end::timed_out : lock_end::failed;
}

#endif

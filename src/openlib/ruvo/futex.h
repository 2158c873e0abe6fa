// Sleeping on a 32-bit word and waking its sleepers, with the deadlines of a steady clock.
#ifndef RUVO_FUTEX_H
#define RUVO_FUTEX_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <limits>

#include "exchange.h"

constexpr std::uint32_t any_sleeper = FUTEX_BITSET_MATCH_ANY;

// Sleeps while the word has this value, until one of these bits is woken or `until` has come.
// Returns false if `until` has come. May return early.
inline bool sleep_on(const void* word, std::uint32_t value, time_point until,
                     std::uint32_t bits = any_sleeper) {
  timespec end{};
  if (until != no_deadline) {
    const std::chrono::nanoseconds at = until.time_since_epoch();
    end.tv_sec = static_cast<std::time_t>(at.count() / 1000000000);
    end.tv_nsec = static_cast<long>(at.count() % 1000000000);
  }
  return ::syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, value,
                   until != no_deadline ? &end : nullptr, nullptr, bits) == 0 ||
         errno != ETIMEDOUT;
}

// Wakes every sleeper that has one of these bits.
inline void wake(const void* word, std::uint32_t bits = any_sleeper) {
  ::syscall(SYS_futex, word, FUTEX_WAKE_BITSET_PRIVATE, std::numeric_limits<int>::max(), nullptr,
            nullptr, bits);
}

#endif

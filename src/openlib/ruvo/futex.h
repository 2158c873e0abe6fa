// Sleeping on a word of memory and waking who sleeps there, with the deadlines of a steady clock.
#ifndef RUVO_FUTEX_H
#define RUVO_FUTEX_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "exchange.h"

// Sleeps while the word has this value, until then at the latest. May return early.
inline void sleep_on(const std::atomic<std::uint32_t>& word, std::uint32_t value,
                     time_point until) {
  timespec end{};
  if (until != no_deadline) {
    const std::chrono::nanoseconds at = until.time_since_epoch();
    end.tv_sec = static_cast<std::time_t>(at.count() / 1000000000);
    end.tv_nsec = static_cast<long>(at.count() % 1000000000);
  }
  ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, value,
            until != no_deadline ? &end : nullptr, nullptr, FUTEX_BITSET_MATCH_ANY);
}

// The system is told an address, which it does not look into: the word may be gone.
inline void wake(const std::atomic<std::uint32_t>* word, int sleepers = 1) {
  ::syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, sleepers, nullptr, nullptr, 0);
}

#endif

// Servers and pools that do not answer: who probes them, when, and who waits meanwhile.
#ifndef RUVO_OUTAGE_H
#define RUVO_OUTAGE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

#include "exchange.h"

// An ejected server is probed by one call at a time: at once, then after pauses that double
// (exponential backoff), each shortened by a jitter of up to half.
constexpr std::chrono::milliseconds first_probe_pause{10};
constexpr std::chrono::milliseconds longest_probe_pause{500};

// Plain fields that all threads share, accessed through atomic references.
struct server_probe {
  std::int64_t next_probe_at = 0;  // steady nanoseconds; the greatest value while a call probes it
  std::int64_t pause_ms = 0;       // the latest one; the next is twice as long
};

// Reserves the server for a probe by this call, unless another call probes it or its pause lasts.
bool begin_probe(server_probe& probe);
// Undoes begin_probe().
void release_probe(server_probe& probe);
void end_probe(server_probe& probe, bool has_answered);
// The server has just been ejected: it may be probed at once.
void reset_probe(server_probe& probe);
// The time from which it may be probed, which may have passed; no_deadline while a call probes it.
time_point next_probe(server_probe& probe);

// A pool in which no server answers (wait_for_servers). Its calls wait until one does.
class pool_outage {
 public:
  // How log lines name the method and the pool.
  struct log_names {
    const char* method;
    int pool;
  };

  bool is_on() const { return is_on_.load(std::memory_order_relaxed); }

  // A call's connection has broken: earlier answers of the pool no longer count.
  void note_break() { has_answered_.store(false, std::memory_order_relaxed); }
  bool has_answered() const { return has_answered_.load(std::memory_order_relaxed); }
  void note_answer(const log_names& names) {
    if (!has_answered_.load(std::memory_order_relaxed)) {
      has_answered_.store(true, std::memory_order_relaxed);
    }
    if (is_on()) {
      end(names);
    }
  }

  // A call that began at `began` has found no server. False if it must not wait: it began after the
  // first deadline of the waiting calls, from which on the pool is given up until a server answers.
  // `is_new`: it has not waited yet.
  bool join(const log_names& names, time_point began, time_point deadline, bool is_new);
  // Outages that have ended.
  std::uint32_t ended() const { return ended_.load(std::memory_order_acquire); }
  // Sleeps until more than `ended` outages have ended, at most until `until`.
  void sleep(std::uint32_t ended, time_point until) const;

 private:
  void end(const log_names& names);

  std::atomic<bool> has_answered_{false};
  std::atomic<bool> is_on_{false};
  std::atomic<std::uint32_t> ended_{0};  // waiters sleep on it
  std::mutex mutex_;
  time_point began_{};  // guarded by mutex_, like the next two
  time_point given_up_at_{};
  unsigned long long waited_ = 0;
};

#endif

// When a call began. A look at the clock costs more than all the counting of a call, so that a call
// which is counted looks at its begin once, for its statistics and for its deadline.
#ifndef RUVO_CALL_CLOCK_H
#define RUVO_CALL_CLOCK_H

#include <chrono>

using call_clock = std::chrono::steady_clock;

// Of the call that this thread is in, if it is counted; else not set. Of the initial-exec model, as
// every variable that each call looks at: the other models take ten times as long.
[[gnu::tls_model("initial-exec")]] inline constinit thread_local call_clock::time_point
    call_begin{};  // NOLINT(cert-err58-cpp): constinit

inline call_clock::time_point begin_of_call() {
  return call_begin != call_clock::time_point() ? call_begin : call_clock::now();
}

#endif

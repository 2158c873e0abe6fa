// When a call began. Reading the clock costs more than all the counting of a call, so a counted
// call reads its start once, for its statistics and its deadline.
#ifndef RUVO_CALL_CLOCK_H
#define RUVO_CALL_CLOCK_H

#include <chrono>

using call_clock = std::chrono::steady_clock;

// The start of this thread's call, if the call is counted; otherwise not set. The TLS model is
// initial-exec, as for every variable that each call reads: with the other models a read takes ten
// times as long.
// NOLINTBEGIN(cert-err58-cpp): the initialisation of a constinit variable throws nothing
[[gnu::tls_model(
    "initial-exec")]] inline constinit thread_local call_clock::time_point call_begin{};
// NOLINTEND(cert-err58-cpp)

inline call_clock::time_point begin_of_call() {
  return call_begin != call_clock::time_point() ? call_begin : call_clock::now();
}

#endif

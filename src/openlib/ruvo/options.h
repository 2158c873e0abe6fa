// What a site may switch on beyond the pools' own settings. All off: as before there were options.
#ifndef RUVO_OPTIONS_H
#define RUVO_OPTIONS_H

#include <chrono>

class vop_config;

struct client_options {
  bool auto_pipelining = false;       // threads that meet on a connection share its round trips
  bool eject_silent_servers = false;  // a visit without a reply counts as a failure
  bool try_ejected_servers = false;   // rather than fail a call
  int log_limit = 0;                  // WARN and ERROR lines of one kind a second; 0: every line
  int call_timeout = 0;               // ms that a command may take; 0: as long as it takes

  // When a call that begins now must have ended.
  std::chrono::steady_clock::time_point deadline() const {
    using clock = std::chrono::steady_clock;
    return call_timeout > 0 ? clock::now() + std::chrono::milliseconds(call_timeout)
                            : clock::time_point::max();
  }
};

// Reads section "common", and tells the log what it found. A value that makes no sense is told,
// and counts as absent.
client_options read_options(const vop_config& config);

#endif

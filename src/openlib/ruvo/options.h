// What a site may switch on beyond the pools' own settings. All off: as before there were options.
#ifndef RUVO_OPTIONS_H
#define RUVO_OPTIONS_H

#include <chrono>
#include <string>
#include <vector>

#include "call_clock.h"

class vop_config;

// What each key means stands in its row of settings.cpp.
struct client_options {
  bool recommended_defaults = false;
  bool auto_pipelining = false;
  bool eject_silent_servers = false;
  bool try_ejected_servers = false;
  int log_limit = 0;     // lines a second; 0: every line
  int call_timeout = 0;  // ms; 0: none
  bool raw_commands_stay_in_pool = false;
  bool start_without_servers = false;
  std::vector<std::string> failover_replies;  // trimmed, none of them empty
  bool send_once = false;
  bool wait_for_servers = false;  // never without a call_timeout
  std::string stats_file;         // empty: none
  int slow_call_log = 0;          // ms; 0: none

  // When a call that begins now must have ended.
  call_clock::time_point deadline() const {
    return call_timeout > 0 ? begin_of_call() + std::chrono::milliseconds(call_timeout)
                            : call_clock::time_point::max();
  }
};

// Reads section "common", and tells the log what it found. A value that makes no sense is told,
// and counts as absent.
client_options read_options(const vop_config& config);

#endif

// What a site may switch on besides the pools' own settings. By default everything is off.
#ifndef RUVO_OPTIONS_H
#define RUVO_OPTIONS_H

#include <chrono>
#include <string>
#include <vector>

#include "call_clock.h"

class vop_config;

// The rows of settings.cpp say what each key means.
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

  // The deadline of a call that begins now.
  call_clock::time_point deadline() const {
    return call_timeout > 0 ? begin_of_call() + std::chrono::milliseconds(call_timeout)
                            : call_clock::time_point::max();
  }
};

// Reads section "common" and logs what it found. An invalid value is logged and counts as absent.
client_options read_options(const vop_config& config);

#endif

// Probes a single server: a connection of the tool's own, the password, a small read. The library
// fails over to the next server, so its answers say nothing about a single one.
#ifndef RUVO_TOOLS_CLI_SERVER_PROBE_H
#define RUVO_TOOLS_CLI_SERVER_PROBE_H

#include <string>

#include "configuration.h"

// Scripts depend on the states; ruvo_cli(1) lists them.
struct Probe {
  std::string state;   // "up", or a short description of the fault
  std::string reason;  // a sentence; empty when the server is up
  // The beginning of the error replies that it gives in this state, as in failover_replies; empty
  // if it gives none.
  std::string error_reply = {};
  bool is_replica = false;  // a replica that answers reads

  bool is_up() const { return state == "up"; }
  bool answers() const { return is_up() || is_replica; }
};

// Uses the timeouts and the password that the library uses for a server of that pool; pools count
// from 0. A timeout that sets no limit counts as five seconds.
Probe probe_server(const std::string& address, const site_settings& site, std::size_t pool);

#endif

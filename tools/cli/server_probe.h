// One server by itself: a connection of the tool's own, the password, a small read. The library
// walks on from a server that fails, so what it answers tells nothing of a single one.
#ifndef RUVO_TOOLS_CLI_SERVER_PROBE_H
#define RUVO_TOOLS_CLI_SERVER_PROBE_H

#include <string>

#include "configuration.h"

// Scripts depend on the states; ruvo_cli(1) lists them.
struct Probe {
  std::string state;   // "up", or in a few words what is wrong
  std::string reason;  // a sentence; empty when the server is up
  // What its error replies begin with in this state, as failover_replies names them; empty if it
  // has none.
  std::string error_reply = {};
  bool is_replica = false;  // that answers reads

  bool is_up() const { return state == "up"; }
  bool answers() const { return is_up() || is_replica; }
};

// With the timeouts and the password that the library uses for a server of that pool. Where it
// would wait for ever, the probe waits for five seconds.
Probe probe_server(const std::string& text, const site_settings& site, std::size_t pool);

#endif

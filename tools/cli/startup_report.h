// What a start-up came to, as the library itself tells it: put together from its log lines.
#ifndef RUVO_TOOLS_CLI_STARTUP_REPORT_H
#define RUVO_TOOLS_CLI_STARTUP_REPORT_H

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "library.h"

struct ServerReport {
  std::string addr;                 // ip:port
  int up = 0;                       // connections
  std::map<std::string, int> down;  // by reason
};

struct PoolReport {
  std::string name;
  std::string addresses;          // empty: none
  bool is_configured = false;     // else a default of the site
  std::optional<int> result;      // none: start-up did not come so far
  std::vector<std::string> told;  // errors that belong to no server, in the library's words
  int connections = 0;            // to each server
  bool auto_eject = true;
  unsigned long failure_limit = 0;
  int retry_seconds = 0;
  std::vector<ServerReport> servers;
  bool answers = true;  // to a command; see ask_pools
};

struct StartupReport {
  std::string redis_config;  // path
  int connect_timeout_ms = 0;
  int socket_timeout_ms = 0;
  std::vector<std::string> told;  // errors from before the pools were built
  std::array<PoolReport, 3> pools;
};

struct ReportedStart {
  std::unique_ptr<Library> library;
  StartupReport report;
};
ReportedStart start_with_report(const std::string& config);

// Puts a command to every server of every pool in its turn, for connections may be up where
// commands are refused: a missing password, or something else that listens there.
void ask_pools(StartupReport& report);

#endif

// The result of a start-up, put together from the library's log lines.
#ifndef RUVO_TOOLS_CLI_STARTUP_REPORT_H
#define RUVO_TOOLS_CLI_STARTUP_REPORT_H

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "configuration.h"
#include "library.h"
#include "server_probe.h"

struct ServerReport {
  std::string addr;                 // ip:port
  int up = 0;                       // connections
  std::map<std::string, int> down;  // by reason
  Probe probe;                      // see probe_servers
};

struct PoolReport {
  std::string name;
  std::string addresses;            // empty: none
  bool is_configured = false;       // else a default of the site
  std::optional<int> result;        // none: start-up did not get this far
  std::vector<std::string> errors;  // errors that belong to no server, as logged
  int connections = 0;              // to each server
  bool auto_eject = true;
  unsigned long failure_limit = 0;
  int retry_seconds = 0;
  std::vector<ServerReport> servers;
};

struct StartupReport {
  std::string redis_config;  // path
  site_settings configuration;
  std::vector<std::string> errors;  // errors from before the pools were built, as logged
  std::array<PoolReport, 3> pools;
};

struct ReportedStart {
  std::unique_ptr<Library> library;
  StartupReport report;
};
ReportedStart start_with_report(const std::string& config);

// Probes every server directly: connections may be up although no command is answered.
void probe_servers(StartupReport& report);

#endif

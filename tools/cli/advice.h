// The keys that a configuration lacks: what a new site sets, and what its servers call for just
// now.
#ifndef RUVO_TOOLS_CLI_ADVICE_H
#define RUVO_TOOLS_CLI_ADVICE_H

#include <string>
#include <vector>

#include "startup_report.h"

struct Advice {
  std::string key;
  std::string value;
  std::string reason;
};

// A key that stands in the file was chosen, and is not touched, but for error replies that a server
// gives now and failover_replies does not name. REQUIRES: the servers have been probed.
std::vector<Advice> advise(const StartupReport& report);

#endif

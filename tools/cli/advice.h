// The keys that a configuration lacks: the ones that a new site sets, and the ones that the present
// state of its servers calls for.
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

// A key in the file was chosen and is left unchanged, except failover_replies, if a server
// currently gives error replies that it does not list. REQUIRES: the servers have been probed.
std::vector<Advice> advise(const StartupReport& report);

#endif

// Before a run on an operator's servers: do they hold anybody else's data?
#ifndef RUVO_TOOLS_CHAOS_FOREIGN_KEYS_H
#define RUVO_TOOLS_CHAOS_FOREIGN_KEYS_H

#include "site.h"

// Throws std::runtime_error, with the server's name and the reason, if a server holds a key that is
// not the workload's, or does not list its keys (a proxy, for example).
void refuse_foreign_keys(const Site& site);

#endif

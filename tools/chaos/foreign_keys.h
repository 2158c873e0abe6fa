// Before a run on an operator's servers: are they his to break?
#ifndef RUVO_TOOLS_CHAOS_FOREIGN_KEYS_H
#define RUVO_TOOLS_CHAOS_FOREIGN_KEYS_H

#include "site.h"

// Throws std::runtime_error, with its name and the reason, when a server holds a key that is not
// the workload's, or does not let it be seen, as proxies do not.
void refuse_foreign_keys(const Site& site);

#endif

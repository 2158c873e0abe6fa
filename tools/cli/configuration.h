// The two configuration files, as the library reads them: what `check` and `watch` need to know
// without it.
#ifndef RUVO_TOOLS_CLI_CONFIGURATION_H
#define RUVO_TOOLS_CLI_CONFIGURATION_H

#include <string>
#include <vector>

#include "settings.h"

// Reads the second file. One that cannot be opened gives the defaults.
site_settings read_configuration(const std::string& redis_config);

// The path of the second file, from the first; empty when that does not tell.
std::string redis_config_of(const std::string& config);

// Why a file cannot be opened; empty when it can.
std::string open_error(const std::string& path);

// The servers of an address list, "host:port" as the log has them; none when a piece has another
// form, for the library refuses such a list.
std::vector<std::string> servers_of(const std::string& addresses);

// The key that the password of a pool stands behind; pools count from 0.
const std::string& password_key(std::size_t pool);

#endif

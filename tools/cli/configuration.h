// The two configuration files as the library reads them, without starting it.
#ifndef RUVO_TOOLS_CLI_CONFIGURATION_H
#define RUVO_TOOLS_CLI_CONFIGURATION_H

#include <string>
#include <vector>

#include "settings.h"

// Reads the second file. The defaults if it cannot be opened.
site_settings read_configuration(const std::string& redis_config);

// The path of the second file, which the first one names; empty if it names none.
std::string redis_config_of(const std::string& config);

// Why a file cannot be opened; empty if it can.
std::string open_error(const std::string& path);

// The servers of an address list, "host:port" as in the log; none if a piece has another form,
// since the library refuses such a list.
std::vector<std::string> servers_of(const std::string& addresses);

// The key of a pool's password; pools count from 0.
const std::string& password_key(std::size_t pool);

#endif

// The two configuration files, as the library reads them: what `check` and `watch` need to know
// without it.
#ifndef RUVO_TOOLS_CLI_CONFIGURATION_H
#define RUVO_TOOLS_CLI_CONFIGURATION_H

#include <array>
#include <optional>
#include <string>
#include <vector>

// The keys of a pool. The temporary pool reads the p_ keys, the persistent one the t_ keys.
struct PoolKeys {
  const char* addresses;  // in section common; the others in section server
  const char* auto_eject;
  const char* password;
};
inline constexpr std::array<PoolKeys, 3> pool_keys{
    {{"temp_server", "p_auto_eject_server", "p_password"},
     {"persist_server", "t_auto_eject_server", "t_password"},
     {"personality_server", "ps_auto_eject_server", "ps_password"}}};

struct PoolSettings {
  std::optional<std::string> addresses;  // none: a default of the site
  bool auto_eject = true;
  std::string password;
};

struct Configuration {
  int connect_timeout_ms = 0;
  int socket_timeout_ms = 0;
  std::array<PoolSettings, 3> pools;
};

// Reads the second file. One that cannot be opened gives the defaults.
Configuration read_configuration(const std::string& redis_config);

// The path of the second file, from the first; empty when that does not tell.
std::string redis_config_of(const std::string& config);

// Why a file cannot be opened; empty when it can.
std::string open_error(const std::string& path);

// The servers of an address list, "host:port" as the log has them; none when a piece has another
// form, for the library refuses such a list.
std::vector<std::string> servers_of(const std::string& addresses);

#endif

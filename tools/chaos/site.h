// The servers that a run works on: its own throwaway ones, or an operator's.
#ifndef RUVO_TOOLS_CHAOS_SITE_H
#define RUVO_TOOLS_CHAOS_SITE_H

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fixtures.h"

constexpr std::size_t pool_count = 3;

struct Settings {
  int connect_timeout_ms = 400;
  int socket_timeout_ms = 400;
  int retry_timeout_s = 2;
  int connections = 2;  // to each server
  bool password = false;
  // What a new site switches on. Every line of the log is read here, so a limit keeps none back.
  bool auto_pipelining = true;
  bool eject_silent_servers = true;
  bool try_ejected_servers = true;
  int call_timeout_ms = 0;  // 0: none

  // Does a typed command succeed whenever one server of its pool is up?
  bool spares_calls() const { return eject_silent_servers && try_ejected_servers; }
};

enum Fault { killed, stopped, paused, reset, fault_count };
constexpr std::array<const char*, fault_count> fault_names{"kill", "stop", "pause", "reset"};

// A server of a pool, as far as the run can inject faults into it.
class Target : NoCopy {
 public:
  explicit Target(std::string addr) : addr_(std::move(addr)) {}
  virtual ~Target() = default;
  const std::string& addr() const { return addr_; }
  // Both return when it has happened, and throw std::runtime_error when it cannot be done.
  virtual void inject(Fault fault) = 0;
  virtual void clear(Fault fault) = 0;
  // Of this process, on the server's side.
  virtual void drop_connections() {}

 private:
  std::string addr_;
};

struct Site {
  std::string config;
  Settings settings;
  std::array<std::vector<std::unique_ptr<Target>>, pool_count> pools;
  std::array<std::string, pool_count> passwords;  // an operator's, empty for none
  bool outage_expected = false;  // of all servers of a pool at once: its calls may fail
  std::size_t all_servers() const { return pools[0].size() + pools[1].size() + pools[2].size(); }
};

// A Redis for each pool behind two proxies. The Redis processes end with the calling thread.
class OwnServers {
 public:
  explicit OwnServers(const Settings& settings);
  Site& site() { return site_; }

 private:
  std::array<std::unique_ptr<RedisServer>, pool_count> redis_;
  std::optional<HostConfig> config_;
  Site site_;
};

// What a host's configuration names. `command`, when it is not empty, is run to take a server down
// and to bring it back: "COMMAND down 127.0.0.1:7001", "COMMAND up 127.0.0.1:7001".
Site configured_site(const std::string& config, const std::string& command);

#endif

// The servers of a run: its own throwaway ones, or an operator's.
#ifndef RUVO_TOOLS_CHAOS_SITE_H
#define RUVO_TOOLS_CHAOS_SITE_H

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fixtures.h"
#include "options.h"

class ScriptedServer;

constexpr std::size_t pool_count = 3;
constexpr std::size_t index_of(int pool) { return static_cast<std::size_t>(pool) - 1; }

// The settings of the host that the judge needs.
struct Settings {
  int connect_timeout_ms = 400;
  int socket_timeout_ms = 400;
  int retry_timeout_s = 2;
  int connections = 2;  // to each server
  client_options options;

  // Does a call succeed whenever one server of its pool is up? Only if calls wait for servers: one
  // call at a time probes an ejected server, and until it is done the other calls have no server.
  bool one_server_suffices() const {
    return options.eject_silent_servers && options.try_ejected_servers && options.wait_for_servers;
  }
};

// Further settings, for ruvo_chaos's own servers.
struct OwnSettings : Settings {
  bool plain = false;  // without recommended_defaults
  bool password = false;
  bool send_once = false;
};

enum Fault {
  killed,
  stopped,
  paused,
  reset,
  stalled,      // one connection gets no more replies
  extra_reply,  // a reply that nobody asked for
  read_only,    // the server answers everything with an error, as in the next two
  loading,
  at_limit,  // of clients
  away,      // all servers of the pool are killed, for less than call_timeout
  long_away,
  fault_count
};
constexpr std::array<const char*, fault_count> fault_names{
    "kill",     "stop",    "pause",        "reset", "stall",    "extra reply",
    "READONLY", "LOADING", "client limit", "away",  "long away"};

// A server of a pool into which the run can inject faults.
class Target : NoCopy {
 public:
  explicit Target(std::string addr) : addr_(std::move(addr)) {}
  virtual ~Target() = default;
  const std::string& addr() const { return addr_; }
  // Both return when the fault has been injected or cleared, and throw std::runtime_error if that
  // cannot be done.
  virtual void inject(Fault fault) = 0;
  virtual void clear(Fault fault) = 0;
  // Drops the connections of this process, on the server's side.
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
class OwnServers : NoCopy {
 public:
  explicit OwnServers(const OwnSettings& settings);
  ~OwnServers();
  Site& site() { return site_; }

 private:
  std::array<std::unique_ptr<RedisServer>, pool_count> redis_;
  std::vector<std::unique_ptr<ScriptedServer>> refusing_;
  std::optional<HostConfig> config_;
  Site site_;
};

// The servers that a host's configuration names. `command`, unless empty, is run to take a server
// down and to bring it back: "COMMAND down 127.0.0.1:7001", "COMMAND up 127.0.0.1:7001".
Site configured_site(const std::string& config, const std::string& command);

#endif

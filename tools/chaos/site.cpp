#include "site.h"

#include <ruvo/busin_config.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "servers.h"
#include "settings.h"
#include "tcp_proxy.h"

namespace {

constexpr const char* password = "chaos";

// In the order of their faults, from read_only.
constexpr std::array<const char*, 3> refusals{
    "-READONLY You can't write against a read only replica.\r\n",
    "-LOADING Redis is loading the dataset in memory\r\n",
    "-ERR max number of clients reached\r\n"};

std::size_t index_of_refusal(Fault fault) {
  return static_cast<std::size_t>(fault) - static_cast<std::size_t>(read_only);
}

// A server that answers but does not serve.
std::unique_ptr<ScriptedServer> refusing_server(Fault fault) {
  const std::string refusal = refusals.at(index_of_refusal(fault));
  if (fault == at_limit) {  // sends the error at once, and closes
    return std::make_unique<ScriptedServer>([refusal](Peer& peer) { peer.send(refusal); });
  }
  return std::make_unique<ScriptedServer>(
      ScriptedServer::Answer([refusal](const std::vector<std::string>& words) {
        return words.front() == "AUTH" ? "+OK\r\n" : refusal;
      }));
}

class OwnProxy : public Target {
 public:
  // `refusing`: the ports of the servers that answer but do not serve, in the order of the faults.
  OwnProxy(std::unique_ptr<TcpProxy> proxy, int redis_port, const std::vector<int>& refusing)
      : Target(proxy->addr()),
        proxy_(std::move(proxy)),
        redis_port_(redis_port),
        refusing_(refusing) {}

  void inject(Fault fault) override {
    switch (fault) {
      case killed:
      case away:
      case long_away:
        return proxy_->set_mode(TcpProxy::Mode::refuse);
      case stopped:
        return proxy_->set_mode(TcpProxy::Mode::hang);
      case paused:
        return proxy_->set_mode(TcpProxy::Mode::swallow);
      case stalled:
        return proxy_->stall_connection();
      case extra_reply:
        return proxy_->add_reply("$5\r\nextra\r\n");
      case read_only:
      case loading:
      case at_limit:
        return proxy_->set_target(refusing_.at(index_of_refusal(fault)));
      default:
        return proxy_->reset_connections();
    }
  }
  void clear(Fault fault) override {
    switch (fault) {
      case stalled:
        return proxy_->end_stall();
      case read_only:
      case loading:
      case at_limit:
        return proxy_->set_target(redis_port_);
      case reset:
      case extra_reply:
        return;
      default:
        return proxy_->set_mode(TcpProxy::Mode::forward);
    }
  }
  void drop_connections() override { proxy_->reset_connections(); }

 private:
  std::unique_ptr<TcpProxy> proxy_;
  int redis_port_;
  std::vector<int> refusing_;
};

class CommandTarget : public Target {
 public:
  CommandTarget(std::string addr, std::string command)
      : Target(std::move(addr)), command_(std::move(command)) {}
  void inject(Fault /*fault*/) override { run("down"); }
  void clear(Fault /*fault*/) override { run("up"); }

 private:
  void run(const std::string& what) const {
    const std::string line = command_ + ' ' + what + ' ' + addr();
    if (std::system(line.c_str()) != 0) {  // NOLINT: the operator's own command line
      throw std::runtime_error("failed: " + line);
    }
  }

  std::string command_;
};

constexpr int max_lines = 1000000;  // of a kind in a second: more than are ever written
// Long enough for a visit to a server that hangs, and for a second one.
constexpr int socket_timeouts_of_call = 5;

std::string common_settings(const OwnSettings& settings) {
  std::ostringstream lines;
  lines << "connect_timeout = " << settings.connect_timeout_ms
        << "\nsocket_timeout = " << settings.socket_timeout_ms << '\n';
  if (!settings.plain) {
    lines << "recommended_defaults = true\ncall_timeout = "
          << socket_timeouts_of_call * settings.socket_timeout_ms << "\nlog_limit = " << max_lines
          << '\n';
  }
  if (settings.send_once) {
    lines << "send_once = true\n";
  }
  return lines.str();
}

std::string server_settings(const OwnSettings& settings) {
  std::ostringstream lines;
  lines << "p_connect_num = " << settings.connections << '\n';
  for (const char* pool : {"p", "t", "ps"}) {
    lines << pool << "_server_retry_timeout = " << settings.retry_timeout_s << '\n';
    if (settings.password) {
      lines << pool << "_password = " << password << '\n';
    }
  }
  return lines.str();
}

site_settings read_settings(const std::string& config) {
  vop_config reader;
  const char* path = nullptr;
  if (reader.open(config.c_str()) != 0 || (path = find_redis_config(reader)) == nullptr ||
      reader.open(std::string(path).c_str()) != 0) {
    throw std::runtime_error("cannot read the configuration " + config);
  }
  return read_site_settings(reader);
}

Settings settings_of_host(const site_settings& read) {
  Settings settings;
  settings.connect_timeout_ms = read.limits.connect_timeout;
  settings.socket_timeout_ms = read.limits.socket_timeout;
  settings.connections = read.pools[0].connect_num;
  settings.options = read.options;
  settings.retry_timeout_s = 0;
  for (const pool_settings& pool : read.pools) {
    settings.retry_timeout_s = std::max(settings.retry_timeout_s, pool.server_retry_timeout);
  }
  return settings;
}

}  // namespace

OwnServers::OwnServers(const OwnSettings& settings) {
  std::vector<int> refusing;
  for (const Fault fault : {read_only, loading, at_limit}) {
    refusing.push_back(refusing_.emplace_back(refusing_server(fault))->port());
  }
  std::array<std::string, pool_count> addrs;
  for (std::size_t pool = 0; pool < pool_count; ++pool) {
    redis_[pool] = std::make_unique<RedisServer>(
        settings.password ? std::string("--requirepass ") + password : "");
    const int port = redis_[pool]->port();
    for (int proxy = 0; proxy < 2; ++proxy) {
      site_.pools[pool].push_back(
          std::make_unique<OwnProxy>(std::make_unique<TcpProxy>(port), port, refusing));
      addrs[pool] += (proxy > 0 ? "," : "") + site_.pools[pool].back()->addr();
    }
  }
  config_.emplace(common_settings(settings) + pools_at(addrs[0], addrs[1], addrs[2]),
                  server_settings(settings));
  site_.config = config_->path();
  site_.settings = settings_of_host(read_settings(site_.config));
}

OwnServers::~OwnServers() = default;

Site configured_site(const std::string& config, const std::string& command) {
  const site_settings read = read_settings(config);
  Site site;
  site.config = config;
  site.settings = settings_of_host(read);
  const Settings& settings = site.settings;
  if (settings.connect_timeout_ms < 1 || settings.socket_timeout_ms < 1 ||
      settings.connections < 1) {
    throw std::runtime_error("connect_timeout, socket_timeout and p_connect_num must be above 0");
  }
  if (settings.options.log_limit > 0 && settings.options.log_limit < max_lines) {
    throw std::runtime_error("log_limit must be 0 or at least " + std::to_string(max_lines) +
                             ": ruvo_chaos reads every line");
  }
  for (std::size_t pool = 0; pool < pool_count; ++pool) {
    const pool_settings& own = read.pools[pool];
    for (const server_addr& addr : parse_addresses(own.addresses.value_or("")).servers) {
      site.pools[pool].push_back(std::make_unique<CommandTarget>(to_text(addr), command));
    }
    if (site.pools[pool].empty()) {
      throw std::runtime_error("the configuration names no servers for pool " +
                               std::to_string(pool + 1));
    }
    site.passwords[pool] = own.password;
  }
  return site;
}

#include "site.h"

#include <ruvo/busin_config.h>

#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "settings.h"
#include "tcp_proxy.h"

namespace {

constexpr const char* password = "chaos";

class OwnProxy : public Target {
 public:
  explicit OwnProxy(std::unique_ptr<TcpProxy> proxy)
      : Target(proxy->addr()), proxy_(std::move(proxy)) {}

  void inject(Fault fault) override {
    switch (fault) {
      case killed:
        return proxy_->set_mode(TcpProxy::Mode::refuse);
      case stopped:
        return proxy_->set_mode(TcpProxy::Mode::hang);
      case paused:
        return proxy_->set_mode(TcpProxy::Mode::swallow);
      default:
        return proxy_->reset_connections();
    }
  }
  void clear(Fault fault) override {
    if (fault != reset) {
      proxy_->set_mode(TcpProxy::Mode::forward);
    }
  }
  void drop_connections() override { proxy_->reset_connections(); }

 private:
  std::unique_ptr<TcpProxy> proxy_;
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

constexpr int most_lines = 1000000;  // of a kind in a second, and more than there can be

std::string common_settings(const Settings& settings) {
  std::ostringstream lines;
  lines << "connect_timeout = " << settings.connect_timeout_ms
        << "\nsocket_timeout = " << settings.socket_timeout_ms << '\n';
  if (settings.auto_pipelining || settings.spares_calls() || settings.call_timeout_ms > 0) {
    lines << std::boolalpha << "auto_pipelining = " << settings.auto_pipelining
          << "\neject_silent_servers = " << settings.eject_silent_servers
          << "\ntry_ejected_servers = " << settings.try_ejected_servers
          << "\nlog_limit = " << most_lines << "\ncall_timeout = " << settings.call_timeout_ms
          << '\n';
  }
  return lines.str();
}

std::string server_settings(const Settings& settings) {
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

}  // namespace

OwnServers::OwnServers(const Settings& settings) {
  site_.settings = settings;
  std::array<std::string, pool_count> addrs;
  for (std::size_t pool = 0; pool < pool_count; ++pool) {
    redis_[pool] = std::make_unique<RedisServer>(
        settings.password ? std::string("--requirepass ") + password : "");
    for (int proxy = 0; proxy < 2; ++proxy) {
      site_.pools[pool].push_back(
          std::make_unique<OwnProxy>(std::make_unique<TcpProxy>(redis_[pool]->port())));
      addrs[pool] += (proxy > 0 ? "," : "") + site_.pools[pool].back()->addr();
    }
  }
  config_.emplace(common_settings(settings) + pools_at(addrs[0], addrs[1], addrs[2]),
                  server_settings(settings));
  site_.config = config_->path();
}

Site configured_site(const std::string& config, const std::string& command) {
  vop_config reader;
  const char* path = nullptr;
  if (reader.open(config.c_str()) != 0 || (path = find_redis_config(reader)) == nullptr ||
      reader.open(std::string(path).c_str()) != 0) {
    throw std::runtime_error("cannot read the configuration " + config);
  }
  const site_settings read = read_site_settings(reader);
  Site site;
  site.config = config;
  Settings& settings = site.settings;
  settings.connect_timeout_ms = read.limits.connect_timeout;
  settings.socket_timeout_ms = read.limits.socket_timeout;
  settings.connections = read.pools[0].connect_num;
  if (settings.connect_timeout_ms < 1 || settings.socket_timeout_ms < 1 ||
      settings.connections < 1) {
    throw std::runtime_error("connect_timeout, socket_timeout and p_connect_num must be above 0");
  }
  settings.auto_pipelining = read.options.auto_pipelining;
  settings.eject_silent_servers = read.options.eject_silent_servers;
  settings.try_ejected_servers = read.options.try_ejected_servers;
  settings.call_timeout_ms = read.options.call_timeout;
  if (read.options.log_limit > 0 && read.options.log_limit < most_lines) {
    throw std::runtime_error("log_limit must be 0, or " + std::to_string(most_lines) +
                             " at least: every line is read");
  }
  settings.retry_timeout_s = 0;
  for (std::size_t pool = 0; pool < pool_count; ++pool) {
    const pool_settings& own = read.pools[pool];
    settings.retry_timeout_s = std::max(settings.retry_timeout_s, own.server_retry_timeout);
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

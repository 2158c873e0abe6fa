#include "startup_report.h"

#include <ruvo/busin_config.h>
#include <ruvo/sutils.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <regex>
#include <utility>

#include "library_log.h"

namespace {

constexpr const char* probe_key = "ruvo_cli:check";

// What hiredis says of a failed connection, in an operator's words.
std::string reason_of(const std::string& error) {
  if (error.find("refused") != std::string::npos) {
    return "refused";
  }
  if (error.find("timed out") != std::string::npos) {
    return "timed out";
  }
  return error == "null redisContext" ? "no such port" : error;
}

std::vector<std::string> split(const std::string& addresses) {
  sp::str_arr pieces;
  sp::split_str(addresses.c_str(), pieces, ",");
  for (std::string& piece : pieces) {
    sp::str_arr parts;
    sp::split_str(piece.c_str(), parts, ":");
    if (parts.size() == 2) {
      const auto port = static_cast<std::uint32_t>(std::strtol(parts[1].c_str(), nullptr, 0));
      piece = parts[0] + ":" + std::to_string(static_cast<int>(port));  // as the log has it
    }
  }
  return pieces;
}

struct PoolKeys {
  const char* addresses;
  const char* auto_eject;
};
constexpr std::array<PoolKeys, 3> keys{{{"temp_server", "p_auto_eject_server"},
                                        {"persist_server", "t_auto_eject_server"},
                                        {"personality_server", "ps_auto_eject_server"}}};

// Listens while the library starts.
class StartupReader {
 public:
  StartupReader();
  StartupReport report() const;

 private:
  void read(LogLevel level, const std::string& text);

  struct Outcome {
    std::string addr;
    std::string reason;  // empty: up
  };

  StartupReport report_;
  std::array<std::string, 2> main_addresses_;  // as the library has them
  bool builds_pools_ = false;
  std::size_t pool_ = 0;                          // the one that is being built
  std::array<std::vector<Outcome>, 3> outcomes_;  // of connections, in order
  LogListening listening_;
};

StartupReader::StartupReader()
    : listening_(BaseLib::Logger::INFO,
                 [this](LogLevel level, const std::string& text) { read(level, text); }) {
  for (std::size_t i = 0; i < report_.pools.size(); ++i) {
    report_.pools[i].name = pool_name(static_cast<int>(i) + 1);
  }
}

void StartupReader::read(LogLevel level, const std::string& text) {
  static const std::string builder = "ruvo_redis::init_server_pool \\| ";
  static const std::regex redis_config("ruvo_redis::init_config redis_cfg_path = (.*)");
  static const std::regex timeouts(
      ".*get timeout cfg, connect_timeout:(-?\\d+) \\(ms\\), socket_timeout:(-?\\d+) \\(ms\\)");
  static const std::regex addresses(
      "ruvo_redis::init \\| temp_server addr = (.*), persist_server addr = (.*)\\.");
  static const std::regex settings(
      builder + "server: conn_num:(\\d+), .*failure_limit:(\\d+), retry_timeout:(-?\\d+) \\(s\\)");
  static const std::regex connected(builder + "connect to proxy: (.*) port:(-?\\d+) succeeded\\.");
  static const std::regex not_connected(
      builder + "connect to node (.*) port:(-?\\d+) failed, error code : (.*)\\.");
  static const std::regex wrong_password(
      builder +
      "failed to authenticate redis, .*?redis_ip = (.*?), redis_port = (-?\\d+), passwd = .*");
  static const std::regex pool_ended(
      "ruvo_redis::init \\| .* server pool init (?:success|failed, (-?\\d+))");

  std::smatch found;
  const auto number = [&found](std::size_t group) {
    int value = 0;  // of a group that is not there, too
    const std::string digits = found.str(group);
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return value;
  };
  const auto addr = [&found] { return found.str(1) + ":" + found.str(2); };
  if (std::regex_match(text, found, redis_config)) {
    report_.redis_config = found[1];
  } else if (std::regex_match(text, found, timeouts)) {
    report_.connect_timeout_ms = number(1);
    report_.socket_timeout_ms = number(2);
  } else if (text.starts_with("ruvo_redis::init | temp_server addr = ")) {
    builds_pools_ = true;
    if (std::regex_match(text, found, addresses)) {  // else it was too long for a line of the log
      main_addresses_ = {found[1], found[2]};
    }
  } else if (pool_ == report_.pools.size()) {
    return;
  } else if (std::regex_match(text, found, settings)) {
    PoolReport& pool = report_.pools[pool_];
    pool.connections = number(1);
    pool.failure_limit = std::strtoul(found.str(2).c_str(), nullptr, 10);
    pool.retry_seconds = number(3);
  } else if (std::regex_match(text, found, connected)) {
    outcomes_[pool_].push_back({addr(), ""});
  } else if (std::regex_match(text, found, not_connected)) {
    outcomes_[pool_].push_back({addr(), reason_of(found[3])});
  } else if (std::regex_match(text, found, wrong_password)) {
    outcomes_[pool_].push_back({addr(), "wrong password"});
  } else if (std::regex_match(text, found, pool_ended)) {
    report_.pools[pool_++].result = number(1);
  } else if (level >= BaseLib::Logger::ERROR && tells_of_trouble(text)) {
    (builds_pools_ ? report_.pools[pool_].told : report_.told).push_back(text);
  }
}

// The library names a server when a connection to it comes up or fails; a password that is never
// answered leaves no line. So the list of servers is read where the library has it from, and what
// no line speaks of is what was never answered.
StartupReport StartupReader::report() const {
  StartupReport report = report_;
  vop_config config;
  config.open(report.redis_config.c_str());
  for (std::size_t i = 0; i < report.pools.size(); ++i) {
    PoolReport& pool = report.pools[i];
    const char* configured = config.get_str_val("common", keys[i].addresses);
    pool.is_configured = configured != nullptr;
    pool.addresses = configured != nullptr        ? configured
                     : i < main_addresses_.size() ? main_addresses_[i]
                                                  : "";
    pool.auto_eject = config.get_bool_val("server", keys[i].auto_eject, true);
    auto outcome = outcomes_[i].begin();
    for (const std::string& addr : split(pool.addresses)) {
      ServerReport server;
      server.addr = addr;
      int known = 0;
      for (; known < pool.connections && outcome != outcomes_[i].end() && outcome->addr == addr;
           ++known, ++outcome) {
        ++(outcome->reason.empty() ? server.up : server.down[outcome->reason]);
      }
      if (known < pool.connections) {
        server.down["password not answered"] = pool.connections - known;
      }
      pool.servers.push_back(server);
    }
    for (; outcome != outcomes_[i].end(); ++outcome) {  // of a list that is not known in full
      if (pool.servers.empty() || pool.servers.back().addr != outcome->addr) {
        pool.servers.emplace_back().addr = outcome->addr;
      }
      ServerReport& server = pool.servers.back();
      ++(outcome->reason.empty() ? server.up : server.down[outcome->reason]);
    }
    if (pool.result.value_or(0) != 0 && outcomes_[i].empty()) {
      pool.servers.clear();  // the list was refused before any connection was tried
    }
  }
  return report;
}

}  // namespace

ReportedStart start_with_report(const std::string& config) {
  const StartupReader reader;
  auto library = std::make_unique<Library>(config);
  return {std::move(library), reader.report()};
}

// The library walks on from a server that does not answer, so an error comes from what did answer.
void ask_pools(StartupReport& report) {
  for (std::size_t i = 0; i < report.pools.size(); ++i) {
    PoolReport& pool = report.pools[i];
    if (std::all_of(pool.servers.begin(), pool.servers.end(),
                    [](const ServerReport& server) { return server.up == 0; })) {
      continue;
    }
    const LogListening listening(BaseLib::Logger::ERROR,
                                 [&pool](LogLevel, const std::string& text) {
                                   if (text.find("redis reply str:") != std::string::npos) {
                                     pool.told.push_back(text);
                                   }
                                 });
    for (std::size_t turn = 0; turn < pool.servers.size(); ++turn) {
      const int result = RUVO_ExistsKey(probe_key, static_cast<int>(i) + 1, nullptr);
      pool.answers &= result == RUVO_OK || result == RUVO_ABSENT;
    }
  }
}

// The command `check`: a start-up, told as a table.
#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "commands.h"
#include "console.h"
#include "library.h"
#include "startup_report.h"

namespace {

using nlohmann::json;

std::string join(const std::vector<std::string>& parts, const char* between) {
  std::string all;
  for (const std::string& part : parts) {
    all += (all.empty() ? "" : between) + part;
  }
  return all;
}

bool is_up(const PoolReport& pool) {
  return pool.result == RUVO_OK && pool.answers &&
         std::any_of(pool.servers.begin(), pool.servers.end(),
                     [](const ServerReport& server) { return server.up > 0; });
}

bool is_whole(const PoolReport& pool) {
  return is_up(pool) && std::all_of(pool.servers.begin(), pool.servers.end(),
                                    [](const ServerReport& server) { return server.down.empty(); });
}

std::string state_of(const PoolReport& pool) {
  if (!pool.result) {
    return "not tried";
  }
  if (*pool.result != RUVO_OK) {
    return std::string(ruvo_result_text(*pool.result)) + " (" + std::to_string(*pool.result) + ")";
  }
  if (!pool.answers) {
    return "no answer to commands";
  }
  return is_whole(pool) ? "up" : is_up(pool) ? "up in part" : "no connection";
}

const char* source_of(const PoolReport& pool) {
  return pool.is_configured ? "configured" : pool.addresses.empty() ? "none" : "site default";
}

std::string limit_text(int milliseconds) {
  return milliseconds < 1 ? "none" : std::to_string(milliseconds) + " ms";
}

std::string ejection_text(const PoolReport& pool) {
  if (!pool.auto_eject || pool.failure_limit > std::numeric_limits<int>::max()) {
    return "never";
  }
  return format("after %lu failures, for %d s", pool.failure_limit,
                std::max(pool.retry_seconds, 0));
}

std::string down_text(const ServerReport& server) {
  std::vector<std::string> reasons;
  for (const auto& [reason, count] : server.down) {
    reasons.push_back(std::to_string(count) + " " + reason);
  }
  return join(reasons, ", ");
}

// Rows of cells in columns as wide as their widest cell.
std::string table(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    }
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return text;
}

std::string report_text(const Options& options, const StartupReport& report, int result) {
  std::vector<std::vector<std::string>> pools{
      {"POOL", "STATE", "ADDRESSES", "CONNECTIONS", "EJECTION"}};
  std::vector<std::vector<std::string>> servers{{"POOL", "SERVER", "UP", "NOT UP"}};
  std::string told = report.told.empty() ? "" : join(report.told, "\n") + "\n";
  for (const PoolReport& pool : report.pools) {
    pools.push_back({pool.name, state_of(pool), source_of(pool)});
    if (!pool.servers.empty()) {
      pools.back().push_back(std::to_string(pool.connections) + " to each server");
      pools.back().push_back(ejection_text(pool));
    }
    for (const ServerReport& server : pool.servers) {
      servers.push_back({pool.name, server.addr,
                         std::to_string(server.up) + "/" + std::to_string(pool.connections),
                         down_text(server)});
    }
    for (const std::string& text : pool.told) {
      told += pool.name + ": " + text + "\n";
    }
  }
  std::ostringstream text;
  text << "configuration  " << options.config << "\n"
       << "redis file     " << report.redis_config << "\n"
       << "time-outs      connect " << limit_text(report.connect_timeout_ms) << ", socket "
       << limit_text(report.socket_timeout_ms) << "\n"
       << "result         " << result << ", " << start_text(result) << "\n\n"
       << table(pools);
  if (servers.size() > 1) {
    text << "\n" << table(servers);
  }
  if (!told.empty()) {
    text << "\nthe library says:\n" << told;
  }
  return text.str();
}

json report_json(const Options& options, const StartupReport& report, int result) {
  json pools = json::array();
  for (const PoolReport& pool : report.pools) {
    json servers = json::array();
    for (const ServerReport& server : pool.servers) {
      servers.push_back({{"address", server.addr}, {"up", server.up}, {"down", server.down}});
    }
    pools.push_back({{"pool", pool.name},
                     {"state", state_of(pool)},
                     {"answers", pool.answers},
                     {"addresses", source_of(pool)},
                     {"connections", pool.connections},
                     {"auto_eject", pool.auto_eject},
                     {"failure_limit", pool.failure_limit},
                     {"retry_timeout_s", pool.retry_seconds},
                     {"servers", servers},
                     {"told", pool.told}});
  }
  return {{"configuration", options.config},
          {"redis_configuration", report.redis_config},
          {"connect_timeout_ms", report.connect_timeout_ms},
          {"socket_timeout_ms", report.socket_timeout_ms},
          {"result", result},
          {"text", start_text(result)},
          {"told", report.told},
          {"pools", pools}};
}

ExitStatus status_of(const StartupReport& report, int result) {
  if (status_of_start(result) != succeeded) {
    return status_of_start(result);
  }
  if (!std::all_of(report.pools.begin(), report.pools.end(), is_up)) {
    return pools_down;
  }
  return std::all_of(report.pools.begin(), report.pools.end(), is_whole) ? succeeded
                                                                         : connections_down;
}

}  // namespace

ExitStatus check(const Options& options) {
  auto [library, report] = start_with_report(options.config);
  if (library->is_ready()) {
    ask_pools(report);
  }
  if (options.json) {
    print_json(report_json(options, report, library->result()));
  } else {
    print(report_text(options, report, library->result()));
  }
  return status_of(report, library->result());
}

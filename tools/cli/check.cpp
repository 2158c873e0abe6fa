// The command `check`: a start-up, shown as a table.
#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "advice.h"
#include "commands.h"
#include "console.h"
#include "library.h"
#include "settings_review.h"
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

bool is_usable(const ServerReport& server) { return server.probe.answers() && server.up > 0; }

bool is_fully_up(const ServerReport& server) {
  return is_usable(server) && server.probe.is_up() && server.down.empty();
}

bool is_up(const PoolReport& pool) {
  return pool.result == RUVO_OK && std::ranges::any_of(pool.servers, is_usable);
}

bool is_fully_up(const PoolReport& pool) {
  return is_up(pool) && std::ranges::all_of(
                            pool.servers, [](const ServerReport& one) { return is_fully_up(one); });
}

// The library's result is not enough: connections may be up although commands get no answer, and
// the result does not count connections that are refused because of their password.
std::string state_of(const PoolReport& pool) {
  if (!pool.result) {
    return "not tried";
  }
  if (is_up(pool)) {
    return is_fully_up(pool) ? "up" : "up in part";
  }
  if (pool.servers.empty()) {
    return std::string(ruvo_result_text(*pool.result)) + " (" + std::to_string(*pool.result) + ")";
  }
  const std::string& first = pool.servers.front().probe.state;
  const bool is_shared = std::ranges::all_of(
      pool.servers, [&first](const ServerReport& one) { return one.probe.state == first; });
  return !is_shared ? "no server answers" : first == "up" ? "no connection" : first;
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

// Why a server is not fully up.
std::string reason_of(const ServerReport& server) {
  if (!server.probe.is_up()) {
    return server.probe.reason;
  }
  if (server.up == 0 && server.down.empty()) {
    return "no connections are configured";
  }
  return server.down.empty() ? "" : "not up: " + down_text(server);
}

// One option on each line, without those that have their default.
std::string options_text(const client_options& options) {
  std::vector<std::string> texts;
  for (const setting& key : all_settings()) {
    const std::string value = value_text(key, options);
    if (key.is_option() && value != default_text(key)) {
      texts.push_back(key.name + " " + value + (*key.unit != '\0' ? " " : "") + key.unit);
    }
  }
  return texts.empty() ? "none" : join(texts, "\n               ");
}

std::string result_text(const StartupReport& report, int result) {
  std::vector<std::string> unusable;
  for (const PoolReport& pool : report.pools) {
    if (!is_up(pool)) {
      unusable.push_back(pool.name + " (" + state_of(pool) + ")");
    }
  }
  return format("%d, %s", result, start_text(result)) +
         (unusable.empty() ? "" : "; not usable: " + join(unusable, ", "));
}

std::string findings_text(const StartupReport& report, const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& finding : findings) {
    text += report.redis_config + (finding.line > 0 ? ":" + std::to_string(finding.line) : "") +
            ": " + finding.text + "\n";
  }
  return text;
}

std::string errors_text(const StartupReport& report) {
  std::string errors = report.errors.empty() ? "" : join(report.errors, "\n") + "\n";
  for (const PoolReport& pool : report.pools) {
    for (const std::string& text : pool.errors) {
      errors += pool.name + ": " + text + "\n";
    }
  }
  return errors;
}

std::string advice_text(const std::vector<Advice>& advice) {
  std::string text;
  for (const Advice& one : advice) {
    text += one.key + " = " + one.value + " " + one.reason + "\n";
  }
  return text;
}

std::string report_text(const Options& options, const StartupReport& report,
                        const std::vector<Finding>& findings, int result) {
  std::vector<std::vector<std::string>> pools{
      {"POOL", "STATE", "ADDRESSES", "CONNECTIONS", "EJECTION"}};
  std::vector<std::vector<std::string>> servers{
      {"POOL", "SERVER", "CONNECTIONS", "STATE", "REASON"}};
  for (const PoolReport& pool : report.pools) {
    pools.push_back({pool.name, state_of(pool), source_of(pool)});
    if (!pool.servers.empty()) {
      pools.back().push_back(std::to_string(pool.connections) + " to each server");
      pools.back().push_back(ejection_text(pool));
    }
    for (const ServerReport& server : pool.servers) {
      servers.push_back({pool.name, server.addr, format("%d/%d", server.up, pool.connections),
                         server.probe.state, reason_of(server)});
    }
  }
  std::ostringstream text;
  text << "configuration  " << options.config << "\n"
       << "redis file     " << report.redis_config << "\n"
       << "timeouts       connect " << limit_text(report.configuration.limits.connect_timeout)
       << ", socket " << limit_text(report.configuration.limits.socket_timeout) << "\n"
       << "options        " << options_text(report.configuration.options) << "\n"
       << "result         " << result_text(report, result) << "\n\n"
       << columns(pools);
  if (servers.size() > 1) {
    text << "\n" << columns(servers);
  }
  if (!findings.empty()) {
    text << "\nnot read as written:\n" << findings_text(report, findings);
  }
  if (const std::vector<Advice> advice = advise(report); !advice.empty()) {
    text << "\nworth setting:\n" << advice_text(advice);
  }
  if (const std::string errors = errors_text(report); !errors.empty()) {
    text << "\nthe library says:\n" << errors;
  }
  return text.str();
}

json report_json(const Options& options, const StartupReport& report,
                 const std::vector<Finding>& findings, int result) {
  json found = json::array();
  for (const Finding& finding : findings) {
    found.push_back({{"line", finding.line}, {"text", finding.text}});
  }
  json advice = json::array();
  for (const Advice& one : advise(report)) {
    advice.push_back({{"key", one.key}, {"value", one.value}, {"reason", one.reason}});
  }
  json pools = json::array();
  for (const PoolReport& pool : report.pools) {
    json servers = json::array();
    for (const ServerReport& server : pool.servers) {
      servers.push_back({{"address", server.addr},
                         {"state", server.probe.state},
                         {"reason", reason_of(server)},
                         {"up", server.up},
                         {"down", server.down}});
    }
    pools.push_back({{"pool", pool.name},
                     {"state", state_of(pool)},
                     {"usable", is_up(pool) && result != RUVO_INIT_BOTH_POOLS_FAILED},
                     {"addresses", source_of(pool)},
                     {"connections", pool.connections},
                     {"auto_eject", pool.auto_eject},
                     {"failure_limit", pool.failure_limit},
                     {"retry_timeout_s", pool.retry_seconds},
                     {"servers", servers},
                     {"told", pool.errors}});
  }
  json all{{"configuration", options.config},
           {"redis_configuration", report.redis_config},
           {"findings", found},
           {"advice", advice},
           {"result", result},
           {"text", start_text(result)},
           {"told", report.errors},
           {"pools", pools}};
  for (const setting& key : all_settings()) {
    const auto add = [&](const auto& value) {
      all[key.name + (key.unit == std::string_view("ms") ? "_ms" : "")] = value;
    };
    key.with_field(report.configuration.limits, add);
    key.with_field(report.configuration.options, add);
  }
  return all;
}

ExitStatus status_of(const StartupReport& report, const std::vector<Finding>& findings) {
  const auto up = [](const PoolReport& pool) { return is_up(pool); };
  const auto fully_up = [](const PoolReport& pool) { return is_fully_up(pool); };
  return !std::ranges::all_of(report.pools, up)         ? pools_down
         : !std::ranges::all_of(report.pools, fully_up) ? connections_down
         : !findings.empty()                            ? settings_misread
                                                        : succeeded;
}

}  // namespace

ExitStatus check(const Options& options) {
  auto [library, report] = start_with_report(options.config);
  const int result = library->result();
  if (result != RUVO_INIT_BOTH_POOLS_FAILED) {
    library->require_ready();
  }
  probe_servers(report);
  const std::vector<Finding> findings = review_settings(report.redis_config);
  if (options.json) {
    print_json(report_json(options, report, findings, result));
  } else {
    print(report_text(options, report, findings, result));
  }
  return status_of(report, findings);
}

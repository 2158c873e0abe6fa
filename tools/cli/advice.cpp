#include "advice.h"

#include <ruvo/busin_config.h>

#include <algorithm>
#include <map>
#include <optional>

namespace {

constexpr const char* recommended_defaults = "recommended_defaults";

// The current error replies that would end a call, with their servers.
std::map<std::string, std::string> final_replies(const StartupReport& report) {
  const std::vector<std::string>& handled = report.configuration.options.failover_replies;
  std::map<std::string, std::string> servers;
  for (const PoolReport& pool : report.pools) {
    for (const ServerReport& server : pool.servers) {
      const std::string& reply = server.probe.error_reply;
      const bool is_handled = std::ranges::any_of(
          handled, [&reply](const std::string& prefix) { return reply.starts_with(prefix); });
      if (!reply.empty() && !is_handled) {
        std::string& list = servers[reply];
        list += (list.empty() ? "" : ", ") + pool.name + " " + server.addr;
      }
    }
  }
  return servers;
}

// What recommended_defaults would change; nothing if the file has it, or each of its keys.
std::optional<Advice> for_new_site(const StartupReport& report) {
  vop_config file;
  file.open(report.redis_config.c_str());
  const auto is_absent = [&file](const setting& key) {
    return file.get_str_val(key.section, key.name.c_str()) == nullptr;
  };
  Advice advice;
  std::string changes;
  for (const setting& key : all_settings()) {
    if (!key.is_option() || *key.recommended == '\0') {
      continue;
    }
    if (key.name == recommended_defaults) {
      if (!is_absent(key)) {
        return std::nullopt;
      }
      advice = {key.name, key.recommended, "switches on the settings of a new site:"};
    } else if (is_absent(key)) {
      changes += (changes.empty() ? " " : ", ") + key.name + " " + key.recommended;
    }
  }
  advice.reason += changes;
  return changes.empty() ? std::nullopt : std::optional(advice);
}

std::optional<Advice> for_failover_replies(const StartupReport& report) {
  const std::map<std::string, std::string> replies = final_replies(report);
  if (replies.empty()) {
    return std::nullopt;
  }
  Advice advice{"failover_replies", "", "makes calls fail over on replies that end them now:"};
  for (const std::string& handled : report.configuration.options.failover_replies) {
    advice.value += handled + ",";
  }
  for (const auto& [reply, servers] : replies) {
    advice.value += reply + ",";
    advice.reason += " " + reply + " from " + servers + ",";
  }
  advice.value.pop_back();
  advice.reason.pop_back();
  return advice;
}

}  // namespace

std::vector<Advice> advise(const StartupReport& report) {
  std::vector<Advice> all;
  for (const auto& advice : {for_new_site(report), for_failover_replies(report)}) {
    if (advice) {
      all.push_back(*advice);
    }
  }
  return all;
}

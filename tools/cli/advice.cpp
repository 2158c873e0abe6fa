#include "advice.h"

#include <ruvo/busin_config.h>

#include <algorithm>
#include <map>

namespace {

// The replies that servers give now and that would end a call, with the servers.
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

Advice for_failover_replies(const StartupReport& report) {
  Advice advice{"failover_replies", "", "calls fail over where they end now:"};
  for (const std::string& handled : report.configuration.options.failover_replies) {
    advice.value += handled + ",";
  }
  for (const auto& [reply, servers] : final_replies(report)) {
    advice.value += reply + ",";
    advice.reason += " " + reply + " from " + servers + ";";
  }
  advice.value.pop_back();
  advice.reason.pop_back();
  return advice;
}

}  // namespace

std::vector<Advice> advise(const StartupReport& report) {
  vop_config file;
  file.open(report.redis_config.c_str());
  std::vector<Advice> all;
  for (const setting& key : all_settings()) {
    const bool is_absent = file.get_str_val(key.section, key.name.c_str()) == nullptr;
    const bool is_followed =  // it already is what the advice would be
        value_text(key, report.configuration.options) == key.recommended;
    if (key.is_option() && *key.recommended != '\0' && is_absent && !is_followed &&
        !report.configuration.options.recommended_defaults) {
      all.push_back({key.name, key.recommended, key.meaning});
    }
  }
  const bool is_advised =
      std::ranges::any_of(all, [](const Advice& one) { return one.key == "failover_replies"; });
  if (!is_advised && !final_replies(report).empty()) {
    all.push_back(for_failover_replies(report));
  }
  return all;
}

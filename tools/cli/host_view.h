// How a host sees the servers that `watch` looks at, from the host's statistics file.
#ifndef RUVO_TOOLS_CLI_HOST_VIEW_H
#define RUVO_TOOLS_CLI_HOST_VIEW_H

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "stats_file.h"

class HostView {
 public:
  // The view of one pool. Reads the file; throws Failure if it cannot be read.
  HostView(std::string path, std::string pool);

  // Reads the file again. A host that restarts may have no file for a moment: then the texts say
  // so, and the JSON is null.
  void read_again();

  // For a server, "address:port". Rates are those since the previous reading.
  std::string text_of(const std::string& server) const;
  nlohmann::json json_of(const std::string& server) const;

 private:
  const ServerNumbers* find(const Statistics& numbers, const std::string& server) const;

  std::string path_;
  std::string pool_;
  std::optional<Statistics> now_;
  std::optional<Statistics> counted_;  // between the last two readings, or since the start
  double seconds_ = 1;
};

#endif

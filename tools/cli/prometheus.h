// The statistics in the text format that Prometheus reads, for a textfile collector.
#ifndef RUVO_TOOLS_CLI_PROMETHEUS_H
#define RUVO_TOOLS_CLI_PROMETHEUS_H

#include <string>
#include <utility>
#include <vector>

#include "stats_file.h"

// Labels of the site, which every series gets: they distinguish this process from others.
using Labels = std::vector<std::pair<std::string, std::string>>;

// Parses "name=value"; throws Failure if the name is not valid, or one of the tool's own.
std::pair<std::string, std::string> parse_label(const std::string& text);

std::string to_prometheus(const Statistics& statistics, const Labels& site);

#endif

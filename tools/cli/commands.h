// The commands that are more than one operation.
#ifndef RUVO_TOOLS_CLI_COMMANDS_H
#define RUVO_TOOLS_CLI_COMMANDS_H

#include <string>
#include <vector>

#include "library.h"

// A start-up as a table, each server asked by itself, the settings reviewed.
ExitStatus check(const Options& options);

// Every key that the configuration files can hold; needs no configuration.
ExitStatus list_settings(const Options& options);

// The state of a pool's servers, once a second: until a signal, or for so many rounds.
struct WatchOptions {
  int rounds = 0;          // 0: no end
  std::string stats_file;  // of a host, whose view is shown beside; empty: none
};
ExitStatus watch(const Options& options, const WatchOptions& watch_options);

// What a host has counted into its statistics file: as a table, or as the options say.
struct StatsOptions {
  std::string file;
  int seconds = 0;  // from look to look; 0: one look
  int rounds = 0;   // 0: no end
  bool prometheus = false;
  std::vector<std::string> labels;  // name=value, for prometheus
};
ExitStatus stats(const Options& options, const StatsOptions& wanted);

// A load on a pool, with what it came to.
struct LoadOptions {
  int threads = 4;
  int seconds = 10;
  std::string mix = "get=80,set=20";  // operation=weight
  std::string raw = "GET {key}";      // what raw in the mix runs
  int keys = 1000;
  int value_size = 100;  // bytes
};
ExitStatus load(const Options& options, const LoadOptions& load_options);

// Warns on standard error where a command leaves its connection in another mode.
void warn_of_mode(const std::vector<std::string>& words);

#endif

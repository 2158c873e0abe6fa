// The commands that are not single operations of the library.
#ifndef RUVO_TOOLS_CLI_COMMANDS_H
#define RUVO_TOOLS_CLI_COMMANDS_H

#include <string>
#include <vector>

#include "library.h"

// Starts the library, probes each server directly, reviews the settings, and shows the results.
ExitStatus check(const Options& options);

// Lists every key that the configuration files may contain; needs no configuration.
ExitStatus list_settings(const Options& options);

// Shows the state of a pool's servers once a second, until a signal or for a number of rounds.
struct WatchOptions {
  int rounds = 0;          // 0: no end
  std::string stats_file;  // of a host, whose view is shown as well; empty: none
};
ExitStatus watch(const Options& options, const WatchOptions& watch_options);

// Shows what a host has counted in its statistics file: as a table, or as the options say.
struct StatsOptions {
  std::string file;
  int seconds = 0;  // between two readings; 0: one reading
  int rounds = 0;   // 0: no end
  bool prometheus = false;
  std::vector<std::string> labels;  // name=value, for prometheus
};
ExitStatus stats(const Options& options, const StatsOptions& wanted);

// Puts a load on a pool, and shows the results.
struct LoadOptions {
  int threads = 4;
  int seconds = 10;
  std::string mix = "get=80,set=20";  // operation=weight
  std::string raw = "GET {key}";      // the command that `raw` in the mix runs
  int keys = 1000;
  int value_size = 100;  // bytes
};
ExitStatus load(const Options& options, const LoadOptions& load_options);

// Warns on standard error if a command changes the mode of its connection, or blocks it.
void warn_of_mode(const std::vector<std::string>& words);

#endif

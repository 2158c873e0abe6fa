// What the library's log says about walks over servers: the current walk of a thread, and the
// ejections by all threads. Servers are named "ip:port".
#ifndef RUVO_TOOLS_CHAOS_WALK_LOG_H
#define RUVO_TOOLS_CHAOS_WALK_LOG_H

#include <set>
#include <string>
#include <vector>

struct Walk {
  std::vector<std::string> rebuilds;  // broken connections that were to be rebuilt
  std::vector<std::string> failed;    // the ones among them that could not be rebuilt
  std::vector<std::string> skipped;   // servers that were ejected
  bool met_broken = false;            // a broken connection, whichever thread rebuilt it
  bool timed_out = false;
  bool may_have_run = false;  // so it was not sent again

  // Has the walk left its first server, or may it have?
  bool failed_over() const { return met_broken || !rebuilds.empty() || !failed.empty(); }
};

struct ServerEvents {
  long rebuilds = 0;         // broken connections that were rebuilt
  long failed_rebuilds = 0;  // those that could not be rebuilt
  long ejections = 0;
  long retries = 0;
  long ended_by_rebuild = 0;      // ejections ended by a visit in progress, whose rebuild worked
  std::set<std::string> ejected;  // now
};

// From now on the log is read here, and written to `path` unless that is empty. False if it cannot
// be written.
bool open_walk_log(const std::string& path);
void close_walk_log();

void begin_walk();           // of this thread
const Walk& current_walk();  // of this thread
void end_walk();

ServerEvents server_events();

#endif

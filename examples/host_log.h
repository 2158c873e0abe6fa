// The example host's log: the library's lines go to a file, and what they tell of servers is
// counted.
#ifndef RUVO_EXAMPLES_HOST_LOG_H
#define RUVO_EXAMPLES_HOST_LOG_H

#include <string>

struct ServerEvents {
  long rebuilds = 0;         // broken connections that were rebuilt
  long failed_rebuilds = 0;  // and those that could not be
  long ejections = 0;        // servers that were left alone for a while
  long retries = 0;          // and were then tried again
};

// From now on the library's log goes to this file. False when it cannot be written.
bool open_log(const std::string& path);
void close_log();

// What the log has told so far.
ServerEvents server_events();

#endif

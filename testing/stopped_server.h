// A host's calls, second by second, while one of its two servers hangs.
#ifndef RUVO_TESTING_STOPPED_SERVER_H
#define RUVO_TESTING_STOPPED_SERVER_H

#include <string>
#include <vector>

#include "calling_host.h"

struct StoppedServer {
  int threads = 16;
  int before = 10;   // seconds; then one server is stopped,
  int stopped = 60;  // for so long,
  int after = 10;    // and continues
  std::string keys;  // of section common, besides the timeouts
};

// Throws std::runtime_error when the library does not start.
std::vector<SecondOfCalls> calls_with_a_stopped_server(const StoppedServer& run);

// The calls of the worst `window` seconds on end of [from, to), as a share of as many of [0,
// until).
double worst_share(const std::vector<SecondOfCalls>& seconds, int until, int from, int to,
                   int window);

#endif

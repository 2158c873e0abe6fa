// A host's calls, second by second, while one of its two servers hangs.
#ifndef RUVO_TESTING_STOPPED_SERVER_H
#define RUVO_TESTING_STOPPED_SERVER_H

#include <string>
#include <vector>

#include "calling_host.h"

struct StoppedServer {
  int threads = 16;
  int before = 10;   // seconds; then one server is stopped,
  int stopped = 60;  // seconds that it is stopped,
  int after = 10;    // and continues
  std::string keys;  // of section common, in addition to the timeouts
};

// Throws std::runtime_error if the library does not start.
std::vector<SecondOfCalls> calls_with_a_stopped_server(const StoppedServer& run);

// The calls of the worst `window` consecutive seconds in [from, to), as a share of as many in [0,
// until).
double worst_share(const std::vector<SecondOfCalls>& seconds, int until, int from, int to,
                   int window);

#endif

// What becomes of a host's calls while one of its two servers hangs, second by second.
#ifndef RUVO_TESTING_STOPPED_SERVER_H
#define RUVO_TESTING_STOPPED_SERVER_H

#include <string>
#include <vector>

#include "calling_host.h"

constexpr int stopped_socket_timeout_ms = 200;

struct StoppedServer {
  int threads = 16;
  int before = 10;   // seconds; then one server is stopped,
  int stopped = 60;  // for so long,
  int after = 10;    // and goes on
  std::string keys;  // of section common, besides the timeouts
  int socket_timeout_ms = stopped_socket_timeout_ms;
};

// The keys that the sample configuration sets for a new site.
constexpr const char* keys_of_a_new_site =
    "auto_pipelining = true\neject_silent_servers = true\ntry_ejected_servers = true\n"
    "log_limit = 5\ncall_timeout = 1000\n";
constexpr int new_site_call_timeout_ms = 1000;

// Throws std::runtime_error when the library does not start.
std::vector<SecondOfCalls> calls_with_a_stopped_server(const StoppedServer& run);

// The calls of the worst `window` seconds on end of [from, to), as a share of as many of [0,
// until).
double worst_share(const std::vector<SecondOfCalls>& seconds, int until, int from, int to,
                   int window);

#endif

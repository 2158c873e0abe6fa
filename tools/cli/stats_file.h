// A statistics file of the library as the tool shows it: read as a whole, then converted to
// numbers.
#ifndef RUVO_TOOLS_CLI_STATS_FILE_H
#define RUVO_TOOLS_CLI_STATS_FILE_H

#include <ruvo/stats.h>

#include <array>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

// The counters of each server, by the name that every output uses.
struct ServerCounter {
  const char* name;
  const char* help;
  std::uint64_t ruvo_server_counters::*value;
};
inline constexpr std::array server_counters{
    ServerCounter{"calls", "Calls that have chosen a connection of the server",
                  &ruvo_server_counters::calls},
    ServerCounter{"replies", "Calls that the server has answered", &ruvo_server_counters::replies},
    ServerCounter{"error_replies", "Calls that the server has answered with an error",
                  &ruvo_server_counters::error_replies},
    ServerCounter{"no_replies", "Calls that the server has not answered",
                  &ruvo_server_counters::no_replies},
    ServerCounter{"second_sends", "Commands sent to the server a second time",
                  &ruvo_server_counters::second_sends},
    ServerCounter{"reconnects", "Connections to the server rebuilt",
                  &ruvo_server_counters::reconnects},
    ServerCounter{"failed_reconnects", "Connections to the server that could not be rebuilt",
                  &ruvo_server_counters::failed_reconnects},
    ServerCounter{"ejections", "Times that the server was ejected",
                  &ruvo_server_counters::ejections},
    ServerCounter{"retries", "Times that the server was retried after an ejection",
                  &ruvo_server_counters::retries},
};

struct ServerNumbers {
  std::string name;  // address:port; a repeated server of its pool has "#2" added
  ruvo_server_state state = RUVO_SERVER_HEALTHY;
  std::int64_t failure_count = 0;
  std::int64_t next_retry_time = 0;
  std::uint64_t waiting = 0;
  std::uint64_t in_flight = 0;
  std::array<std::uint64_t, server_counters.size()> counts{};

  std::uint64_t count(std::uint64_t ruvo_server_counters::*counter) const;
};

struct PoolNumbers {
  std::string name;
  std::array<std::uint64_t, RUVO_STATS_RESULTS> results{};
  std::array<std::uint64_t, RUVO_STATS_BUCKETS> buckets{};
  std::uint64_t time_sum = 0;  // nanoseconds
  std::vector<ServerNumbers> servers;

  std::uint64_t calls() const;
  std::uint64_t failed() const;  // of these, the calls that failed or were refused
};

// The contents of a file when it was read.
struct Statistics {
  std::int64_t process_id = 0;
  std::int64_t start_time = 0;  // nanoseconds since 1970
  std::int64_t read_time = 0;   // likewise
  bool is_ended = false;        // the library was shut down
  bool is_gone = false;         // it was not, but the process no longer exists
  std::vector<PoolNumbers> pools;

  bool is_running() const { return !is_ended && !is_gone; }
};

// Throws Failure, which says what is wrong with the file.
Statistics read_statistics(const std::string& path);

// With the remaining seconds of an ejection, or the number of failures.
std::string state_text(const ServerNumbers& server, std::int64_t read_time);
// With the calls per second, from the calls in `counted` and the seconds that it covers.
nlohmann::json to_json(const ServerNumbers& server, const ServerNumbers& counted, double seconds);

// The counts since an earlier reading, in place of those since the start; states and gauges are
// unchanged. Returns all counts if the library has been restarted meanwhile.
Statistics since(const Statistics& now, const Statistics& before);

// The seconds that the counts of since(now, before) cover; those since the library's start.
double covered_seconds(const Statistics& now, const Statistics& before);
double covered_seconds(const Statistics& now);

#endif

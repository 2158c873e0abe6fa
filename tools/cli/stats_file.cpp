#include "stats_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>
#include <system_error>

#include "console.h"
#include "exit_status.h"

namespace {

constexpr double nanoseconds_per_second = 1e9;

std::int64_t in_seconds(std::int64_t nanoseconds) { return nanoseconds / 1'000'000'000; }
constexpr std::size_t size_limit = std::size_t{64} << 20U;  // far above any real file

[[noreturn]] void fail(const std::string& what, const std::string& why) {
  throw Failure(unreadable_input, what + ": " + why);
}

// Copied rather than mapped: a file that is truncated meanwhile would kill the tool. An open file
// stays the same even if the library puts another in its place. The kernel copies an aligned
// word in one piece.
std::vector<std::uint64_t> read_words(const std::string& path, std::size_t& length) {
  struct File {
    explicit File(const std::string& name)
        : fd(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}  // NOLINT: variadic
    ~File() { close(fd); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    int fd;
  };
  const File file(path);
  struct stat info {};
  if (file.fd == -1 || fstat(file.fd, &info) != 0) {
    fail("cannot read " + path, std::generic_category().message(errno));
  }
  if (!S_ISREG(info.st_mode) || static_cast<std::size_t>(info.st_size) > size_limit) {
    fail(path, "not a statistics file of libruvo");
  }
  const auto size = static_cast<std::size_t>(info.st_size);
  std::vector<std::uint64_t> words(size / sizeof(std::uint64_t) + 1);
  length = 0;
  while (length < size) {
    const ssize_t count = pread(file.fd, reinterpret_cast<char*>(words.data()) + length,
                                size - length, static_cast<off_t>(length));
    if (count < 0 && errno != EINTR) {
      fail("cannot read " + path, std::generic_category().message(errno));
    }
    if (count == 0) {
      break;  // the file has been truncated
    }
    length += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
  }
  return words;
}

std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

ServerNumbers numbers_of(const ruvo_pool_stats& pool, const ruvo_server_stats& server,
                         std::int64_t now) {
  ServerNumbers numbers;
  numbers.name = std::string(server.address) + ":" + std::to_string(server.port);
  numbers.state = ruvo_stats_server_state(&pool, &server, now);
  numbers.failure_count = ruvo_stats_load_signed(&server.failure_count);
  numbers.next_retry_time = ruvo_stats_load_signed(&server.next_retry_time);
  ruvo_server_counters sums;
  ruvo_stats_read_server(&server, &sums);
  numbers.waiting = sums.waiting;
  numbers.in_flight = ruvo_stats_in_flight(&sums);
  std::ranges::transform(server_counters, numbers.counts.begin(),
                         [&sums](const ServerCounter& counter) { return sums.*counter.value; });
  return numbers;
}

PoolNumbers numbers_of(const void* file, const ruvo_pool_stats& pool, std::int64_t now) {
  PoolNumbers numbers;
  numbers.name = pool.name;
  ruvo_pool_counters sums;
  ruvo_stats_read_pool(&pool, &sums);
  numbers.time_sum = sums.time_sum;
  std::copy_n(sums.results, numbers.results.size(), numbers.results.begin());
  std::copy_n(sums.buckets, numbers.buckets.size(), numbers.buckets.begin());
  std::map<std::string, int> seen;
  for (std::uint32_t i = 0; i < pool.server_count; ++i) {
    ServerNumbers server = numbers_of(pool, *ruvo_stats_server(file, pool.first_server + i), now);
    if (const int times = ++seen[server.name]; times > 1) {
      server.name += "#" + std::to_string(times);
    }
    numbers.servers.push_back(std::move(server));
  }
  return numbers;
}

bool is_same_run(const Statistics& now, const Statistics& before) {
  return now.start_time == before.start_time && now.process_id == before.process_id &&
         std::ranges::equal(
             now.pools, before.pools, {},
             [](const PoolNumbers& pool) { return pool.servers.size(); },
             [](const PoolNumbers& pool) { return pool.servers.size(); });
}

template <std::size_t size>
void subtract(std::array<std::uint64_t, size>& now, const std::array<std::uint64_t, size>& before) {
  std::ranges::transform(now, before, now.begin(), std::minus<>());
}

}  // namespace

std::uint64_t ServerNumbers::count(std::uint64_t ruvo_server_counters::*counter) const {
  const auto* const found = std::ranges::find(server_counters, counter, &ServerCounter::value);
  return counts.at(static_cast<std::size_t>(found - server_counters.begin()));
}

std::uint64_t PoolNumbers::calls() const {
  return std::accumulate(results.begin(), results.end(), std::uint64_t{0});
}

std::uint64_t PoolNumbers::failed() const {
  return std::accumulate(results.begin() + RUVO_STATS_ERROR_REPLY, results.end(), std::uint64_t{0});
}

Statistics read_statistics(const std::string& path) {
  std::size_t length = 0;
  const std::vector<std::uint64_t> words = read_words(path, length);
  const void* const file = words.data();
  if (const char* error = ruvo_stats_check(file, length)) {
    fail(path, error);
  }
  const ruvo_stats_header& head = *ruvo_stats_head(file);
  Statistics numbers;
  numbers.process_id = head.process_id;
  numbers.start_time = head.start_time;
  numbers.read_time = now_ns();
  numbers.is_ended = head.state == RUVO_STATS_ENDED;
  numbers.is_gone =
      !numbers.is_ended && kill(static_cast<pid_t>(head.process_id), 0) != 0 && errno == ESRCH;
  const std::int64_t now = in_seconds(numbers.read_time);
  for (std::uint32_t i = 0; i < head.pool_count; ++i) {
    numbers.pools.push_back(numbers_of(file, *ruvo_stats_pool(file, i), now));
  }
  return numbers;
}

std::string state_text(const ServerNumbers& server, std::int64_t read_time) {
  std::string state = ruvo_stats_state_name(server.state);
  const auto with = [&state](std::int64_t number, const char* unit) {
    return state + format(", %lld%s", static_cast<long long>(number), unit);
  };
  switch (server.state) {
    case RUVO_SERVER_EJECTED:
      return with(server.next_retry_time - in_seconds(read_time), " s");
    case RUVO_SERVER_FAILING:
      return with(server.failure_count, "");
    default:
      return state;
  }
}

nlohmann::json to_json(const ServerNumbers& server, const ServerNumbers& counted, double seconds) {
  const auto calls = static_cast<double>(counted.count(&ruvo_server_counters::calls));
  nlohmann::json json{{"server", server.name},
                      {"state", ruvo_stats_state_name(server.state)},
                      {"failure_count", server.failure_count},
                      {"next_retry_time", server.next_retry_time},
                      {"waiting", server.waiting},
                      {"in_flight", server.in_flight},
                      {"calls_per_second", calls / seconds}};
  for (std::size_t i = 0; i < server_counters.size(); ++i) {
    json[server_counters.at(i).name] = server.counts.at(i);
  }
  return json;
}

Statistics since(const Statistics& now, const Statistics& before) {
  Statistics difference = now;
  for (std::size_t i = 0; is_same_run(now, before) && i < now.pools.size(); ++i) {
    PoolNumbers& pool = difference.pools[i];
    const PoolNumbers& earlier = before.pools[i];
    pool.time_sum -= earlier.time_sum;
    subtract(pool.results, earlier.results);
    subtract(pool.buckets, earlier.buckets);
    for (std::size_t j = 0; j < pool.servers.size(); ++j) {
      subtract(pool.servers[j].counts, earlier.servers[j].counts);
    }
  }
  return difference;
}

double covered_seconds(const Statistics& now) {
  const double seconds =
      static_cast<double>(now.read_time - now.start_time) / nanoseconds_per_second;
  return std::max(seconds, 1e-3);
}

double covered_seconds(const Statistics& now, const Statistics& before) {
  if (!is_same_run(now, before)) {
    return covered_seconds(now);
  }
  return std::max(static_cast<double>(now.read_time - before.read_time) / nanoseconds_per_second,
                  1e-3);
}

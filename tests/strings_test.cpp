// A counter's expiry at local midnight. The clock is the test's.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <ctime>

#include "client.h"
#include "servers.h"

namespace {
std::time_t now = 0;
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's name, see --wrap
extern "C" std::time_t __wrap_time(std::time_t* /*result*/) { return now; }

namespace {

TEST(Counter, LivesUntilLocalMidnight) {
  std::atomic<long> expiry{0};
  const ScriptedServer redis([&](const std::vector<std::string>& words) {
    if (words[0] == "EXPIRE") {
      expiry = std::stol(words.at(2));
    }
    return ":" + words[1] + "\r\n";  // the key is the count
  });
  ruvo_redis client;
  ASSERT_EQ(init_client(client, HostConfig(all_pools_at(redis.addr()))), 0);
  setenv("TZ", "XXX-3", 1);  // three hours ahead of universal time
  tzset();
  // clang-format off
  const struct { std::time_t time_of_day; const char* count; long expiry; } cases[] = {
      {21 * 3600, "1", 86400}, {21 * 3600 - 1, "1", 1}, {0, "1", 75600},
      {9 * 3600 + 34 * 60 + 5, "1", 41155}, {0, "2", 0}, {0, "0", 0},
  };
  // clang-format on
  for (const auto& one : cases) {
    now = 1000 * 86400 + one.time_of_day;
    expiry = 0;
    EXPECT_EQ(client.increase_key(one.count, nullptr, eTempServer, nullptr), 0);
    EXPECT_EQ(expiry, one.expiry) << one.time_of_day << ' ' << one.count;
  }
}

}  // namespace

// A counter's expiry at local midnight. The clock is the test's.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <mutex>

#include "client.h"
#include "servers.h"

namespace {
std::time_t now = 0;
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's name, see --wrap
extern "C" std::time_t __wrap_time(std::time_t* /*result*/) { return now; }

namespace {

TEST(Counter, LivesUntilLocalMidnight) {
  std::mutex mutex;
  std::string count = ":1\r\n";  // both guarded by mutex
  std::string expiry;
  const ScriptedServer redis([&](const std::vector<std::string>& words) {
    const std::scoped_lock lock(mutex);
    if (words[0] == "EXPIRE") {
      expiry = words.at(2);
    }
    return count;
  });
  ruvo_redis client;
  ASSERT_EQ(init_client(client, HostConfig(all_pools_at(redis.addr()))), 0);
  setenv("TZ", "XXX-3", 1);  // three hours ahead of universal time
  tzset();
  // clang-format off
  const struct { std::time_t time_of_day; const char* count; const char* expiry; } cases[] = {
      {21 * 3600, ":1\r\n", "86400"}, {21 * 3600 - 1, ":1\r\n", "1"}, {0, ":1\r\n", "75600"},
      {9 * 3600 + 34 * 60 + 5, ":1\r\n", "41155"}, {0, ":2\r\n", ""}, {0, ":0\r\n", ""},
  };
  // clang-format on
  for (const auto& one : cases) {
    now = 1000 * 86400 + one.time_of_day;
    {
      const std::scoped_lock lock(mutex);
      count = one.count;
      expiry.clear();
    }
    EXPECT_EQ(client.increase_key("n", nullptr, eTempServer, nullptr), 0);
    const std::scoped_lock lock(mutex);
    EXPECT_EQ(expiry, one.expiry) << one.time_of_day;
  }
}

}  // namespace

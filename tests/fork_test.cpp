// A process that forks while it uses the library: parent and child each read their own values.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "every_operation.h"
#include "host.h"
#include "servers.h"

namespace {

constexpr int rounds = 2000;

// The number of values that `who` stored and read as another's value, or did not find.
int wrong_values(const std::string& who) {
  int wrong = 0;
  for (int i = 0; i < rounds; ++i) {
    const int pool = eTempServer + i % 3;
    const std::string key = who + std::to_string(i % 50) + "." + std::to_string(pool);
    const std::string value = key + ":" + std::to_string(i);
    const char* data = nullptr;
    unsigned long length = 0;
    const bool is_right =
        RUVO_InsertKey(key.c_str(), value.data(), value.size(), -1, pool, nullptr) == 0 &&
        RUVO_QueryKey(key.c_str(), &data, &length, pool, nullptr) == 0 &&
        value == std::string(data, length);
    RUVO_FreeResult(data);
    wrong += is_right ? 0 : 1;
  }
  return wrong;
}

struct Case {
  const char* options;
  int others;  // threads inside calls while the process forks
};

void PrintTo(const Case& one, std::ostream* out) {
  *out << one.options << (one.others > 0 ? ", other threads" : "");
}

// Another thread may have locked AddressSanitizer's allocator at the fork: the child then waits.
#ifdef __SANITIZE_ADDRESS__
constexpr bool has_others = false;
#else
constexpr bool has_others = true;
#endif

class Fork : public testing::TestWithParam<Case> {};

TEST_P(Fork, ParentAndChildKeepTheirRepliesApart) {
  const RedisServer redis;
  const HostConfig config(all_pools_at(redis.addr()) + GetParam().options, "p_connect_num = 2");
  const LogCapture log(BaseLib::Logger::WARN);
  ASSERT_EQ(start(config), RUVO_OK);
  EXPECT_EQ(wrong_values("before"), 0);
  std::atomic<bool> stop{false};
  std::atomic<int> others_wrong{0};
  std::vector<std::jthread> others;
  for (int i = 0; has_others && i < GetParam().others; ++i) {
    others.emplace_back([&, i] {
      while (!stop) {
        others_wrong += wrong_values("other" + std::to_string(i) + ":");
      }
    });
  }
  std::vector<pid_t> children;
  for (int i = 0; i < 3; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      const int wrong = wrong_values("child" + std::to_string(i) + ":");
      // The child has connections of its own: as many as it uses, two in each pool.
      const bool is_good = wrong == 0 && log.count_containing("reset connection") == 3 * 2 &&
                           log.count_containing("ret:3, err:the process has forked") == 3 * 2;
      _exit(is_good ? 0 : 1);
    }
    children.push_back(child);
  }
  EXPECT_EQ(wrong_values("parent"), 0);
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(wrong_values("parent"), 0);
  stop = true;
  others.clear();
  EXPECT_EQ(others_wrong, 0);
  EXPECT_EQ(log.count_containing("reset connection"), 0);  // the parent keeps its own
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

TEST(ForkOf, AHostWithAServerThatCouldNotBeConnectedTo) {
  const RedisServer redis;
  const LogCapture log(BaseLib::Logger::FATAL);
  ASSERT_EQ(start(HostConfig(pools_at(redis.addr(), redis.addr(), "127.0.0.1:99999"))), RUVO_OK);
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

INSTANTIATE_TEST_SUITE_P(InBothModes, Fork,
                         testing::Values(Case{"", 0}, Case{"", 4},
                                         Case{"auto_pipelining = true", 0},
                                         Case{"auto_pipelining = true", 6}));

}  // namespace

// A process that forks while it uses the library: parent and child each read their own values.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "callers.h"
#include "every_operation.h"
#include "host.h"

namespace {

// The number of values that `who` stored and read as another's value, or did not find.
int wrong_values(const std::string& who, int rounds = 2000) {
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

// Returns the child's exit status.
int wait_for(pid_t child) {
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

// Another thread may have locked AddressSanitizer's allocator at the fork: the child then waits.
#ifdef __SANITIZE_ADDRESS__
constexpr bool has_others = false;
#else
constexpr bool has_others = true;
#endif

TEST(Fork, ParentAndChildKeepTheirRepliesApart) {
  // The second: threads inside calls while the process forks.
  const std::pair<const char*, int> cases[] = {
      {"", 0}, {"", 4}, {"auto_pipelining = true", 0}, {"auto_pipelining = true", 6}};
  for (const auto& [options, threads] : cases) {
    SCOPED_TRACE(std::string(options) + (threads > 0 ? ", other threads" : ""));
    const RedisServer redis;
    const HostConfig config(all_pools_at(redis.addr()) + options, "p_connect_num = 2");
    const LogCapture log(BaseLib::Logger::WARN);
    ASSERT_EQ(start(config), RUVO_OK);
    EXPECT_EQ(wrong_values("before"), 0);
    Callers others(has_others ? threads : 0, [](int thread) {
      return wrong_values("other" + std::to_string(thread) + ":", 10) == 0;
    });
    ASSERT_TRUE(!has_others || others.make(5 * threads));  // none of them is still to begin
    std::vector<pid_t> children;
    for (int i = 0; i < 3; ++i) {
      children.push_back(fork());
      if (children.back() == 0) {
        const int wrong = wrong_values("child" + std::to_string(i) + ":");
        // The child has connections of its own: as many as it uses, two in each pool.
        const bool is_good = wrong == 0 && log.count_containing("reset connection") == 3 * 2 &&
                             log.count_containing("ret:3, err:the process has forked") == 3 * 2;
        _exit(is_good ? 0 : 1);
      }
    }
    EXPECT_EQ(wrong_values("parent"), 0);
    for (const pid_t child : children) {
      EXPECT_EQ(wait_for(child), 0);
    }
    EXPECT_EQ(wrong_values("parent"), 0);
    EXPECT_EQ(others.stop(), 0);
    EXPECT_EQ(log.count_containing("reset connection"), 0);  // the parent keeps its own
    EXPECT_EQ(RUVO_Fini(), RUVO_OK);
  }
}

TEST(Fork, LeavesSlotsWithoutAConnection) {
  const RedisServer redis;
  const LogCapture log(BaseLib::Logger::FATAL);
  ASSERT_EQ(start(HostConfig(pools_at(redis.addr(), redis.addr(), "127.0.0.1:99999"))), RUVO_OK);
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  EXPECT_EQ(wait_for(child), 0);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

}  // namespace

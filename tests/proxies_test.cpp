// Every operation through two proxies before two shards: each value is checked, on keys of both
// shards, and again after one of the proxies has died. Calls use the proxies round-robin, so a
// value is right only if both agree on its shard.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "every_operation.h"
#include "host.h"
#include "servers.h"
#include "workload.h"

namespace {

constexpr int workers = 12;  // with keys of their own
constexpr int rounds = 3;

TEST(OnProxies, EveryOperationWorksAndSurvivesTheLossOfAProxy) {
  const LogCapture log(BaseLib::Logger::WARN);
  const RedisServer first;
  const RedisServer second;
  const std::vector<std::string> shards{first.addr(), second.addr()};
  std::array<Nutcracker, 2> proxies{Nutcracker(shards), Nutcracker(shards)};
  const HostConfig config(all_pools_at(proxies[0].addr() + ',' + proxies[1].addr()),
                          "p_connect_num = 2");
  ASSERT_EQ(start(config), RUVO_OK);
  Totals totals;
  CallObserver nobody;
  std::vector<Worker> all;
  for (int i = 0; i < workers; ++i) {
    all.emplace_back(i, 1 + i % 3, totals, nobody);
  }
  const auto work = [&](int from) {
    for (Worker& worker : all) {
      for (int round = from; round < from + rounds; ++round) {
        worker.work(round);
      }
    }
    EXPECT_EQ(totals.wrong_values + totals.failed, 0);
  };
  work(0);
  for (const auto& operations : totals.operations) {
    EXPECT_GT(operations, 0);
  }
  EXPECT_NE(first.ask("dbsize"), "0");
  EXPECT_NE(second.ask("dbsize"), "0");
  EXPECT_EQ(log.count_containing("reset connection"), 0);
  proxies[0].kill();
  work(rounds);
  EXPECT_GT(log.count_containing("null reply and reset connection"), 0);
  RUVO_Fini();
}

}  // namespace

// One of the two servers of a host with the recommended defaults hangs.
#include <gtest/gtest.h>
#include <ruvo/ruvo.h>

#include <atomic>
#include <thread>

#include "every_operation.h"
#include "host.h"
#include "servers.h"

namespace {

// The costs are counted, not timed: visits that wait for the server, and calls that fail.
TEST(StoppedServer, IsEjectedAfterAFewVisitsAndFailsNoCall) {
  constexpr int callers = 4;
  constexpr int connections = 2;
  constexpr int failure_limit = 3;
  std::atomic<bool> is_stopped{false};
  const ScriptedServer good(std::string(":0\r\n"));
  const ScriptedServer stops(
      [&](const std::vector<std::string>&) { return is_stopped ? "" : ":0\r\n"; });
  // Long timeouts, so that no call fails just because the machine is busy.
  const HostConfig config(
      "recommended_defaults = true\ncall_timeout = 60000\n"
      "connect_timeout = 5000\nsocket_timeout = 500\n" +
          pools_at(stops.addr() + "," + good.addr(), good.addr(), good.addr()),
      "p_connect_num = " + std::to_string(connections) +
          "\np_server_failure_limit = " + std::to_string(failure_limit));
  const LogCapture log(BaseLib::Logger::WARN);
  ASSERT_EQ(start(config), RUVO_OK);
  std::atomic<long> calls{0};
  std::atomic<long> failed{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < callers; ++i) {
      threads.emplace_back([&](const std::stop_token& stop) {
        for (; !stop.stop_requested(); ++calls) {
          failed += RUVO_ExistsKey("key", eTempServer, nullptr) == RUVO_ABSENT ? 0 : 1;
        }
      });
    }
    const auto further_calls = [&calls](long count) {
      return eventually([&calls, enough = calls + count] { return calls >= enough; });
    };
    EXPECT_TRUE(further_calls(100));
    is_stopped = true;
    EXPECT_TRUE(eventually([&] { return log.count_containing(" invalid, failure count:") > 0; }));
    EXPECT_TRUE(further_calls(5000));
  }
  EXPECT_GE(stops.connections(), connections + failure_limit);
  EXPECT_LE(stops.connections(), connections + failure_limit + callers);  // those that wait for it
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

}  // namespace

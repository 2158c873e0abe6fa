// The exported functions as a host sees them: pools, memory, exceptions, cancellation.
#include <gtest/gtest.h>
#include <ruvo/ruvo.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <future>
#include <thread>

#include "every_operation.h"
#include "failing_memory.h"
#include "host.h"
#include "servers.h"

namespace {

TEST(Memory, WithoutAnInstanceOrMemoryEveryCallSaysSo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process that has made no call yet
  EXPECT_EXIT(
      {
        const HostConfig config("");
        std::vector<std::string> texts{"old"};
        no_memory = true;
        bool ok = RUVO_Init("x") == RUVO_ERR_NO_MEMORY && RUVO_Fini() == RUVO_ERR_NO_MEMORY &&
                  RUVO_InsertKey("k", "v", 1, -1, 1, nullptr) == RUVO_ERR_NO_MEMORY &&
                  RUVO_LRange("k", 0, 1, texts, 1, nullptr) == RUVO_ERR_NO_MEMORY &&
                  RUVO_ExecRedisCmd(1, "PING") == nullptr && texts.empty();
        RUVO_FreeReplyObject(&ok);
        no_memory = false;
        ok = ok && RUVO_Fini() == RUVO_ERR_NOT_INITIALIZED;  // now there is an instance
        no_memory = true;
        ok = ok && RUVO_Init(config.path()) == RUVO_ERR_NO_MEMORY;  // no exception escapes
        std::_Exit(ok ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Memory, AnOperationAllocatesTheCallersBufferAndNothingElse) {
  const RedisServer redis;
  const HostConfig config(all_pools_at(redis.addr()));
  ASSERT_EQ(start(config), RUVO_OK);
  BaseLib::Logger::setLogLevel(BaseLib::Logger::FATAL);
  const char* data = nullptr;
  unsigned long len = 0;
  allocations = 0;
  EXPECT_EQ(RUVO_InsertKey("k", "value", 5, -1, 1, nullptr), RUVO_OK);
  EXPECT_EQ(RUVO_QueryKey("none", &data, &len, 1, nullptr), RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(allocations, 0);
  const int live = live_allocations;
  EXPECT_EQ(RUVO_QueryKey("k", &data, &len, 1, nullptr), RUVO_OK);
  EXPECT_EQ(allocations, 1);
  EXPECT_EQ(RUVO_FreeResult(data), RUVO_OK);
  EXPECT_EQ(live_allocations, live);

  const LogCapture log(BaseLib::Logger::ERROR);
  allocations = failing_allocation = 0;
  EXPECT_EQ(RUVO_QueryKey("k", &data, &len, 1, nullptr), RUVO_ERR_NO_MEMORY);
  failing_allocation = -1;
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(log.count(BaseLib::Logger::ERROR, "ruvo_redis::query_key | overflow."), 1);

  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

TEST(Exports, ACancelledThreadFinishesItsCall) {
  std::promise<void> received;
  std::promise<void> cancelled;
  const ScriptedServer redis([&](Peer& peer) {
    if (peer.number() == 0) {  // the connection of the temporary pool
      peer.read_command();
      received.set_value();
      cancelled.get_future().wait();
      peer.send("$5\r\nfirst\r\n");
    }
    peer.answer_all("$6\r\nsecond\r\n");
  });
  const LogCapture log;
  ASSERT_EQ(start(HostConfig("socket_timeout = 10000\n" +
                             pools_at(redis.addr(), redis.addr(), redis.addr()))),
            RUVO_OK);
  const auto query = [](std::string& value) {
    const char* data = nullptr;
    unsigned long len = 0;
    EXPECT_EQ(RUVO_QueryKey("k", &data, &len, 1, nullptr), RUVO_OK);
    value.assign(data, len);
    RUVO_FreeResult(data);
  };
  std::string value;
  std::thread caller([&] {
    query(value);
    pthread_testcancel();
    value = "not cancelled";
  });
  received.get_future().wait();
  pthread_cancel(caller.native_handle());
  cancelled.set_value();
  caller.join();
  EXPECT_EQ(value, "first");
  query(value);
  EXPECT_EQ(value, "second");
  RUVO_Fini();
}

// With all commands that an operation sends: the answer is a number, which each of them accepts. A
// number that names no pool selects the temporary one.
TEST(Exports, EachStaysInThePoolThatItsCallerNames) {
  const std::string number = ":1\r\n";
  std::array<std::atomic<int>, 3> commands{};
  const auto counting = [&](std::size_t pool) {
    return [&, pool](const std::vector<std::string>&) { return ++commands.at(pool), number; };
  };
  const ScriptedServer temp(counting(0));
  const ScriptedServer persist(counting(1));
  const ScriptedServer personality(counting(2));
  const HostConfig config(pools_at(temp.addr(), persist.addr(), personality.addr()) +
                          "connect_timeout = 1000\nsocket_timeout = 1000");
  const LogCapture log(BaseLib::Logger::FATAL);
  ASSERT_EQ(start(config), RUVO_OK);
  for (const Operation& one : operations) {
    for (const int pool : {1, 2, 3, 0, 4, -1}) {
      std::array<int, 3> expected{};
      expected.at(pool == 2 ? 1 : pool == 3 ? 2 : 0) = one.commands;
      one.call("k", pool);
      for (std::size_t i = 0; i < commands.size(); ++i) {
        EXPECT_EQ(commands.at(i).exchange(0), expected.at(i)) << one.name << " " << pool;
      }
    }
  }
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

}  // namespace

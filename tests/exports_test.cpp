// The exported functions as a host sees them: memory, exceptions, cancellation, many threads.
#include <gtest/gtest.h>
#include <ruvo/ruvo.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <thread>

#include "failing_memory.h"
#include "host.h"
#include "quiet_console.h"
#include "redis_server.h"
#include "scripted_server.h"

namespace {

// Initialises the library in this process, quietly.
int init(const char* config) {
  const QuietConsole quiet;
  return RUVO_Init(config);
}

TEST(Memory, WithoutAnInstanceEveryCallSaysSo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process that has made no call yet
  EXPECT_EXIT(
      {
        no_memory = true;
        const bool ok = RUVO_Init("x") == RUVO_ERR_NO_MEMORY && RUVO_Fini() == RUVO_ERR_NO_MEMORY &&
                        RUVO_InsertKey("k", "v", 1, -1, 1, nullptr) == RUVO_ERR_NO_MEMORY &&
                        RUVO_FreeResult(nullptr) == RUVO_ERR_NO_MEMORY;
        no_memory = false;
        std::exit(ok && RUVO_Fini() == RUVO_ERR_NOT_INITIALIZED ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Memory, NoExceptionLeavesTheLibrary) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const HostConfig config("");
        RUVO_Fini();  // makes the instance
        no_memory = true;
        const int ret = RUVO_Init(config.path());
        no_memory = false;
        std::exit(ret == RUVO_ERR_NO_MEMORY ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Memory, AnOperationAllocatesTheCallersBufferAndNothingElse) {
  const RedisServer redis;
  const HostConfig config(all_pools_at(redis.addr()));
  ASSERT_EQ(init(config.path()), RUVO_OK);
  BaseLib::Logger::setLogLevel(BaseLib::Logger::FATAL);
  const char* data = nullptr;
  unsigned long len = 0;
  allocations = 0;
  EXPECT_EQ(RUVO_InsertKey("k", "value", 5, -1, 1, nullptr), RUVO_OK);
  EXPECT_EQ(RUVO_QueryKey("none", &data, &len, 1, nullptr), RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(RUVO_QueryKey("k", &data, &len, 1, nullptr), RUVO_OK);
  EXPECT_EQ(allocations, 1);
  EXPECT_EQ(RUVO_FreeResult(data), RUVO_OK);

  no_memory = true;
  const int ret = RUVO_QueryKey("k", &data, &len, 1, nullptr);
  no_memory = false;
  EXPECT_EQ(ret, RUVO_ERR_NO_MEMORY);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

TEST(Threads, ACancelledThreadFinishesItsCall) {
  std::promise<void> received;
  std::promise<void> cancelled;
  const ScriptedServer redis([&](Peer& peer) {
    if (peer.number() > 0) {
      return;
    }
    peer.read_command();
    received.set_value();
    cancelled.get_future().wait();
    peer.send("$5\r\nfirst\r\n");
    peer.read_command();
    peer.send("$6\r\nsecond\r\n");
    peer.hang();
  });
  const HostConfig config("socket_timeout = 10000\ntemp_server = " + redis.addr());
  const LogCapture log;
  ASSERT_EQ(init(config.path()), RUVO_INIT_PERSIST_POOL_FAILED);
  std::atomic<int> result{-100};
  std::thread caller([&] {
    const char* data = nullptr;
    unsigned long len = 0;
    result = RUVO_QueryKey("k", &data, &len, 1, nullptr);
    RUVO_FreeResult(data);
    pthread_testcancel();
    result = -200;
  });
  received.get_future().wait();
  pthread_cancel(caller.native_handle());
  cancelled.set_value();
  caller.join();
  EXPECT_EQ(result, RUVO_OK);
  const char* data = nullptr;
  unsigned long len = 0;
  ASSERT_EQ(RUVO_QueryKey("k", &data, &len, 1, nullptr), RUVO_OK);
  EXPECT_EQ(std::string(data, len), "second");
  RUVO_FreeResult(data);
  RUVO_Fini();
}

TEST(Threads, ManyShareFewConnectionsWhileServersComeAndGo) {
  RedisServer restarted;
  const RedisServer steady;
  // Two doors to the data; what is asked of them is the same on both: nothing is stored.
  const HostConfig config(all_pools_at(restarted.addr() + "," + steady.addr()),
                          "p_connect_num = 3\np_server_failure_limit = 1000000");
  const LogCapture log(BaseLib::Logger::WARN);
  ASSERT_EQ(init(config.path()), RUVO_OK);
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::atomic<int> calls{0};
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        const std::string key = "absent" + std::to_string(t);
        while (!stop) {
          wrong += RUVO_ExistsKey(key.c_str(), t % 4, nullptr) != RUVO_ABSENT;
          wrong += RUVO_DeleteKey(key.c_str(), t % 4, nullptr) != RUVO_OK;
          ++calls;
        }
      });
    }
    for (int round = 0; round < 3; ++round) {
      restarted.restart();
      for (const int target = calls + 200; calls < target;) {
        std::this_thread::yield();
      }
    }
    stop = true;
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GE(log.count_containing("reset connection"), 3);
  EXPECT_EQ(RUVO_Fini(), RUVO_OK);
}

TEST(Results, EveryCodeHasAText) {
  for (const int code :
       {0, 1, 2, 3, -1, -2, 10102, 10106, 10107, 10109, 10111, 10112, 10113, 10115, 10402, 10405}) {
    EXPECT_STRNE(ruvo_result_text(code), ruvo_result_text(4)) << code;
  }
}

}  // namespace

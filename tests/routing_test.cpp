// Choice of server and connection, ejection and retry, rebuilding. The clock is the test's.
#include "client_test.h"

namespace {
std::time_t now = 1000000;
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's name, see --wrap
extern "C" std::time_t __wrap_time(std::time_t* /*result*/) { return now; }

namespace {

using positions = std::vector<int>;

// Three servers in each pool, which are down unless the test says otherwise.
class Routing : public ClientTest {
 protected:
  void start(const std::string& settings) {
    ClientTest::start(down_.addr() + "," + down_.addr() + "," + down_.addr(), "", settings);
  }
  // The positions of the next servers by round-robin; -1 if there is none.
  positions next_positions(int count, int svc_index = -1, RedisServerType type = eTempServer) {
    positions found;
    while (count-- > 0) {
      const server_node* server = client_->get_server_node(type, svc_index);
      found.push_back(server != nullptr ? static_cast<int>(server->index_) : -1);
    }
    return found;
  }
};

TEST_F(Routing, UsesServersRoundRobinOrFromAPosition) {
  start("p_connect_num = 7");
  EXPECT_EQ(next_positions(2, 0), (positions{0, 0}));  // positions given do not move the counter
  EXPECT_EQ(next_positions(1, 3), positions{0});
  EXPECT_EQ(next_positions(1, 4), positions{1});
  EXPECT_EQ(next_positions(2, -1, ePersistServer), (positions{0, 1}));
  server_node& node = server(2, ePersonalityServer);
  for (const int first : {0, 1}) {
    for (int i = first; i <= 10001; ++i) {
      ASSERT_EQ(next_positions(1)[0], i % 3) << i;
      ASSERT_EQ(client_->get_conn(node, ePersonalityServer),
                &node.context_arr_.at(static_cast<std::size_t>(i) % 7));
    }
    EXPECT_EQ(next_positions(1)[0], 0);  // then from the start again
    EXPECT_EQ(client_->get_conn(node, eTempServer), node.context_arr_.data());
  }
  EXPECT_GT(log_.count(DEBUG, "ruvo_redis::get_conn | connection index: 6/7"), 0);
}

TEST_F(Routing, EjectsAtTheLimitAndRetriesWhenTheTimeHasCome) {
  start("p_server_failure_limit = 3\np_server_retry_timeout = 30\nt_server_retry_timeout = 60");
  const std::string port = " port:" + std::to_string(down_.port());
  const std::string invalid = "ruvo_redis::is_server_valid | server,ip:127.0.0.1" + port +
                              " invalid, failure count:3, retry after ";
  const auto fail = [this] { client_->update_server_failed(&server(1), eTempServer); };
  fail(), fail();
  EXPECT_EQ(next_positions(1, 1), positions{1});
  now += 10;
  fail();
  EXPECT_EQ(next_positions(1, 1), positions{2});
  now += 29;  // the retry time counts from the latest failure
  EXPECT_EQ(next_positions(1, 1), positions{2});
  EXPECT_EQ(log_.count(WARN, invalid + "30 seconds"), 1);
  EXPECT_EQ(log_.count(WARN, invalid + "1 seconds"), 1);
  EXPECT_EQ(log_.count_containing("ruvo_redis::get_redis_node | addr:127.0.0.1" + port), 3);
  EXPECT_EQ(log_.count_containing("get_server_node | try next server:127.0.0.1,port:"), 2);
  EXPECT_EQ(log_.count_containing("server, ip:127.0.0.1" + port + " failure count:2"), 1);
  now += 1;
  EXPECT_EQ(next_positions(2, 1), (positions{1, 1}));
  const std::string retry = "ruvo_redis::is_server_valid | server, ip:127.0.0.1" + port;
  EXPECT_EQ(log_.count(WARN, retry + " start retry"), 1);
  EXPECT_EQ(server(1).failure_count_ + server(1).next_retry_time_, 0);
  client_->update_server_failed(&server(0, ePersistServer), ePersistServer);
  EXPECT_EQ(server(0, ePersistServer).next_retry_time_, now + 60);
}

TEST_F(Routing, GivesUpWhenAllServersAreEjectedOrThereIsNone) {
  EXPECT_EQ(next_positions(2, -1), (positions{-1, -1}));
  start("p_server_failure_limit = 1");
  for (server_node& node : pool_in(*client_).servers_) {
    client_->update_server_failed(&node, eTempServer);
  }
  EXPECT_EQ(next_positions(1), positions{-1});
  EXPECT_EQ(log_.count_containing("ruvo_redis::is_server_valid | server,ip:"), 3);
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::get_server_node | all servers invalid"), 1);
  // Each pool has servers of its own.
  EXPECT_EQ(next_positions(1, -1, ePersistServer), positions{0});
  client_->update_server_ok(&server(2));
  EXPECT_EQ(next_positions(1), positions{2});
}

TEST_F(Routing, LimitsOfEjection) {
  // clang-format off
  struct { const char* settings; int failures; int found; } const cases[] = {
      {"p_auto_eject_server = false\np_server_failure_limit = 1", 9, 0},
      {"p_server_failure_limit = -1", 9, 0},
      {"p_server_failure_limit = 1\np_server_retry_timeout = 0", 9, 0},
      {"p_server_failure_limit = 0", 0, 0}, {"p_server_failure_limit = 0", 1, 1},
  };
  // clang-format on
  for (const auto& one : cases) {
    start(one.settings);
    for (int i = 0; i < one.failures; ++i) {
      client_->update_server_failed(&server(0), eTempServer);
    }
    EXPECT_EQ(next_positions(1, 0), positions{one.found}) << one.settings;
  }
}

TEST_F(Routing, RebuildsWithThePersistentPoolsPasswordOrLeavesTheOldContext) {
  std::mutex mutex;
  std::vector<std::string> received;  // guarded by mutex
  const ScriptedServer accepts([&](const std::vector<std::string>& words) {
    const std::scoped_lock lock(mutex);
    received.push_back(words.at(1));
    return "+OK\r\n";
  });
  // The others, of which the last one is down, are good while the three pools are built.
  const auto ok = answer("+OK\r\n");
  const ScriptedServer refuses(later(ok, answer("-ERR invalid password\r\n")));
  const ScriptedServer closes(later(ok, [](Peer&) {}));
  ClientTest::start(
      accepts.addr() + "," + refuses.addr() + "," + closes.addr() + "," + down_.addr(),
      "socket_timeout = 1300", "p_password = temporary\nt_password = persistent");
  server_node& good = server(0, ePersonalityServer);
  const int descriptors = open_descriptors();
  for (int i = 0; i < 31; ++i) {
    EXPECT_NE(client_->reset_connection(good.context_arr_[0], good.addr_), nullptr);
  }
  EXPECT_EQ(read_timeout(*good.context_arr_[0].context_), 1300);
  EXPECT_EQ(log_.count_containing("redisSetTimeOut time_out:1300 (ms), success"), 31);
  for (int i = 0; i < 30; ++i) {
    for (const std::size_t position : {1U, 2U, 3U}) {
      conn_node& slot = server(position).context_arr_[0];
      const redisContext* before = slot.context_;
      EXPECT_EQ(client_->reset_connection(slot, server(position).addr_), nullptr);
      EXPECT_EQ(slot.context_, before);
    }
  }
  EXPECT_LE(open_descriptors(), descriptors + 10);  // the scripted peers may still be closing
  const std::string reset = "ruvo_redis::reset_connection | ";
  EXPECT_EQ(log_.count_containing(reset + "reset connection,ip:127.0.0.1 port:"), 31 + 90);
  EXPECT_EQ(log_.count_containing("ruvo_redis::init_server_pool | failed to authenticate redis, "
                                  "error passwd, redis_ip = 127.0.0.1, redis_port = "),
            30);
  EXPECT_EQ(log_.count(ERROR, reset + "reconnect to server 127.0.0.1 port:" +
                                  std::to_string(down_.port()) +
                                  " failed, error code is Connection refused."),
            30);
  const std::scoped_lock lock(mutex);
  std::vector<std::string> expected(1 + 1 + 31, "persistent");
  expected[0] = "temporary";
  EXPECT_EQ(received, expected);
}

}  // namespace

// Choice of server and connection, ejection and retry, rebuilding. The clock is the test's.
#include <gtest/gtest.h>

#include "client.h"
#include "servers.h"

namespace {
std::time_t now = 1000000;
}

extern "C" std::time_t __wrap_time(std::time_t* result) {
  if (result != nullptr) {
    *result = now;
  }
  return now;
}

namespace {

constexpr auto DEBUG = BaseLib::Logger::DEBUG;
constexpr auto INFO = BaseLib::Logger::INFO;
constexpr auto WARN = BaseLib::Logger::WARN;
constexpr auto ERROR = BaseLib::Logger::ERROR;

// Three servers in each pool, which need not answer.
class Routing : public testing::Test {
 protected:
  void start(const std::string& server_settings, const std::string& addrs = "") {
    const std::string down = down_.addr();
    const HostConfig config(all_pools_at(addrs.empty() ? down + "," + down + "," + down : addrs),
                            server_settings);
    init_client(client_, config);
    log_.clear();
  }
  // The positions of the next servers in turn; -1 where there is none.
  std::vector<int> turns(int count, int svc_index = -1, RedisServerType type = eTempServer) {
    std::vector<int> positions;
    while (count-- > 0) {
      const server_node* server = client_.get_server_node(type, svc_index);
      positions.push_back(server != nullptr ? static_cast<int>(server->index_) : -1);
    }
    return positions;
  }
  void fail(int position, int times, RedisServerType type = eTempServer) {
    server_node* server = client_.get_server_node(type, position);
    ASSERT_EQ(server->index_, static_cast<std::size_t>(position));
    while (times-- > 0) {
      client_.update_server_failed(server, type);
    }
  }

  DownServer down_;
  ruvo_redis client_;
  LogCapture log_;
};

using positions = std::vector<int>;

TEST_F(Routing, TakesServersInTurnOrFromAPosition) {
  start("");
  EXPECT_EQ(turns(4), (positions{0, 1, 2, 0}));
  EXPECT_EQ(turns(2, 1), (positions{1, 1}));
  EXPECT_EQ(turns(1, 3), positions{0});
  EXPECT_EQ(turns(1, 4), positions{1});
  EXPECT_EQ(turns(1), positions{1});  // positions given do not move the counter
  EXPECT_EQ(turns(2, -1, ePersistServer), (positions{0, 1}));
}

TEST_F(Routing, CountersGiveTurns0To10001AndWrap) {
  start("p_connect_num = 7");
  const auto count_to_wrap = [](auto&& next, int divisor) {
    for (int turn = 0; turn <= 10001; ++turn) {
      ASSERT_EQ(next(), turn % divisor) << turn;
    }
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(next(), 1);
  };
  log_.clear();
  count_to_wrap([this] { return turns(1)[0]; }, 3);
  server_node* server = client_.get_server_node(ePersonalityServer, 2);
  count_to_wrap(
      [&] {
        const conn_node* conn = client_.get_conn(*server, ePersonalityServer);
        return static_cast<int>(conn - server->context_arr_.data());
      },
      7);
  EXPECT_EQ(log_.count(DEBUG, "ruvo_redis::get_conn | connection index: 6/7"), 1428);
}

TEST_F(Routing, EjectsAtTheLimitAndRetriesWhenTheTimeHasCome) {
  start("p_server_failure_limit = 3\np_server_retry_timeout = 30");
  fail(1, 2);
  EXPECT_EQ(turns(1, 1), positions{1});
  now += 10;
  fail(1, 1);
  const std::string port = std::to_string(client_.getPool(eTempServer).servers_[1].addr_.port_);
  log_.clear();
  EXPECT_EQ(turns(1, 1), positions{2});
  now += 29;  // the retry time counts from the latest failure
  EXPECT_EQ(turns(1, 1), positions{2});
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::is_server_valid | server,ip:127.0.0.1 port:" + port +
                                 " invalid, failure count:3, retry after 30 seconds"),
            1);
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::is_server_valid | server,ip:127.0.0.1 port:" + port +
                                 " invalid, failure count:3, retry after 1 seconds"),
            1);
  EXPECT_EQ(log_.count(DEBUG, "ruvo_redis::get_redis_node | addr:127.0.0.1 port:" + port), 2);
  EXPECT_EQ(
      log_.count(DEBUG, "ruvo_redis::get_server_node | try next server:127.0.0.1,port:" + port), 2);
  now += 1;
  EXPECT_EQ(turns(2, 1), (positions{1, 1}));
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::is_server_valid | server, ip:127.0.0.1 port:" + port +
                                 " start retry"),
            1);
  const server_node& server = client_.getPool(eTempServer).servers_[1];
  EXPECT_EQ(server.failure_count_, 0);
  EXPECT_EQ(server.next_retry_time_, 0);
}

TEST_F(Routing, GivesUpWhenAllServersAreEjected) {
  start("p_server_failure_limit = 1");
  for (const int position : {0, 1, 2}) {
    fail(position, 1);
  }
  log_.clear();
  EXPECT_EQ(turns(1), positions{-1});
  EXPECT_EQ(log_.count_containing("ruvo_redis::is_server_valid | server,ip:"), 3);
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::get_server_node | all servers invalid"), 1);
  EXPECT_EQ(turns(1, -1, ePersistServer), positions{0});  // each pool has servers of its own
  client_.update_server_ok(&pool_in(client_).servers_[2]);
  EXPECT_EQ(turns(1), positions{2});
}

TEST_F(Routing, LimitsOfEjection) {
  struct {
    const char* settings;
    int failures;
    int found;  // from position 0 right after the failures
  } const cases[] = {
      {"p_auto_eject_server = false\np_server_failure_limit = 1", 9, 0},
      {"p_server_failure_limit = -1", 9, 0},
      {"p_server_failure_limit = 1\np_server_retry_timeout = 0", 9, 0},
      {"p_server_failure_limit = 0", 0, 0},
      {"p_server_failure_limit = 0", 1, 1},
  };
  for (const auto& one : cases) {
    ruvo_redis client;
    const std::string down = down_.addr();
    ASSERT_EQ(ruvo_cfg.open(std::string("[server]\n") + one.settings, true), 0);
    server_pool& pool = pool_in(client);
    client.init_server_pool(down + "," + down, pool, eTempServer);
    for (int i = 0; i < one.failures; ++i) {
      client.update_server_failed(pool.servers_.data(), eTempServer);
    }
    EXPECT_EQ(client.get_server_node(eTempServer, 0)->index_, static_cast<std::size_t>(one.found))
        << one.settings;
  }
}

TEST_F(Routing, AnEmptyPoolAndAMissingSlotAreTold) {
  EXPECT_EQ(client_.get_server_node(eTempServer, -1), nullptr);
  EXPECT_EQ(client_.get_server_node(eTempServer, 5), nullptr);
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::get_server_node | all servers invalid"), 2);
  start("p_connect_num = 0");
  server_node* server = client_.get_server_node(eTempServer, -1);
  EXPECT_EQ(client_.get_conn(*server, eTempServer), nullptr);
  EXPECT_EQ(log_.count(DEBUG, "ruvo_redis::get_conn | connection index: 0/0"), 1);
  EXPECT_EQ(log_.count(WARN, "ruvo_redis::get_conn | no connection 0 on server 127.0.0.1 port:" +
                                 std::to_string(server->addr_.port_)),
            1);
}

TEST_F(Routing, RebuildsAConnectionWithThePersistentPoolsPassword) {
  std::vector<std::string> passwords;
  std::mutex mutex;
  const ScriptedServer server([&](Peer& peer) {
    for (auto words = peer.read_command(); !words.empty(); words = peer.read_command()) {
      const std::scoped_lock lock(mutex);
      passwords.push_back(words.at(1));
      peer.send("+OK\r\n");
    }
  });
  start("p_password = temporary\nt_password = persistent", server.addr());
  server_node& node = pool_in(client_, ePersonalityServer).servers_[0];
  conn_node& conn = node.context_arr_[0];
  const redisContext* fresh = client_.reset_connection(conn, node.addr_);
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(fresh, conn.context_);
  EXPECT_EQ(log_.count_containing("ruvo_redis::reset_connection | reset connection,ip:127.0.0.1"),
            1);
  EXPECT_EQ(
      log_.count(DEBUG,
                 "ruvo_redis::reset_connection | redisSetTimeOut time_out:1000 (ms), success"),
      1);
  const std::scoped_lock lock(mutex);
  EXPECT_EQ(passwords, (std::vector<std::string>{"temporary", "persistent", "persistent"}));
}

TEST_F(Routing, AFailedRebuildKeepsTheOldContextAndLeaksNothing) {
  // Good when the pools are built; later one that refuses, one that goes, one that is not there.
  const ScriptedServer refuses([](Peer& peer) {
    peer.answer_all(peer.number() < 3 ? "+OK\r\n" : "-ERR invalid password\r\n");
  });
  const ScriptedServer goes([](Peer& peer) {
    if (peer.number() < 3) {
      peer.answer_all("+OK\r\n");
    }
  });
  start("t_password = secret", refuses.addr() + "," + goes.addr() + "," + down_.addr());
  auto& servers = pool_in(client_).servers_;
  const int descriptors = open_descriptors();
  for (int i = 0; i < 1000; ++i) {
    for (server_node& server : servers) {
      const redisContext* before = server.context_arr_[0].context_;
      EXPECT_EQ(client_.reset_connection(server.context_arr_[0], server.addr_), nullptr);
      EXPECT_EQ(server.context_arr_[0].context_, before);
    }
  }
  // The scripted servers' own sides may still be closing.
  EXPECT_LE(open_descriptors(), descriptors + 20);
  EXPECT_EQ(log_.count(ERROR,
                       "ruvo_redis::init_server_pool | failed to authenticate redis, error passwd, "
                       "redis_ip = 127.0.0.1, redis_port = " +
                           std::to_string(servers[0].addr_.port_) + ", passwd = secret"),
            1000);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::reset_connection | reconnect to server 127.0.0.1 port:" +
                                  std::to_string(servers[2].addr_.port_) +
                                  " failed, error code is Connection refused."),
            1000);
}

}  // namespace

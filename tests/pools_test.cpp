// Building a pool from its address list and its settings.
#include <gtest/gtest.h>

#include <array>
#include <sstream>

#include "client.h"
#include "servers.h"

namespace {

constexpr auto INFO = BaseLib::Logger::INFO;
constexpr auto ERROR = BaseLib::Logger::ERROR;
constexpr std::array all_types{eTempServer, ePersistServer, ePersonalityServer};

class Pools : public testing::Test {
 protected:
  LogCapture log_;
};

TEST_F(Pools, ReadsTheSettingsOfEachPool) {
  const RedisServer redis;
  std::stringstream port;
  port << "0x" << std::hex << redis.port();
  const HostConfig config(
      all_pools_at(redis.addr() + ", 127.0.0.1 : " + port.str()),
      "p_connect_num=3\nt_connect_num=0\nps_connect_num=-2\np_auto_eject_server=0\n"
      "t_auto_eject_server=perhaps\n"
      "p_server_failure_limit=11\nt_server_failure_limit=12\nps_server_failure_limit=13\n"
      "p_server_retry_timeout=21\nt_server_retry_timeout=22\nps_server_retry_timeout=23");
  ruvo_redis client;
  ASSERT_EQ(init_client(client, config), 0);
  for (const RedisServerType type : all_types) {
    const server_pool& pool = client.getPool(type);
    EXPECT_EQ(pool.failure_limit_, 10U + static_cast<unsigned>(type));
    EXPECT_EQ(pool.retry_timeout_, 20 + type);
    EXPECT_EQ(pool.auto_eject_, type != eTempServer);
    EXPECT_EQ(pool.conn_num_, type == eTempServer ? 3U : type == ePersistServer ? 0U : 1U);
    EXPECT_EQ(
        log_.count(INFO,
                   "ruvo_redis::init_server_pool | server: conn_num:3, auto_eject:false, "
                   "failure_limit:1" +
                       std::to_string(type) + ", retry_timeout:2" + std::to_string(type) + " (s)"),
        1);
    EXPECT_EQ(pool.server_num_, 2U);
    EXPECT_EQ(pool.servers_.at(1).index_, 1U);
    EXPECT_EQ(pool.servers_.at(1).addr_.port_, static_cast<std::uint32_t>(redis.port()));
    EXPECT_EQ(pool.servers_.at(1).context_arr_.size(), 3U);
  }
  EXPECT_EQ(log_.count(ERROR,
                       "ruvo_redis::init_server_pool | ps_connect_num must not be negative: -2, "
                       "using 1"),
            1);
  EXPECT_EQ(log_.count_containing("must not be negative"), 1);
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::init_server_pool | connect to proxy: 127.0.0.1 port:" +
                                 std::to_string(redis.port()) + " succeeded."),
            3 * 2 * 3);
}

TEST_F(Pools, MalformedListsFailAndServersThatAreDownKeepTheirSlots) {
  const DownServer none;
  const std::string down = none.addr();
  for (const std::string& addrs : {std::string("host"), down + ",", down + ":1", down + ",a:1:2",
                                   std::string(" , "), std::string()}) {
    ruvo_redis client;
    EXPECT_EQ(client.init_server_pool(addrs, pool_in(client), eTempServer), RUVO_ERR_ADDRESS_LIST);
    EXPECT_TRUE(pool_in(client).servers_.empty()) << addrs;
  }
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init_server_pool | addr is empty"), 1);
  EXPECT_EQ(log_.count_containing("ruvo_redis::init_server_pool | invalid server addr:"), 5);
  const HostConfig config(pools_at(down + ",127.0.0.1:99999,:1", down, ""), "p_connect_num = 2");
  ruvo_redis client;
  EXPECT_EQ(init_client(client, config), 3);
  for (const server_node& server : client.getPool(eTempServer).servers_) {
    EXPECT_EQ(server.context_arr_.size(), 2U);
  }
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | temp server pool init failed, 10405"), 1);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init_server_pool | connect to node 127.0.0.1 port:" +
                                  std::to_string(none.port()) +
                                  " failed, error code : Connection refused."),
            4);
  EXPECT_EQ(log_.count_containing("port:99999 failed, error code : null redisContext."), 2);
}

TEST_F(Pools, StartWithoutServersKeepsEverySlotAndTriesOneForEachServer) {
  const DownServer down;
  const ScriptedServer refuses("-ERR invalid password\r\n");
  const HostConfig config(
      "start_without_servers = true\n" + pools_at(down.addr(), refuses.addr(), down.addr()),
      "p_connect_num = 2\nt_password = wrong");
  ruvo_redis client;
  EXPECT_EQ(init_client(client, config), RUVO_OK);
  for (const RedisServerType type : all_types) {
    EXPECT_EQ(client.getPool(type).servers_.at(0).context_arr_.size(), 2U);
  }
  EXPECT_EQ(log_.count_containing("ruvo_redis::init_server_pool | connect to node"), 2);
}

TEST_F(Pools, AreClosedWithTheirClient) {
  const RedisServer redis;
  const int descriptors = open_descriptors();
  {
    ruvo_redis client;
    ASSERT_EQ(init_client(client, HostConfig(all_pools_at(redis.addr()))), 0);
    EXPECT_EQ(open_descriptors(), descriptors + 3);
  }
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Pools, EachPoolHasAPasswordOfItsOwn) {
  std::mutex mutex;
  std::string passwords;  // guarded by mutex
  const ScriptedServer redis([&](const std::vector<std::string>& words) {
    const std::scoped_lock lock(mutex);
    passwords += words.at(1) + " ";
    return "+OK\r\n";
  });
  ruvo_redis client;
  const HostConfig config(all_pools_at(redis.addr() + "," + redis.addr()),
                          "p_password = temp\nt_password = persist\nps_password = personality");
  ASSERT_EQ(init_client(client, config), 0);
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::init_server_pool | connect to server ok num:2"), 3);
  const std::scoped_lock lock(mutex);
  EXPECT_EQ(passwords, "temp temp persist persist personality personality ");
}

}  // namespace

// Building a pool from its address list and its settings.
#include <array>
#include <sstream>

#include "client_test.h"

namespace {

const std::string line = "ruvo_redis::init_server_pool | ";
constexpr std::array all_types{eTempServer, ePersistServer, ePersonalityServer};

class Pools : public ClientTest {};

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
  ASSERT_EQ(init_client(*client_, config), RUVO_OK);
  for (const RedisServerType type : all_types) {
    const server_pool& pool = client_->getPool(type);
    EXPECT_EQ(pool.failure_limit_, 10U + static_cast<unsigned>(type));
    EXPECT_EQ(pool.retry_timeout_, 20 + type);
    EXPECT_EQ(pool.auto_eject_, type != eTempServer);
    EXPECT_EQ(pool.conn_num_, type == eTempServer ? 3U : type == ePersistServer ? 0U : 1U);
    const std::string number = std::to_string(type);
    EXPECT_EQ(log_.count(INFO, line + "server: conn_num:3, auto_eject:false, failure_limit:1" +
                                   number + ", retry_timeout:2" + number + " (s)"),
              1);
    EXPECT_EQ(pool.server_num_, 2U);
    EXPECT_EQ(pool.servers_.at(1).index_, 1U);
    EXPECT_EQ(pool.servers_.at(1).addr_.port_, static_cast<std::uint32_t>(redis.port()));
    EXPECT_EQ(pool.servers_.at(1).context_arr_.size(), 3U);
  }
  EXPECT_EQ(log_.count(ERROR, line + "ps_connect_num must not be negative: -2, using 1"), 1);
  EXPECT_EQ(log_.count_containing("must not be negative"), 1);
  EXPECT_EQ(log_.count(INFO, line + "connect to proxy: 127.0.0.1 port:" +
                                 std::to_string(redis.port()) + " succeeded."),
            3 * 2 * 3);
}

TEST_F(Pools, MalformedListsFailAndServersThatAreDownKeepTheirSlots) {
  const std::string down = down_.addr();
  for (const std::string& addrs : {std::string("host"), down + ",", down + ":1", down + ",a:1:2",
                                   std::string(" , "), std::string()}) {
    EXPECT_EQ(client_->init_server_pool(addrs, pool_in(*client_), eTempServer),
              RUVO_ERR_ADDRESS_LIST);
    EXPECT_TRUE(pool_in(*client_).servers_.empty()) << addrs;
  }
  EXPECT_EQ(log_.count(ERROR, line + "addr is empty"), 1);
  EXPECT_EQ(log_.count_containing(line + "invalid server addr:"), 5);
  const HostConfig config(pools_at(down + ",127.0.0.1:99999,:1", down, ""), "p_connect_num = 2");
  EXPECT_EQ(init_client(*client_, config), RUVO_INIT_BOTH_POOLS_FAILED);
  for (const server_node& server : client_->getPool(eTempServer).servers_) {
    EXPECT_EQ(server.context_arr_.size(), 2U);
  }
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | temp server pool init failed, 10405"), 1);
  const std::string node = line + "connect to node 127.0.0.1 port:" + std::to_string(down_.port());
  EXPECT_EQ(log_.count(ERROR, node + " failed, error code : Connection refused."), 4);
  EXPECT_EQ(log_.count_containing("port:99999 failed, error code : null redisContext."), 2);
}

TEST_F(Pools, StartWithoutServersKeepsEverySlotAndTriesOneForEachServer) {
  const ScriptedServer refuses("-ERR invalid password\r\n");
  const HostConfig config(
      "start_without_servers = true\n" + pools_at(down_.addr(), refuses.addr(), down_.addr()),
      "p_connect_num = 2\nt_password = wrong");
  EXPECT_EQ(init_client(*client_, config), RUVO_OK);
  for (const RedisServerType type : all_types) {
    EXPECT_EQ(server(0, type).context_arr_.size(), 2U);
  }
  EXPECT_EQ(log_.count_containing(line + "connect to node"), 2);
}

TEST_F(Pools, AreClosedWithTheirClient) {
  const RedisServer redis;
  const int descriptors = open_descriptors();
  EXPECT_EQ(start(redis.addr()), RUVO_OK);
  EXPECT_EQ(open_descriptors(), descriptors + 3);
  client_ = nullptr;
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
  const HostConfig config(all_pools_at(redis.addr() + "," + redis.addr()),
                          "p_password = temp\nt_password = persist\nps_password = personality");
  ASSERT_EQ(init_client(*client_, config), 0);
  EXPECT_EQ(log_.count(INFO, line + "connect to server ok num:2"), 3);
  const std::scoped_lock lock(mutex);
  EXPECT_EQ(passwords, "temp temp persist persist personality personality ");
}

}  // namespace

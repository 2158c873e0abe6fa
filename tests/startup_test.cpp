// Start-up, pool construction and shut-down.
#include <gtest/gtest.h>
#include <netdb.h>

#include <array>
#include <iostream>

#include "client.h"
#include "servers.h"

// ---- The host's name and address, as the test wants them ----

namespace {
const char* host_name = nullptr;  // null: the host does not know
std::array<unsigned char, 4> host_ip{};
}  // namespace

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's name, see --wrap
extern "C" int __wrap_gethostname(char* name, std::size_t length) {
  return host_name == nullptr ? -1 : std::snprintf(name, length, "%s", host_name) < 0;
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's name, see --wrap
extern "C" int __wrap_gethostbyname_r(const char*, hostent* entry, char*, std::size_t size,
                                      hostent** found, int*) {
  static std::array<char, 4> nowhere{10, 0, 0, 1};
  static char* addrs[] = {nowhere.data(), reinterpret_cast<char*>(host_ip.data()), nullptr};
  entry->h_addrtype = AF_INET;
  entry->h_addr_list = addrs;
  *found = size < 4096 ? nullptr : entry;  // makes the caller grow its buffer
  return *found == nullptr ? ERANGE : 0;
}

namespace {

constexpr auto ERROR = BaseLib::Logger::ERROR;
constexpr auto INFO = BaseLib::Logger::INFO;
constexpr std::array all_types{eTempServer, ePersistServer, ePersonalityServer};

class Startup : public testing::Test {
 protected:
  Startup() {
    host_name = nullptr;
    testing::internal::CaptureStdout();
  }
  ~Startup() override {
    ruvo_cfg.close();
    const std::string printed = testing::internal::GetCapturedStdout();
    if (HasFailure()) {
      std::cout << printed;  // the failures are in it
    }
  }
  // What was printed since the last call.
  static std::string progress() {
    std::string printed = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    return printed;
  }

  LogCapture log_;
};

TEST_F(Startup, ResultTellsWhichPoolsAreUp) {
  const RedisServer redis;
  const DownServer none;
  const std::string up = redis.addr();
  const std::string down = none.addr();
  // clang-format off
  struct { std::string common; int result; } const cases[] = {
      {pools_at(up, up, up), 0}, {pools_at(down, up, up), 1}, {pools_at(up, down, up), 2},
      {pools_at(down, "", ""), 3}, {pools_at("bad", up, up), 1}, {pools_at(up, up, down), 0},
      {pools_at(up + "," + down, up, ""), 0},
  };
  // clang-format on
  for (const auto& one : cases) {
    const HostConfig config(one.common);
    ruvo_redis client;
    EXPECT_EQ(client.init(config.path()), one.result) << one.common;
    EXPECT_EQ(client.fini(), one.result == 3 ? RUVO_ERR_NOT_INITIALIZED : RUVO_OK);
  }
}

TEST_F(Startup, TellsItsStoryToLogAndConsole) {
  const RedisServer redis;
  const std::string up = redis.addr();
  const HostConfig config(pools_at(up, up, "bad") + "connect_timeout = 2500");
  ruvo_redis client;
  ASSERT_EQ(client.init(config.path()), 0);
  client.fini();
  // clang-format off
  const LogCapture::Line story[] = {
      {INFO, "ruvo_worker::init | get timeout cfg, connect_timeout:2500 (ms), socket_timeout:100 (ms)"},
      {ERROR, "t_par_val: " + up + "\n"}, {ERROR, "p_par_val: " + up + "\n"},
      {INFO, "ruvo_redis::init | temp_server addr = " + up + ", persist_server addr = " + up + "."},
      {INFO, "ruvo_redis::init | temp server pool init success"},
      {INFO, "ruvo_redis::init | persist server pool init success"},
      {ERROR, "ruvo_redis::init_server_pool | invalid server addr:bad"},
      {ERROR, "ruvo_redis::init | personality server pool init failed, 10109"},
      {INFO, "ruvo_redis::fini | ruvo fini succeed"},
  };
  const std::string printed =
      "ruvo_redis::init | init config, ret = 0\nruvo_redis::init | temp_server addr = " + up +
      "p_server_addrs_ = " + up + "\nruvo_redis::init | tempsever init_server_pool ret = 0\n"
      "ruvo_redis::init | persist init_server_pool ret = 0\n"
      "ruvo_redis::init | personality init_server_pool ret = 10109\nret_sum = 0\n";
  // clang-format on
  for (const LogCapture::Line& line : story) {
    EXPECT_EQ(log_.count(line.level, line.text), 1) << line;
  }
  EXPECT_EQ(log_.count_containing("| server: conn_num:1, auto_eject:true, failure_limit:5, retry_"),
            2);
  EXPECT_EQ(log_.count_containing("ruvo_redis::fini | disconnect redis node 127.0.0.1 port:"), 2);
  EXPECT_TRUE(progress().ends_with(printed));
}

TEST_F(Startup, BadConfigurationIsNamedAndFinal) {
  const TempDir dir;
  const std::string empty = dir.write("empty", "");
  const std::string dangling = dir.write("dangling", "[redis_cfg]\nredis_cfg_path=/none/x\n");
  const std::string missing = dir.path("missing");
  // clang-format off
  struct { const char* config; int result; std::string printed; } const cases[] = {
      {nullptr, 10102, "ruvo_worker::init | no local config file\n"},
      {"", 10102, "ruvo_worker::init | no local config file\n"},
      {missing.c_str(), 10115, "::init_config | cannot open config file:" + missing + "\n"},
      {empty.c_str(), 10106, "ruvo_redis::init_config redis_cfg_path = (null)\n"},
      {dangling.c_str(), -1, "ruvo_redis::init_config redis_cfg_path = /none/x\n"},
  };
  // clang-format on
  for (const auto& one : cases) {
    progress();
    log_.clear();
    ruvo_redis client;
    EXPECT_EQ(client.init(one.config), one.result);
    const std::string ret = std::to_string(one.result);
    EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | init config failed, ret = " + ret), 1);
    EXPECT_NE(progress().find(one.printed), std::string::npos) << one.printed;
    // Stuck: nothing is tried again, and there is nothing to end.
    EXPECT_EQ(client.init(one.config), 0);
    EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | redis is now in initialize"), 1);
    EXPECT_EQ(client.fini(), RUVO_ERR_NOT_INITIALIZED);
    EXPECT_EQ(log_.count(ERROR, "ruvo_redis::fini | redis is not initialized"), 1);
    ruvo_cfg.close();
  }
}

TEST_F(Startup, CountsItsCallersAndStartsAfreshAfterTheLast) {
  const RedisServer redis;
  const int descriptors = open_descriptors();
  ruvo_redis client;
  const HostConfig first(all_pools_at(redis.addr() + "," + redis.addr()),
                         "p_connect_num = 3\np_server_failure_limit = 9\nt_password = "
                         "none\nt_auto_eject_server = false\nt_server_retry_timeout = 7");
  ASSERT_EQ(client.init(first.path()), 0);
  EXPECT_EQ(client.init(nullptr), 0);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | redis alreadly initialize"), 1);
  EXPECT_EQ(client.fini(), 0);
  EXPECT_EQ(client.insert_key("k", "v", 1, -1, eTempServer, nullptr), 0);
  EXPECT_EQ(client.fini(), 0);
  EXPECT_EQ(client.fini(), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(ruvo_cfg.get_str_val("common", "temp_server"), nullptr);
  const HostConfig second(all_pools_at(redis.addr() + "," + redis.addr()));
  ASSERT_EQ(client.init(second.path()), 0);
  EXPECT_EQ(client.get_server_node(eTempServer, -1)->index_, 0U);  // turns begin anew as well
  for (const RedisServerType type : all_types) {
    const server_pool& pool = client.getPool(type);
    EXPECT_EQ(pool.servers_.at(0).context_arr_.size(), 1U);
    EXPECT_TRUE(pool.auto_eject_ && pool.failure_limit_ == 5 && pool.retry_timeout_ == 30);
    EXPECT_EQ(pool.redis_password_, "");
  }
}

TEST_F(Startup, DefaultsFollowTheHostsNetworkAndTheExecutable) {
  // clang-format off
  struct { std::array<unsigned char, 4> ip; int type; std::string addrs; int errors; } const cases[] = {
      {{127, 0, 0, 1}, 1, "127.0.0.1:22123,127.0.0.2:22123", 0}, {{198, 19, 5, 9}, 3, "", 0},
      {{198, 18, 4, 9}, 2, "198.18.0.10:22123,198.18.0.11:22123", 0}, {{203, 0, 113, 1}, 1, "", 1},
      {{198, 19, 5, 9}, 1, "198.19.0.10:22123,198.19.0.11:22123", 0}, {{127, 0, 10, 1}, 1, "", 1},
  };
  // clang-format on
  const ruvo_redis client;
  EXPECT_EQ(client.getDefaultAddr(eTempServer), "");
  host_name = "host.example";
  for (const auto& one : cases) {
    host_ip = one.ip;
    log_.clear();
    EXPECT_EQ(client.getDefaultAddr(static_cast<RedisServerType>(one.type)), one.addrs);
    EXPECT_EQ(log_.count(ERROR, "invalid ip or no redis server on the area."), one.errors);
  }
  EXPECT_TRUE(client.get_cfg().ends_with("/conf/sruvo.conf")) << client.get_cfg();
}

TEST_F(Startup, APoolWithoutAListTakesTheDefaultOfItsKind) {
  host_name = "host.example";
  host_ip = {127, 0, 0, 1};
  ruvo_redis client;
  client.init(HostConfig("").path());
  for (const RedisServerType type : {eTempServer, ePersistServer}) {
    EXPECT_EQ(client.getPool(type).server_num_, 2U);
    EXPECT_EQ(client.getPool(type).servers_.at(1).addr_.ip_, "127.0.0.2");
  }
  EXPECT_EQ(log_.count_containing("| addr is empty"), 1);  // the personality pool has none
}

}  // namespace

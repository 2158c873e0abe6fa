// Start-up, pool construction and shutdown.
#include <gtest/gtest.h>
#include <netdb.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "client.h"
#include "servers.h"

// ---- The host's name and address, as set by the test ----

namespace {
const char* host_name = nullptr;  // null: the host has none
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
      std::cout << printed;  // including the failures
    }
  }
  // The output since the last call.
  static std::string progress() {
    std::string printed = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    return printed;
  }

  LogCapture log_;
};

TEST_F(Startup, ResultSaysWhichPoolsAreUp) {
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

TEST_F(Startup, WritesItsStepsToLogAndConsole) {
  const ScriptedServer temp{std::string()};
  const ScriptedServer persist{std::string()};
  const HostConfig config(pools_at(temp.addr(), persist.addr(), "bad") + "socket_timeout = 2500");
  ruvo_redis client;
  ASSERT_EQ(client.init(config.path()), 0);
  timeval set{};
  socklen_t size = sizeof(set);
  getsockopt(pool_in(client).servers_[0].context_arr_[0].context_->fd, SOL_SOCKET, SO_RCVTIMEO,
             &set, &size);
  EXPECT_EQ(set.tv_sec * 1000 + set.tv_usec / 1000, 2500);
  client.fini();
  // clang-format off
  const LogCapture::Line expected_lines[] = {
      {INFO, "ruvo_worker::init | get timeout cfg, connect_timeout:100 (ms), socket_timeout:2500 (ms)"},
      {ERROR, "t_par_val: " + temp.addr() + "\n"}, {ERROR, "p_par_val: " + persist.addr() + "\n"},
      {INFO, "ruvo_redis::init | temp_server addr = " + temp.addr() + ", persist_server addr = " + persist.addr() + "."},
      {INFO, "ruvo_redis::init | temp server pool init success"},
      {INFO, "ruvo_redis::init | persist server pool init success"},
      {ERROR, "ruvo_redis::init_server_pool | invalid server addr:bad"},
      {ERROR, "ruvo_redis::init | personality server pool init failed, 10109"},
      {INFO, "ruvo_redis::fini | disconnect redis node 127.0.0.1 port:" + std::to_string(temp.port()) + "."},
      {INFO, "ruvo_redis::fini | disconnect redis node 127.0.0.1 port:" + std::to_string(persist.port()) + "."},
      {INFO, "ruvo_redis::fini | ruvo fini succeed"},
  };
  const std::string printed =
      "ruvo_redis::init | init config, ret = 0\nruvo_redis::init | temp_server addr = " + temp.addr() +
      "p_server_addrs_ = " + persist.addr() + "\nruvo_redis::init | tempsever init_server_pool ret = 0\n"
      "ruvo_redis::init | persist init_server_pool ret = 0\n"
      "ruvo_redis::init | personality init_server_pool ret = 10109\nret_sum = 0\n";
  // clang-format on
  for (const LogCapture::Line& line : expected_lines) {
    EXPECT_EQ(log_.count(line.level, line.text), 1) << line;
  }
  EXPECT_EQ(log_.count_containing("| server: conn_num:1, auto_eject:true, failure_limit:5, retry_"),
            2);
  EXPECT_TRUE(progress().ends_with(printed));
}

TEST_F(Startup, BadConfigurationIsNamedAndFinal) {
  const TempDir dir;
  const std::string empty = dir.write("empty", "");
  const std::string dangling = dir.write("dangling", "[redis_cfg]\nredis_cfg_path=/none/x\n");
  const std::string missing = dir.path("missing");
  const std::string reads = "ruvo_redis::init_config config = ";
  const std::string path_is = "\nruvo_redis::init_config redis_cfg_path = ";
  const std::string no_path = "ruvo_worker::init_config | no redis_cfg_path.";
  // clang-format off
  struct { const char* config; int result; std::string printed; } const cases[] = {
      {nullptr, 10102, "ruvo_worker::init | no local config file\n"},
      {"", 10102, "ruvo_worker::init | no local config file\n"},
      {missing.c_str(), 10115, reads + missing + "\nruvo_worker::init_config | cannot open config file:" + missing + "\n"},
      {empty.c_str(), 10106, reads + empty + path_is + "(null)\n" + no_path + "\n"},
      {dangling.c_str(), -1, reads + dangling + path_is + "/none/x\n"},
  };
  // clang-format on
  for (const auto& one : cases) {
    progress();
    log_.clear();
    ruvo_redis client;
    EXPECT_EQ(client.init(one.config), one.result);
    const std::string ret = std::to_string(one.result);
    EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | init config failed, ret = " + ret), 1);
    EXPECT_EQ(progress(), one.printed + "ruvo_redis::init | init config, ret = " + ret +
                              "\nruvo_redis::init | init config failed, ret = " + ret + "\n");
    EXPECT_EQ(log_.count(ERROR, path_is.substr(1) + "(null)"), one.result == 10106);
    EXPECT_EQ(log_.count(ERROR, path_is.substr(1) + "/none/x"), one.result == -1);
    EXPECT_EQ(log_.count(ERROR, no_path), one.result == 10106);
    // A failed start-up is final: nothing is tried again, and there is nothing to shut down.
    EXPECT_EQ(client.init(one.config), 0);
    EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | redis is now in initialize"), 1);
    EXPECT_EQ(client.fini(), RUVO_ERR_NOT_INITIALIZED);
    EXPECT_EQ(log_.count(ERROR, "ruvo_redis::fini | redis is not initialized"), 1);
    ruvo_cfg.close();
  }
}

TEST_F(Startup, CountsItsCallersAndCanRestartAfterTheLast) {
  const RedisServer redis;
  const int descriptors = open_descriptors();
  ruvo_redis client;
  const HostConfig first(all_pools_at(redis.addr() + "," + redis.addr()),
                         "p_connect_num = 3\np_server_failure_limit = 9\nt_password = "
                         "none\nt_auto_eject_server = false\nt_server_retry_timeout = 7");
  ASSERT_EQ(client.init(first.path()), 0);
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::init | persist server pool init success"), 2);
  EXPECT_EQ(client.init(nullptr), 0);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | redis alreadly initialize"), 1);
  EXPECT_EQ(client.fini(), 0);
  EXPECT_EQ(client.insert_key("k", "v", 1, -1, ePersonalityServer, nullptr), 0);
  EXPECT_EQ(client.fini(), 0);
  EXPECT_EQ(client.fini(), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(ruvo_cfg.get_str_val("common", "temp_server"), nullptr);
  const std::string addrs = redis.addr() + "," + redis.addr();
  const HostConfig second(pools_at("malformed", addrs, addrs));  // its pool fails early
  ASSERT_EQ(client.init(second.path()), RUVO_INIT_TEMP_POOL_FAILED);
  EXPECT_EQ(client.get_server_node(ePersonalityServer, -1)->index_,
            0U);  // the round-robin restarts as well
  for (const RedisServerType type : all_types) {
    const server_pool& pool = client.getPool(type);
    EXPECT_EQ(pool.conn_num_, 1U);
    EXPECT_EQ(pool.servers_.empty() ? 1U : pool.servers_[0].context_arr_.size(), 1U);
    EXPECT_TRUE(pool.auto_eject_ && pool.failure_limit_ == 5 && pool.retry_timeout_ == 30);
    EXPECT_EQ(pool.redis_password_, "");
  }
}

TEST_F(Startup, DefaultsFollowTheHostsNetwork) {
  using Network = std::array<unsigned char, 3>;
  // clang-format off
  const struct { std::vector<Network> networks; std::string one; std::string other; } groups[] = {
      {{{127, 0, 0}, {127, 0, 1}, {127, 0, 2}}, "127.0.0.1", "127.0.0.2"},
      {{{198, 18, 0}, {198, 18, 1}, {198, 18, 2}, {198, 18, 3}, {198, 18, 4}}, "198.18.0.10", "198.18.0.11"},
      {{{198, 19, 0}, {198, 19, 1}, {198, 19, 2}, {198, 19, 3}, {198, 19, 4}, {198, 19, 5}}, "198.19.0.10", "198.19.0.11"},
      {{{203, 0, 113}, {127, 0, 10}, {127, 0, 3}, {198, 18, 5}, {198, 19, 6}}, "", ""},
  };
  // clang-format on
  const ruvo_redis client;
  EXPECT_EQ(client.getDefaultAddr(eTempServer), "");
  host_name = "host.example";
  for (const auto& group : groups) {
    for (const Network& network : group.networks) {
      host_ip = {network[0], network[1], network[2], 9};
      for (const int type : {0, 1, 2, 3}) {
        log_.clear();
        const std::string port = type == 0 ? ":22122" : ":22123";
        EXPECT_EQ(
            client.getDefaultAddr(static_cast<RedisServerType>(type)),
            group.one.empty() || type == 3 ? "" : group.one + port + "," + group.other + port);
        EXPECT_EQ(log_.count(ERROR, "invalid ip or no redis server on the area."),
                  group.one.empty() ? 1 : 0);
      }
    }
  }
}

TEST_F(Startup, TheConfigurationLiesBesideTheExecutableOrInConf) {
  const ruvo_redis client;
  const std::filesystem::path folder =
      std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::filesystem::path beside = folder / "sruvo.conf";
  const std::string in_conf = folder.parent_path() / "conf/sruvo.conf";
  EXPECT_EQ(client.get_cfg(), in_conf);
  std::filesystem::create_directory(beside);
  EXPECT_EQ(client.get_cfg(), in_conf);
  std::filesystem::remove(beside);
  std::ofstream(beside).put('\n');
  EXPECT_EQ(client.get_cfg(), beside);
  std::filesystem::remove(beside);
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

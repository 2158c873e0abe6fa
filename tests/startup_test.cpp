// Start-up, pool construction and shutdown.
#include <fcntl.h>
#include <netdb.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "client_test.h"

// The host's name and address, as set by the test.

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

class Startup : public ClientTest {
 protected:
  Startup() { host_name = nullptr; }
  ~Startup() override { ruvo_cfg.close(); }
  // Starts the client and returns what it prints. REQUIRES: no thread reads from a file, as those
  // of a ScriptedServer do: the end of the capture flushes all files, and would wait for it.
  std::string init(const char* config, int expected) {
    testing::internal::CaptureStdout();
    const int ret = client_->init(config);
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(ret, expected) << printed;
    return printed;
  }
};

TEST_F(Startup, ResultSaysWhichPoolsAreUp) {
  const RedisServer redis;
  const std::string up = redis.addr();
  const std::string down = down_.addr();
  // clang-format off
  struct { std::string common; int result; } const cases[] = {
      {pools_at(up, up, up), 0}, {pools_at(down, up, up), 1}, {pools_at(up, down, up), 2},
      {pools_at(down, "", ""), 3}, {pools_at("bad", up, up), 1}, {pools_at(up, up, down), 0},
      {pools_at(up + "," + down, up, ""), 0},
  };
  // clang-format on
  for (const auto& one : cases) {
    SCOPED_TRACE(one.common);
    client_ = std::make_unique<ruvo_redis>();
    init(HostConfig(one.common).path(), one.result);
    EXPECT_EQ(client_->fini(), one.result == 3 ? RUVO_ERR_NOT_INITIALIZED : RUVO_OK);
  }
}

TEST_F(Startup, WritesItsStepsToLogAndConsole) {
  const RedisServer temp;
  const RedisServer persist;
  const HostConfig config(pools_at(temp.addr(), persist.addr(), "bad") + "socket_timeout = 2500");
  const std::string printed = init(config.path(), RUVO_OK);
  EXPECT_EQ(read_timeout(*server(0).context_arr_[0].context_), 2500);
  client_->fini();
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
  const std::string progress =
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
  EXPECT_TRUE(printed.ends_with(progress)) << printed;
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
    log_.clear();
    client_ = std::make_unique<ruvo_redis>();
    const std::string ret = std::to_string(one.result);
    EXPECT_EQ(init(one.config, one.result),
              one.printed + "ruvo_redis::init | init config, ret = " + ret +
                  "\nruvo_redis::init | init config failed, ret = " + ret + "\n");
    EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | init config failed, ret = " + ret), 1);
    EXPECT_EQ(log_.count(ERROR, path_is.substr(1) + "(null)"), one.result == 10106);
    EXPECT_EQ(log_.count(ERROR, path_is.substr(1) + "/none/x"), one.result == -1);
    EXPECT_EQ(log_.count(ERROR, no_path), one.result == 10106);
    // A failed start-up is final: nothing is tried again, and there is nothing to shut down.
    init(one.config, RUVO_OK);
    EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | redis is now in initialize"), 1);
    EXPECT_EQ(client_->fini(), RUVO_ERR_NOT_INITIALIZED);
    EXPECT_EQ(log_.count(ERROR, "ruvo_redis::fini | redis is not initialized"), 1);
    ruvo_cfg.close();
  }
}

TEST_F(Startup, CountsItsCallersAndCanRestartAfterTheLast) {
  const RedisServer redis;
  const std::string addrs = redis.addr() + "," + redis.addr();
  const int descriptors = open_descriptors();
  const HostConfig first(all_pools_at(addrs),
                         "p_connect_num = 3\np_server_failure_limit = 9\nt_password = none\n"
                         "t_auto_eject_server = false\nt_server_retry_timeout = 7");
  init(first.path(), RUVO_OK);
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::init | persist server pool init success"), 2);
  init(nullptr, RUVO_OK);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::init | redis alreadly initialize"), 1);
  EXPECT_EQ(client_->fini(), RUVO_OK);
  EXPECT_EQ(client_->insert_key("k", "v", 1, -1, ePersonalityServer, nullptr), RUVO_OK);
  EXPECT_EQ(client_->fini(), RUVO_OK);
  EXPECT_EQ(client_->fini(), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(ruvo_cfg.get_str_val("common", "temp_server"), nullptr);
  const HostConfig second(pools_at("malformed", addrs, addrs));  // its pool fails early
  init(second.path(), RUVO_INIT_TEMP_POOL_FAILED);
  // The round-robin restarts as well.
  EXPECT_EQ(client_->get_server_node(ePersonalityServer, -1)->index_, 0U);
  for (const RedisServerType type : {eTempServer, ePersistServer, ePersonalityServer}) {
    const server_pool& pool = client_->getPool(type);
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
  EXPECT_EQ(client_->getDefaultAddr(eTempServer), "");
  host_name = "host.example";
  for (const auto& group : groups) {
    for (const Network& network : group.networks) {
      host_ip = {network[0], network[1], network[2], 9};
      for (const int type : {0, 1, 2, 3}) {
        log_.clear();
        const std::string port = type == 0 ? ":22122" : ":22123";
        EXPECT_EQ(
            client_->getDefaultAddr(static_cast<RedisServerType>(type)),
            group.one.empty() || type == 3 ? "" : group.one + port + "," + group.other + port);
        EXPECT_EQ(log_.count(ERROR, "invalid ip or no redis server on the area."),
                  group.one.empty() ? 1 : 0);
      }
    }
  }
}

TEST_F(Startup, TheConfigurationLiesBesideTheExecutableOrInConf) {
  const std::filesystem::path folder =
      std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const int one_at_a_time = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(one_at_a_time, LOCK_EX), 0);
  const std::filesystem::path beside = folder / "sruvo.conf";
  const std::string in_conf = folder.parent_path() / "conf/sruvo.conf";
  EXPECT_EQ(client_->get_cfg(), in_conf);
  std::filesystem::create_directory(beside);
  EXPECT_EQ(client_->get_cfg(), in_conf);
  std::filesystem::remove(beside);
  std::ofstream(beside).put('\n');
  EXPECT_EQ(client_->get_cfg(), beside);
  std::filesystem::remove(beside);
  close(one_at_a_time);
}

TEST_F(Startup, APoolWithoutAListTakesTheDefaultOfItsKind) {
  host_name = "host.example";
  host_ip = {127, 0, 0, 1};
  init_client(*client_, HostConfig(""));  // whether or not servers listen there
  for (const RedisServerType type : {eTempServer, ePersistServer}) {
    EXPECT_EQ(client_->getPool(type).server_num_, 2U);
    EXPECT_EQ(client_->getPool(type).servers_.at(1).addr_.ip_, "127.0.0.2");
  }
  EXPECT_EQ(log_.count_containing("| addr is empty"), 1);  // the personality pool has none
}

}  // namespace

// Keys, settings and configuration files that no host should have.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "client_test.h"

namespace {

// Long ones, ones that printf would read as formats, and every byte.
std::vector<std::string> hostile_keys() {
  std::vector<std::string> keys{"", std::string(65536, 'k')};
  for (const char* directive : {"%n", "%s%n", "%*d", "%2147483648d", "%99$s", "%", "%%"}) {
    std::string& key = keys.emplace_back();
    while (key.size() < 65536) {
      key += directive;
    }
  }
  for (int byte = 1; byte < 256; ++byte) {
    keys.emplace_back(2, static_cast<char>(byte));
  }
  return keys;
}

class HostileInput : public ClientTest {};

TEST_F(HostileInput, KeysAreStoredWholeAndTheirLogLinesAreBounded) {
  const RedisServer redis;
  const HostConfig config(pools_at(redis.addr(), down_.addr(), ""), "t_auto_eject_server = 0");
  ASSERT_EQ(init_client(*client_, config), RUVO_INIT_PERSIST_POOL_FAILED);
  for (const std::string& key : hostile_keys()) {
    const char* data = nullptr;
    unsigned long len = 0;
    log_.clear();
    ASSERT_EQ(client_->insert_key(key.c_str(), key.data(), key.size(), -1, eTempServer, nullptr),
              RUVO_OK);
    ASSERT_EQ(client_->query_key(key.c_str(), &data, &len, eTempServer, nullptr), RUVO_OK);
    EXPECT_EQ(std::string(data, len), key);
    client_->free_result(data);
    EXPECT_EQ(get(key.c_str(), ePersistServer), RUVO_ERR_FAILED);
    for (const LogCapture::Line& line : log_.take()) {
      EXPECT_LT(line.text.size(), 1024U);
    }
  }
}

TEST_F(HostileInput, SettingsAtAndBeyondTheirLimits) {
  const RedisServer redis;
  const std::string up = redis.addr();
  std::string many = down_.addr();
  while (many.size() < 2000) {
    many += "," + down_.addr();
  }
  const std::string far = "99999999999999999999";
  // clang-format off
  struct { std::string temp; std::string common; std::string server; int started; int called; } const cases[] = {
      {up, "connect_timeout = 2147483647\nsocket_timeout = 2147483647", "", 0, 0},
      {up, "connect_timeout = 2147483648\nsocket_timeout = -2147483648", "", 0, 0},
      {up, "", "p_connect_num = " + far, 0, 0}, {up, "", "p_connect_num = 0", 0, -1},
      {up + "," + down_.addr(), "", "p_server_failure_limit = 2147483648\np_server_retry_timeout = 2147483647", 0, 0},
      {up + "," + down_.addr(), "", "p_server_failure_limit = -1\np_server_retry_timeout = -2147483648", 0, 0},
      {many, "", "", 1, -1}, {many.substr(0, many.rfind(',') + 1) + up, "", "", 0, 0},
      {"127.0.0.1:" + far, "", "", 1, -1}, {"127.0.0.1:%n%s", "", "", 1, -1},
  };
  // clang-format on
  for (const auto& one : cases) {
    SCOPED_TRACE(one.temp + one.common + one.server);
    client_ = std::make_unique<ruvo_redis>();
    const HostConfig config(pools_at(one.temp, up, up) + one.common, one.server);
    EXPECT_EQ(init_client(*client_, config), one.started);
    EXPECT_EQ(client_->insert_key("k", "v", 1, -1, eTempServer, nullptr), one.called);
  }
}

TEST_F(HostileInput, UnusualFiles) {
  const RedisServer redis;
  const TempDir dir;
  const auto start = [](const std::string& path) {
    const QuietConsole quiet;
    ruvo_redis client;
    const int ret = client.init(path.c_str());
    ruvo_cfg.close();
    return ret;
  };
  // One file that serves as both.
  const auto content = [&](const std::string& path) {
    return "\n[redis_cfg]\nredis_cfg_path = " + path + "\n[common]\n" + all_pools_at(redis.addr());
  };
  EXPECT_EQ(start(dir.path("")), RUVO_ERR_NO_REDIS_CONFIG);  // a folder reads as an empty file
  EXPECT_EQ(start("/dev/null"), RUVO_ERR_NO_REDIS_CONFIG);
  EXPECT_EQ(start(dir.path(std::string(5000, 'n'))), RUVO_ERR_CONFIG_FILE);

  const std::string unreadable = dir.write("unreadable", content(dir.path("unreadable")));
  ASSERT_EQ(chmod(unreadable.c_str(), 0), 0);
  const bool is_root = geteuid() == 0;
  ASSERT_EQ(is_root ? seteuid(65534) : 0, 0);  // root reads everything
  EXPECT_EQ(start(unreadable), RUVO_ERR_CONFIG_FILE);
  ASSERT_EQ(is_root ? seteuid(0) : 0, 0);

  const std::string fifo = dir.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  {
    const std::jthread writer([&] { std::ofstream(fifo) << content(fifo); });
    EXPECT_EQ(start(fifo), RUVO_OK);
  }
}

}  // namespace

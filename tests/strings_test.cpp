// String keys, through the exports and against a real Redis.
#include <gtest/gtest.h>
#include <ruvo/ruvo.h>

#include <ctime>

#include "host.h"
#include "quiet_console.h"
#include "redis_server.h"
#include "scripted_server.h"

namespace {

constexpr auto DEBUG = BaseLib::Logger::DEBUG;
constexpr auto INFO = BaseLib::Logger::INFO;
constexpr auto WARN = BaseLib::Logger::WARN;
constexpr auto ERROR = BaseLib::Logger::ERROR;

// A host that is initialised on the given server.
class Session {
 public:
  explicit Session(const std::string& addrs) : config_(all_pools_at(addrs)) {
    const QuietConsole quiet;
    EXPECT_EQ(RUVO_Init(config_.path()), RUVO_OK);
  }
  ~Session() { RUVO_Fini(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

 private:
  HostConfig config_;
};

int insert(const char* key, const std::string& value, int time_out = -1, int pool = eTempServer) {
  return RUVO_InsertKey(key, value.data(), value.size(), time_out, pool, "ignored");
}

// The value, or the result code as text.
std::string query(const char* key, int pool = eTempServer) {
  const char* data = nullptr;
  unsigned long len = 0;
  const int ret = RUVO_QueryKey(key, &data, &len, pool, nullptr);
  if (ret != RUVO_OK) {
    EXPECT_EQ(data, nullptr);
    return std::to_string(ret);
  }
  EXPECT_NE(data, nullptr);
  std::string value(data, len);
  EXPECT_EQ(RUVO_FreeResult(data), RUVO_OK);
  return value;
}

class Strings : public testing::Test {
 protected:
  // Seconds that a key has to live: -1 for ever, -2 when it is not there.
  long ttl(const std::string& key) {
    const std::string command =
        "redis-cli -p " + std::to_string(redis_.port()) + " ttl '" + key + "'";
    FILE* pipe = popen(command.c_str(), "r");
    long seconds = 0;
    EXPECT_EQ(fscanf(pipe, "%ld", &seconds), 1);
    pclose(pipe);
    return seconds;
  }

  RedisServer redis_;
  Session session_{redis_.addr()};
  LogCapture log_;
};

TEST_F(Strings, StoreAndFetchAnyBytes) {
  std::string every_byte;
  for (int byte = 0; byte < 256; ++byte) {
    every_byte += static_cast<char>(byte);
  }
  for (const std::string& value : {std::string("v"), std::string(), every_byte,
                                   std::string(100000, '\0'), std::string(64U << 20U, '\xFF')}) {
    EXPECT_EQ(insert("k", value), RUVO_OK);
    EXPECT_TRUE(query("k") == value) << value.size();
  }
  EXPECT_EQ(insert("", "empty key"), RUVO_OK);
  EXPECT_EQ(query(""), "empty key");
  EXPECT_EQ(insert("key with blanks %s", "x", -1, 77), RUVO_OK);
  EXPECT_EQ(query("key with blanks %s", ePersonalityServer), "x");
  EXPECT_EQ(
      log_.count(DEBUG, "ruvo_redis::insert_key | key key with blanks %s successfully inserted."),
      1);
  EXPECT_EQ(log_.count(DEBUG, "ruvo_redis::query_key | querying key k succeeded."), 5);
}

TEST_F(Strings, AbsentKeyIsToldAtInfo) {
  EXPECT_EQ(query("none"), "10402");
  EXPECT_EQ(log_.count(INFO, "ruvo_redis::query_key | do_exec_command failed, ret:10402"), 1);
}

TEST_F(Strings, TimeOuts) {
  EXPECT_EQ(insert("k", "v", 100), RUVO_OK);
  EXPECT_NEAR(static_cast<double>(ttl("k")), 100, 2);
  EXPECT_EQ(RUVO_ExpireKey("k", 4000000000U, eTempServer, nullptr), RUVO_OK);
  EXPECT_NEAR(static_cast<double>(ttl("k")), 4000000000.0, 2);
  EXPECT_EQ(RUVO_PersistKey("k", eTempServer, nullptr), RUVO_OK);
  EXPECT_EQ(ttl("k"), -1);
  EXPECT_EQ(RUVO_ExpireKey("k", 0, eTempServer, nullptr), RUVO_OK);
  EXPECT_EQ(ttl("k"), -2);
  for (const int refused : {0, -2, -100}) {
    EXPECT_EQ(insert("k", "v", refused), RUVO_ERR_FAILED);
  }
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::insert_key | do_exec_command failed, ret:-1"), 3);
}

TEST_F(Strings, AppendDeleteExists) {
  EXPECT_EQ(RUVO_ExistsKey("k", eTempServer, nullptr), RUVO_ABSENT);
  EXPECT_EQ(RUVO_AppendKey("k", "a\0b", 3, eTempServer, nullptr), RUVO_OK);
  EXPECT_EQ(RUVO_AppendKey("k", "c", 1, eTempServer, nullptr), RUVO_OK);
  EXPECT_EQ(query("k"), std::string("a\0bc", 4));
  EXPECT_EQ(RUVO_ExistsKey("k", eTempServer, nullptr), RUVO_OK);
  EXPECT_EQ(RUVO_DeleteKey("k", eTempServer, nullptr), RUVO_OK);
  EXPECT_EQ(RUVO_ExistsKey("k", eTempServer, nullptr), RUVO_ABSENT);
  EXPECT_EQ(RUVO_DeleteKey("k", eTempServer, nullptr), RUVO_OK);
  EXPECT_EQ(RUVO_ExpireKey("k", 9, eTempServer, nullptr), RUVO_OK);
  EXPECT_EQ(RUVO_PersistKey("k", eTempServer, nullptr), RUVO_OK);
  for (const char* text :
       {"ruvo_redis::append_key | APPEND  k successfully.",
        "ruvo_redis::exists_key | key:k not exist.", "ruvo_redis::exists_key | key:k is exist.",
        "ruvo_redis::delete_key | DEL  k successfully.",
        "ruvo_redis::expire_key | EXPIRE  k 9 successfully.",
        "ruvo_redis::persist_key | PERSIST  k successfully."}) {
    EXPECT_GE(log_.count(DEBUG, text), 1) << text;
  }
}

TEST_F(Strings, ACounterLivesUntilMidnight) {
  const auto to_midnight = [] {
    const std::time_t now = std::time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    return 86400.0 - (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec);
  };
  const auto increase = [](const char* key) {
    long long value = -5;
    const int ret = RUVO_IncreaseKey(key, &value, eTempServer, nullptr);
    return ret == RUVO_OK ? value : ret * 1000LL + value;
  };
  EXPECT_EQ(increase("n"), 1);
  EXPECT_NEAR(static_cast<double>(ttl("n")), to_midnight(), 2);
  EXPECT_EQ(
      log_.count(DEBUG,
                 "ruvo_redis::increase_key | key n successfully increased, current value is 1."),
      1);
  EXPECT_EQ(RUVO_ExpireKey("n", 7, eTempServer, nullptr), RUVO_OK);
  EXPECT_EQ(increase("n"), 2);
  EXPECT_LE(ttl("n"), 7);
  insert("n", "0");
  EXPECT_EQ(increase("n"), 1);
  EXPECT_NEAR(static_cast<double>(ttl("n")), to_midnight(), 2);
  EXPECT_EQ(RUVO_IncreaseKey("n", nullptr, eTempServer, nullptr), RUVO_OK);
  insert("n", "no number");
  EXPECT_EQ(increase("n"), -1005);  // -1, and the value is left alone
  EXPECT_EQ(log_.count(ERROR, "exists_key::increase_key | do_exec_command failed, ret:-1"), 1);
}

TEST_F(Strings, NullArgumentsAreRefusedByName) {
  const char* data = nullptr;
  unsigned long len = 0;
  struct {
    const char* line;
    int result;
  } const cases[] = {
      {"insert_key | invalid param value : null pointer.",
       RUVO_InsertKey(nullptr, "v", 1, -1, 1, nullptr)},
      {"insert_key | invalid param value : null pointer.",
       RUVO_InsertKey("k", nullptr, 1, -1, 1, nullptr)},
      {"append_key | invalid param value : null pointer.",
       RUVO_AppendKey("k", nullptr, 1, 1, nullptr)},
      {"query_key | invalid param value : null pointer.",
       RUVO_QueryKey("k", nullptr, &len, 1, nullptr)},
      {"query_key | invalid param value : null pointer.",
       RUVO_QueryKey("k", &data, nullptr, 1, nullptr)},
      {"increase_key | key is NULL", RUVO_IncreaseKey(nullptr, nullptr, 1, nullptr)},
      {"exists_key | key is NULL", RUVO_ExistsKey(nullptr, 1, nullptr)},
      {"delete_key | key is NULL", RUVO_DeleteKey(nullptr, 1, nullptr)},
      {"expire_key | key is NULL", RUVO_ExpireKey(nullptr, 1, 1, nullptr)},
      {"persist_key | key is NULL", RUVO_PersistKey(nullptr, 1, nullptr)},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(one.result, RUVO_ERR_NULL_ARGUMENT) << one.line;
    EXPECT_GE(log_.count(ERROR, std::string("ruvo_redis::") + one.line), 1) << one.line;
  }
  log_.clear();
  EXPECT_EQ(RUVO_FreeResult(nullptr), RUVO_OK);
  EXPECT_TRUE(log_.take().empty());
}

TEST(StringsWithoutStart, AreRefusedByName) {
  const LogCapture log;
  long long value = 0;
  EXPECT_EQ(insert("k", "v"), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(RUVO_AppendKey("k", "v", 1, 1, nullptr), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(RUVO_IncreaseKey("k", &value, 1, nullptr), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(query("k"), "10111");
  EXPECT_EQ(RUVO_ExistsKey("k", 1, nullptr), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(RUVO_DeleteKey("k", 1, nullptr), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(RUVO_ExpireKey("k", 1, 1, nullptr), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(RUVO_PersistKey("k", 1, nullptr), RUVO_ERR_NOT_INITIALIZED);
  EXPECT_EQ(RUVO_FreeResult("k"), RUVO_ERR_NOT_INITIALIZED);
  for (const char* name : {"insert_key", "append_key", "increase_key", "query_key", "exists_key",
                           "delete_key", "expire_key", "persist_key", "free_result"}) {
    EXPECT_EQ(log.count(ERROR, std::string("ruvo_redis::") + name + " | redis is not initialized"),
              1);
  }
}

TEST(StringsFromAnOddServer, UnexpectedRepliesAreWarnedOf) {
  struct {
    const char* reply;
    const char* line;
    int increase, query, exists;
  } const cases[] = {
      {"+odd\r\n", "| key:k, unexpected reply type:5", 0, 0, -1},
      {"*0\r\n", "| key:k, unexpected reply type:2", 0, 0, -1},
      {":2\r\n", "ruvo_redis::exists_key | reply->interger:2", 0, 0, -1},
  };
  for (const auto& one : cases) {
    const ScriptedServer server{std::string(one.reply)};
    const Session session(server.addr());
    const LogCapture log;
    long long value = 2;
    const char* data = "untouched";
    unsigned long len = 9;
    EXPECT_EQ(RUVO_IncreaseKey("k", &value, 1, nullptr), one.increase);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(RUVO_QueryKey("k", &data, &len, 1, nullptr), one.query);
    EXPECT_STREQ(data, "untouched");
    EXPECT_EQ(len, 9U);
    EXPECT_EQ(RUVO_ExistsKey("k", 1, nullptr), one.exists);
    EXPECT_GE(log.count_containing(one.line), 1) << one.line;
    EXPECT_EQ(log.count(WARN, "ruvo_redis::query_key | key:k, unexpected reply type:3"),
              one.reply[0] == ':' ? 1 : 0);
  }
}

}  // namespace

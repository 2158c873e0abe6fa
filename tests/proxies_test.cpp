// Every operation through two proxies before two shards: each result and each value, on keys of
// both shards, and again after one of the proxies has died.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <ruvo/ruvo.h>

#include <algorithm>
#include <cstdarg>

#include "host.h"
#include "servers.h"

namespace {

constexpr int key_count = 60;
constexpr int raw_tries = 10;

// What a call gave, as one text: the result code, then each value.
std::string told(int result) { return std::to_string(result); }
std::string told(int result, long long value) { return told(result) + ' ' + std::to_string(value); }
std::string told(int result, std::vector<std::string> values) {
  std::sort(values.begin(), values.end());  // a set has no order; the lists here are sorted
  std::string all = told(result);
  for (const std::string& value : values) {
    all += ' ' + value;
  }
  return all;
}
std::string told_and_free(int result, const char* data, unsigned long len) {
  if (result != RUVO_OK) {
    return told(result);
  }
  std::string all = told(result) + ' ' + std::string(data, len);
  RUVO_FreeResult(data);
  return all;
}
std::string told_and_free(void* raw_reply) {
  auto* reply = static_cast<redisReply*>(raw_reply);
  std::string all = std::to_string(reply->type) + ' ' + (reply->str != nullptr ? reply->str : "");
  if (reply->type == REDIS_REPLY_INTEGER) {
    all += std::to_string(reply->integer);
  }
  RUVO_FreeReplyObject(reply);
  return all;
}

// A raw command whose server failed may come back without a reply; it is then asked again.
template <typename Ask>
std::string told_raw(Ask ask) {
  void* reply = nullptr;
  for (int tries = 0; reply == nullptr && tries < raw_tries; ++tries) {
    reply = ask();
  }
  return reply != nullptr ? told_and_free(reply) : "no reply";
}

void* ask_with_list(int pool, const char* format, ...) {
  va_list args;
  va_start(args, format);
  void* reply = RUVO_ExecRedisvCmd(pool, format, args);
  va_end(args);
  return reply;
}

// All operations one after the other on one key; each row builds on the rows before.
void run_every_operation(const std::string& name, int pool) {
  const char* k = name.c_str();
  const char* data = nullptr;
  unsigned long len = 0;
  long long n = 0;
  int ret = 0;
  std::string text;
  std::vector<std::string> texts;
  // The braces of an initialiser list are run in order.
  // clang-format off
  const struct { const char* what; std::string got; std::string expected; } rows[] = {
      {"insert", told(RUVO_InsertKey(k, "ab", 2, 100, pool, nullptr)), "0"},
      {"append", told(RUVO_AppendKey(k, "cd", 2, pool, nullptr)), "0"},
      {"query", (ret = RUVO_QueryKey(k, &data, &len, pool, nullptr), told_and_free(ret, data, len)), "0 abcd"},
      {"raw", told_raw([&] { return RUVO_ExecRedisCmd(pool, "STRLEN %s", k); }), "3 4"},
      {"persist", told(RUVO_PersistKey(k, pool, nullptr)), "0"},
      {"raw with a list", told_raw([&] { return ask_with_list(pool, "TTL %s", k); }), "3 -1"},
      {"exists", told(RUVO_ExistsKey(k, pool, nullptr)), "0"},
      {"expire", told(RUVO_ExpireKey(k, 0, pool, nullptr)), "0"},
      {"exists no more", told(RUVO_ExistsKey(k, pool, nullptr)), "1"},
      {"query nothing", told(RUVO_QueryKey(k, &data, &len, pool, nullptr)), "10402"},
      {"increase", (ret = RUVO_IncreaseKey(k, &n, pool, nullptr), told(ret, n)), "0 1"},
      {"increase again", (ret = RUVO_IncreaseKey(k, &n, pool, nullptr), told(ret, n)), "0 2"},
      {"delete", told(RUVO_DeleteKey(k, pool, nullptr)), "0"},
      {"hash set", told(RUVO_HashSet(k, "f", 1, "v", 1, 100, pool, nullptr)), "0"},
      {"hash get", (ret = RUVO_HashGet(k, "f", 1, &data, &len, pool, nullptr), told_and_free(ret, data, len)), "0 v"},
      {"hash increment", (ret = RUVO_HashIncrBy(k, "n", 1, -3, &n, pool, nullptr), told(ret, n)), "0 -3"},
      {"hash number", (ret = RUVO_HashFieldsNum(k, &n, pool, nullptr), told(ret, n)), "0 2"},
      {"hash delete", told(RUVO_HashDelField(k, "f", 1, pool, nullptr)), "0"},
      {"hash exists", told(RUVO_HashFieldExist(k, "n", 1, pool, nullptr)), "0"},
      {"hash exists no more", told(RUVO_HashFieldExist(k, "f", 1, pool, nullptr)), "1"},
      {"wrong type", told(RUVO_LPush(k, "v", 1, 0, &n, pool, nullptr)), "-1"},
      {"delete hash", told(RUVO_DeleteKey(k, pool, nullptr)), "0"},
      {"push", (ret = RUVO_LPush(k, "c", 1, 0, &n, pool, nullptr), told(ret, n)), "0 1"},
      {"push again", (ret = RUVO_LPush(k, "b", 1, 100, &n, pool, nullptr), told(ret, n)), "0 2"},
      {"push a third", (ret = RUVO_LPush(k, "a", 1, 0, &n, pool, nullptr), told(ret, n)), "0 3"},
      {"range", (ret = RUVO_LRange(k, 0, -1, texts, pool, nullptr), told(ret, texts)), "0 a b c"},
      {"list remove", told(RUVO_LRem(k, 0, "b", pool, nullptr)), "0"},
      {"list remove nothing", told(RUVO_LRem(k, 0, "b", pool, nullptr)), "-2"},
      {"pop", (ret = RUVO_RPop(k, text, pool, nullptr), told(ret, {text})), "0 c"},
      {"trim", told(RUVO_LTrim(k, 1, -1, pool, nullptr)), "0"},
      {"pop nothing", told(RUVO_RPop(k, text, pool, nullptr)), "10402"},
      {"add", told(RUVO_SAdd(k, "x", 1, pool, nullptr)), "0"},
      {"add again", told(RUVO_SAdd(k, "x", 1, pool, nullptr)), "-2"},
      {"add another", told(RUVO_SAdd(k, "y", 1, pool, nullptr)), "0"},
      {"members", (ret = RUVO_SMembers(k, texts, pool, nullptr), told(ret, texts)), "0 x y"},
      {"set remove", told(RUVO_SRem(k, "x", 1, pool, nullptr)), "0"},
      {"is member", told(RUVO_SIsmember(k, "y", 1, pool, nullptr)), "0"},
      {"is no member", told(RUVO_SIsmember(k, "x", 1, pool, nullptr)), "-2"},
      {"leave a value behind", told(RUVO_InsertKey(k, "v", 1, -1, pool, nullptr)), "0"},
  };
  // clang-format on
  for (const auto& row : rows) {
    EXPECT_EQ(row.got, row.expected) << row.what << ' ' << name;
  }
}

TEST(OnProxies, EveryOperationWorksAndOutlivesAProxy) {
  const LogCapture log(BaseLib::Logger::WARN);
  const RedisServer first;
  const RedisServer second;
  const std::vector<std::string> shards{first.addr(), second.addr()};
  std::array<Proxy, 2> proxies{Proxy(shards), Proxy(shards)};
  const HostConfig config(all_pools_at(proxies[0].addr() + ',' + proxies[1].addr()),
                          "p_connect_num = 2");
  {
    const QuietConsole quiet;
    ASSERT_EQ(RUVO_Init(config.path()), RUVO_OK);
  }
  const auto run_on_all_keys = [&] {
    for (int i = 0; i < key_count; ++i) {
      run_every_operation("key" + std::to_string(i), 1 + i % 3);
    }
    const int on_first = std::stoi(first.ask("dbsize"));
    const int on_second = std::stoi(second.ask("dbsize"));
    EXPECT_GT(std::min(on_first, on_second), 0);
    EXPECT_EQ(on_first + on_second, key_count);  // the proxies agree where each key is
  };
  run_on_all_keys();
  EXPECT_EQ(log.count_containing("reset connection"), 0);
  proxies[0].kill();
  run_on_all_keys();
  EXPECT_GT(log.count_containing("null reply and reset connection"), 0);
  RUVO_Fini();
}

}  // namespace

// The data operations and raw commands, through the exports.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <ruvo/ruvo.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <mutex>
#include <regex>
#include <sstream>

#include "every_operation.h"
#include "host.h"
#include "servers.h"

namespace {

constexpr auto DEBUG = BaseLib::Logger::DEBUG;
constexpr auto INFO = BaseLib::Logger::INFO;
constexpr auto WARN = BaseLib::Logger::WARN;
constexpr auto ERROR = BaseLib::Logger::ERROR;
constexpr int T = eTempServer;

// A host that is initialised with these lines for section `common`.
class Session : NoCopy {
 public:
  explicit Session(const std::string& common) { EXPECT_EQ(start(HostConfig(common)), RUVO_OK); }
  ~Session() { RUVO_Fini(); }
};

// The results of the calls below.
long long number = 0;
const char* data = nullptr;
unsigned long len = 0;
std::string text;
std::vector<std::string> texts;

using Call = std::function<int()>;

// ---- The commands sent, and the result of each reply: against a server with scripted answers ----

// Does the line match? Three dots at the end stand for any text.
bool matches(const LogCapture::Line& expected, const LogCapture::Line& line) {
  const bool names_class = expected.text.find("::") != std::string::npos;
  const std::string whole = (names_class ? "" : "ruvo_redis::") + expected.text;
  return line.level == expected.level &&
         (whole.ends_with("...") ? line.text.starts_with(whole.substr(0, whole.size() - 3))
                                 : line.text == whole);
}

TEST(Operations, SendTheirTemplatesAndReadTheReplies) {
  // clang-format off
  // Fields and values end with a zero byte.
  const Call insert = [] { return RUVO_InsertKey("k", "v", 2, -1, T, "ignored"); };
  const Call insert_timed = [] { return RUVO_InsertKey("k", "v", 2, 0, T, nullptr); };
  const Call insert_gone = [] { return RUVO_InsertKey("k", "v", 2, -2, T, nullptr); };
  const Call append = [] { return RUVO_AppendKey("k", "v", 2, T, nullptr); };
  const Call increase = [] { return RUVO_IncreaseKey("k", &number, T, nullptr); };
  const Call query = [] { return RUVO_QueryKey("k", &data, &len, T, nullptr); };
  const Call exists = [] { return RUVO_ExistsKey("k", T, nullptr); };
  const Call erase = [] { return RUVO_DeleteKey("k", T, nullptr); };
  const Call expire = [] { return RUVO_ExpireKey("k", 4000000000U, T, nullptr); };
  const Call persist = [] { return RUVO_PersistKey("k", T, nullptr); };
  const Call hset = [] { return RUVO_HashSet("k", "f", 2, "v", 2, -1, T, nullptr); };
  const Call hset_timed = [] { return RUVO_HashSet("k", "f", 2, "v", 2, 0, T, nullptr); };
  const Call hset_gone = [] { return RUVO_HashSet("k", "f", 2, "v", 2, -2, T, nullptr); };
  const Call hget = [] { return RUVO_HashGet("k", "f", 2, &data, &len, T, nullptr); };
  const Call hexists = [] { return RUVO_HashFieldExist("k", "f", 2, T, nullptr); };
  const Call hincr = [] { return RUVO_HashIncrBy("k", "f", 2, -5000000000, &number, T, nullptr); };
  const Call hlen = [] { return RUVO_HashFieldsNum("k", &number, T, nullptr); };
  const Call hdel = [] { return RUVO_HashDelField("k", "f", 2, T, nullptr); };
  const Call lrem = [] { return RUVO_LRem("k", -1, "v", T, nullptr); };
  const Call push = [] { return RUVO_LPush("k", "v", 2, 0, &number, T, nullptr); };
  const Call push_timed = [] { return RUVO_LPush("k", "v", 2, 1, &number, T, nullptr); };
  const Call pop = [] { return RUVO_RPop("k", text, T, nullptr); };
  const Call range = [] { return RUVO_LRange("k", 0, -1, texts, T, nullptr); };
  const Call trim = [] { return RUVO_LTrim("k", 1, -2, T, nullptr); };
  const Call sadd = [] { return RUVO_SAdd("k", "v", 2, T, nullptr); };
  const Call srem = [] { return RUVO_SRem("k", "v", 2, T, nullptr); };
  const Call sismember = [] { return RUVO_SIsmember("k", "v", 2, T, nullptr); };
  const Call smembers = [] { return RUVO_SMembers("k", texts, T, nullptr); };
  const std::string some = "*6\r\n$1\r\na\r\n$0\r\n\r\n:1\r\n+s\r\n$-1\r\n$2\r\nb\n\r\n";
  struct { Call call; std::string reply; int result; std::string sent; LogCapture::Line line; } const cases[] = {
      {insert, "+OK", 0, "SET k v.", {DEBUG, "insert_key | key k successfully inserted."}},
      {insert, "-no", -1, "SET k v.", {ERROR, "insert_key | do_exec_command failed, ret:-1"}},
      {insert_timed, "+OK", 0, "SETEX k 0 v.", {INFO, "insert_key | do_exec_command success!"}},
      {insert_gone, "+OK", 0, "SETEX k -2 v.", {INFO, "insert_key | do_exec_command success!"}},
      {append, ":1", 0, "APPEND k v.", {DEBUG, "append_key | APPEND  k successfully."}},
      {increase, ":7", 0, "INCR k", {DEBUG, "increase_key | GET  k successfully."}},
      {increase, ":8", 0, "INCR k", {DEBUG, "increase_key | key k successfully increased, current value is 8."}},
      {increase, "-no", -1, "INCR k", {ERROR, "exists_key::increase_key | do_exec_command failed, ret:-1"}},
      {increase, "+x", 0, "INCR k", {WARN, "increase_key | key:k, unexpected reply type:5"}},
      {query, "$1\r\nv", 0, "GET k", {DEBUG, "query_key | querying key k succeeded."}},
      {query, ":1", 0, "GET k", {WARN, "query_key | key:k, unexpected reply type:3"}},
      {query, "$-1", 10402, "GET k", {INFO, "query_key | do_exec_command failed, ret:10402"}},
      {query, "-no", -1, "GET k", {ERROR, "query_key | do_exec_command failed, ret:-1"}},
      {exists, ":1", 0, "EXISTS k", {DEBUG, "exists_key | key:k is exist."}},
      {exists, ":0", 1, "EXISTS k", {DEBUG, "exists_key | key:k not exist."}},
      {exists, ":2", -1, "EXISTS k", {ERROR, "exists_key | reply->interger:2"}},
      {exists, "-no", -1, "EXISTS k", {ERROR, "exists_key::expire_key | do_exec_command failed, ret:-1"}},
      {exists, "*0", -1, "EXISTS k", {WARN, "exists_key | key:k, unexpected reply type:2"}},
      {erase, ":0", 0, "DEL k", {DEBUG, "delete_key | DEL  k successfully."}},
      {expire, ":0", 0, "EXPIRE k 4000000000", {DEBUG, "expire_key | EXPIRE  k 4000000000 successfully."}},
      {expire, "-no", -1, "EXPIRE k 4000000000", {ERROR, "expire_key | do_exec_command failed, ret:-1"}},
      {persist, ":0", 0, "PERSIST k", {DEBUG, "persist_key | PERSIST  k successfully."}},
      {hset, ":1", 0, "HSET k f. v.", {DEBUG, "hash_set | key k, field:f, value:v time_out:-1, successfully inserted."}},
      {hset, "-no", -1, "HSET k f. v.", {ERROR, "hash_set | do_exec_command failed, ret:-1"}},
      {hset_timed, ":1", 0, "HSET k f. v. EXPIRE k 0", {INFO, "hash_set | do_exec_command success!"}},
      {hset_gone, ":1", 0, "HSET k f. v. EXPIRE k -2", {INFO, "hash_set | do_exec_command success!"}},
      {hget, "$1\r\nv", 0, "HGET k f.", {DEBUG, "hash_get | get key k, field:f, value:..."}},
      {hget, "$1\r\nv", 0, "HGET k f.", {INFO, "hash_get | do_exec_command success!"}},
      {hget, ":1", -1, "HGET k f.", {ERROR, "hash_get | unexpected redis type:3"}},
      {hget, "$-1", 10402, "HGET k f.", {ERROR, "hash_get | do_exec_command failed, ret:10402"}},
      {hexists, ":1", 0, "HEXISTS k f.", {INFO, "hash_field_exist | field exist"}},
      {hexists, ":0", 1, "HEXISTS k f.", {INFO, "hash_field_exist | field not exist"}},
      {hexists, ":2", -1, "HEXISTS k f.", {ERROR, "hash_field_exist | unknown reply value:2"}},
      {hexists, "+x", -1, "HEXISTS k f.", {ERROR, "hash_field_exist | unexpected redis type:5"}},
      {hincr, ":4", 0, "HINCRBY k f. -5000000000", {DEBUG, "hash_incr_by | HINCRBY key k, field:f success, after incr, value is 4"}},
      {hincr, "+x", -1, "HINCRBY k f. -5000000000", {ERROR, "hash_incr_by | unexpected redis type:5"}},
      {hlen, ":0", 0, "HLEN k", {DEBUG, "hash_fields_num | key:k not exist."}},
      {hlen, ":5", 0, "HLEN k", {DEBUG, "hash_fields_num | get key:k fields num successfully, num:" + std::to_string(reinterpret_cast<std::intptr_t>(&number)) + "."}},
      {hlen, "*0", -1, "HLEN k", {ERROR, "hash_fields_num | unexpected redis type:2"}},
      {hdel, ":0", 0, "HDEL k f.", {INFO, "hash_del_field | do_exec_command success!"}},
      {lrem, ":2", 0, "LREM k -1 v", {DEBUG, "list_rem | lrem key:k success, num:2."}},
      {lrem, ":0", -2, "LREM k -1 v", {DEBUG, "list_rem | key:k not exist."}},
      {lrem, "+x", -1, "LREM k -1 v", {ERROR, "list_rem | unexpected redis type:5"}},
      {push, ":3", 0, "LPUSH k v.", {DEBUG, "list_push | list_push key:k, value:v success, count is 3"}},
      {push, "+x", -1, "LPUSH k v.", {ERROR, "list_push | unexpected redis type:5"}},
      {push_timed, "+x", 0, "LPUSH k v. EXPIRE k 1", {DEBUG, "expire_key | EXPIRE  k 1 successfully."}},
      {push_timed, "-no", -1, "LPUSH k v.", {ERROR, "list_push | do_exec_command failed, ret:-1"}},
      {pop, "$1\r\nv", 0, "RPOP k", {DEBUG, "list_rpop | key:k, value:v."}},
      {pop, "$0\r\n", -2, "RPOP k", {DEBUG, "list_rpop | failed, key:k"}},
      {pop, "$-1", 10402, "RPOP k", {ERROR, "list_rpop | do_exec_command failed, ret:10402"}},
      {pop, ":1", -1, "RPOP k", {ERROR, "list_rpop | unexpected redis type:3"}},
      {range, some, 0, "LRANGE k 0 -1", {DEBUG, "list_range | success, key:k"}},
      {range, "*0", -2, "LRANGE k 0 -1", {DEBUG, "list_range | failed, key:k"}},
      {range, ":1", -1, "LRANGE k 0 -1", {ERROR, "list_range | unexpected redis type:3"}},
      {trim, "+OK", 0, "LTRIM k 1 -2", {DEBUG, "list_trim | success, key:k"}},
      {trim, "+Odd", 0, "LTRIM k 1 -2", {INFO, "list_trim | do_exec_command success!"}},
      {trim, "+O", 0, "LTRIM k 1 -2", {DEBUG, "list_trim | success, key:k"}},
      {trim, "+", -2, "LTRIM k 1 -2", {DEBUG, "list_trim | failed, key:k"}},
      {trim, ":1", -1, "LTRIM k 1 -2", {ERROR, "list_trim | unexpected redis type:3"}},
      {sadd, ":1", 0, "SADD k v.", {DEBUG, "set_add | set_add key:k, value:v success, count is 1"}},
      {sadd, ":0", -2, "SADD k v.", {DEBUG, "set_add | value:v exists in key:k"}},
      {sadd, "+x", -1, "SADD k v.", {ERROR, "set_add | unexpected redis type:5"}},
      {srem, ":0", 0, "SREM k v.", {DEBUG, "set_rem | set_rem key:k, value:v success, count is 0"}},
      {srem, "+x", -1, "SREM k v.", {ERROR, "set_rem | unexpected redis type:5"}},
      {sismember, ":1", 0, "SISMEMBER k v.", {DEBUG, "set_ismember | value:v is a member of key:k"}},
      {sismember, ":2", -2, "SISMEMBER k v.", {DEBUG, "set_ismember | value:v is not a member of key:k"}},
      {sismember, "+x", -1, "SISMEMBER k v.", {ERROR, "set_ismember | unexpected redis type:5"}},
      {smembers, some, 0, "SMEMBERS k", {DEBUG, "set_members | success, key:k"}},
      {smembers, "*0", -2, "SMEMBERS k", {DEBUG, "set_members | failed, key:k"}},
      {smembers, ":1", -1, "SMEMBERS k", {ERROR, "set_members | unexpected redis type:3"}},
  };
  // clang-format on
  const std::regex storing("^(INCR|HINCRBY|HLEN|LPUSH) ");  // commands with a number as result
  std::mutex mutex;
  std::string reply;  // both guarded by mutex
  std::string sent;
  const ScriptedServer server([&](const std::vector<std::string>& words) {
    const std::scoped_lock lock(mutex);
    for (const std::string& word : words) {
      sent += (sent.empty() ? "" : " ") + word;
      std::replace(sent.begin(), sent.end(), '\0', '.');
    }
    return reply + "\r\n";
  });
  const Session session(all_pools_at(server.addr()));
  LogCapture log;
  for (const auto& one : cases) {
    {
      const std::scoped_lock lock(mutex);
      reply = one.reply == some ? some.substr(0, some.size() - 2) : one.reply;
      sent.clear();
    }
    log.clear();
    number = -9;
    data = nullptr;
    texts = {"old"};
    text = "old";
    EXPECT_EQ(one.call(), one.result) << one.line;
    const std::vector<LogCapture::Line> lines = log.take();
    const auto count_lines_with = [&lines](const std::string& part) {
      return std::count_if(lines.begin(), lines.end(), [&part](const LogCapture::Line& line) {
        return line.text.find(part) != std::string::npos;
      });
    };
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [&one](const LogCapture::Line& line) { return matches(one.line, line); }),
        1)
        << one.line;
    EXPECT_EQ(count_lines_with("list_trim | success"),
              one.sent[1] == 'T' && one.reply.starts_with("+O") && one.reply != "+Odd");
    EXPECT_EQ(count_lines_with("not exist"), one.line.text.find("not exist") != std::string::npos)
        << one.line;
    if (one.reply[0] == '-') {
      EXPECT_EQ(count_lines_with("succe"), 0) << one.line;
    }
    const std::scoped_lock lock(mutex);
    EXPECT_EQ(sent, one.sent);
    if (data != nullptr) {
      EXPECT_EQ(std::string(data, len), "v");
      EXPECT_EQ(RUVO_FreeResult(data), 0);
      std::stringstream freed;
      freed << "ruvo_redis::free_result | free data " << static_cast<const void*>(data) << ".";
      EXPECT_EQ(log.count(DEBUG, freed.str()), 1);
    }
    const bool stores = one.reply[0] == ':' && std::regex_search(one.sent, storing);
    EXPECT_EQ(number, stores ? std::stoll(one.reply.substr(1)) : -9) << one.line;
    if (one.sent.starts_with("RPOP")) {
      EXPECT_EQ(text, one.result == 0 ? "v" : "");
    }
    if (one.sent.starts_with("LRANGE") || one.sent.starts_with("SMEMBERS")) {
      EXPECT_EQ(texts,
                one.result == 0 ? (std::vector<std::string>{"a", "b\n"}) : decltype(texts){});
    }
  }
}

// ---- Calls that are refused before anything is sent ----

TEST(Operations, RefuseNullPointersAndTooLongArguments) {
  const char* none = nullptr;
  const std::size_t L = (std::size_t{512} << 20U) + 1;
  const std::string null_value = "invalid param value : null pointer.";
  const std::string no_field = "key or field is NULL";
  const std::string no_value = "key or value is NULL";
  const std::string no_pair = "key or field or value is NULL";
  const std::string too_long = "too long for redis: 536870913 bytes";
  // clang-format off
  const struct { std::string name; std::string text; Call call; } cases[] = {
      {"insert_key", null_value, [=] { return RUVO_InsertKey("k", none, 1, 5, T, none); }},
      {"append_key", null_value, [=] { return RUVO_AppendKey("k", none, 1, T, none); }},
      {"query_key", null_value, [=] { return RUVO_QueryKey("k", nullptr, &len, T, none); }},
      {"query_key", null_value, [=] { return RUVO_QueryKey("k", &data, nullptr, T, none); }},
      {"hash_set", no_pair, [=] { return RUVO_HashSet("k", none, 1, "v", 1, 5, T, none); }},
      {"hash_set", no_pair, [=] { return RUVO_HashSet("k", "f", 1, none, 1, 5, T, none); }},
      {"hash_get", no_field, [=] { return RUVO_HashGet("k", none, 1, &data, &len, T, none); }},
      {"hash_field_exist", no_field, [=] { return RUVO_HashFieldExist("k", none, 1, T, none); }},
      {"hash_incr_by", no_field, [=] { return RUVO_HashIncrBy("k", none, 1, 1, &number, T, none); }},
      {"hash_del_field", no_field, [=] { return RUVO_HashDelField("k", none, 1, T, none); }},
      {"list_rem", no_value, [=] { return RUVO_LRem("k", 0, none, T, none); }},
      {"list_rem", "key is NULL", [=] { return RUVO_LRem(none, 0, "v", T, none); }},
      {"list_push", no_value, [=] { return RUVO_LPush("k", none, 1, 5, &number, T, none); }},
      {"set_add", no_value, [=] { return RUVO_SAdd("k", none, 1, T, none); }},
      {"set_rem", no_value, [=] { return RUVO_SRem("k", none, 1, T, none); }},
      {"set_ismember", no_value, [=] { return RUVO_SIsmember("k", none, 1, T, none); }},
      {"insert_key", too_long, [=] { return RUVO_InsertKey("k", "v", L, -1, T, none); }},
      {"insert_key", too_long, [=] { return RUVO_InsertKey("k", "v", L, 5, T, none); }},
      {"append_key", too_long, [=] { return RUVO_AppendKey("k", "v", L, T, none); }},
      {"hash_set", too_long, [=] { return RUVO_HashSet("k", "f", L, "v", 1, 5, T, none); }},
      {"hash_set", too_long, [=] { return RUVO_HashSet("k", "f", 1, "v", L, 5, T, none); }},
      {"hash_get", too_long, [=] { return RUVO_HashGet("k", "f", L, &data, &len, T, none); }},
      {"hash_field_exist", too_long, [=] { return RUVO_HashFieldExist("k", "f", L, T, none); }},
      {"hash_incr_by", too_long, [=] { return RUVO_HashIncrBy("k", "f", L, 1, &number, T, none); }},
      {"hash_del_field", too_long, [=] { return RUVO_HashDelField("k", "f", L, T, none); }},
      {"list_push", too_long, [=] { return RUVO_LPush("k", "v", L, 5, &number, T, none); }},
      {"set_add", too_long, [=] { return RUVO_SAdd("k", "v", L, T, none); }},
      {"set_rem", too_long, [=] { return RUVO_SRem("k", "v", L, T, none); }},
      {"set_ismember", too_long, [=] { return RUVO_SIsmember("k", "v", L, T, none); }},
  };
  // clang-format on
  const ScriptedServer redis{std::string(":1\r\n")};
  const Session session(all_pools_at(redis.addr()));
  LogCapture log;
  const auto expect_line = [&log](const std::string& line) {
    EXPECT_EQ(log.take(), (std::vector<LogCapture::Line>{{ERROR, "ruvo_redis::" + line}}));
  };
  for (const auto& one : cases) {
    EXPECT_EQ(one.call(), one.text == too_long ? RUVO_ERR_FAILED : RUVO_ERR_NULL_ARGUMENT);
    expect_line(one.name + " | " + one.text);
  }
  for (const Operation& one : operations) {
    if (one.function != raw_command) {  // which uses the key as an argument of its format
      EXPECT_EQ(one.call(nullptr), RUVO_ERR_NULL_ARGUMENT) << one.name;
      const std::vector<LogCapture::Line> lines = log.take();
      ASSERT_FALSE(lines.empty()) << one.name;
      EXPECT_EQ(lines[0].level, ERROR);
      const std::string& said = lines[0].text;
      EXPECT_TRUE(said.ends_with(" is NULL") || said.ends_with(null_value)) << said;
    }
  }
  EXPECT_EQ(RUVO_FreeResult(nullptr), RUVO_OK);
  EXPECT_TRUE(log.take().empty());
  RUVO_Fini();
  log.clear();
  for (const auto& one : cases) {
    EXPECT_EQ(one.call(), RUVO_ERR_NOT_INITIALIZED);
    expect_line(one.name + " | redis is not initialized");
  }
  EXPECT_EQ(RUVO_FreeResult(nullptr), RUVO_ERR_NOT_INITIALIZED);
  expect_line("free_result | redis is not initialized");
}

// ---- Against a real Redis ----

class OnRedis : public testing::Test {
 protected:
  static std::string take_result() {
    const std::string value(data, len);
    EXPECT_EQ(RUVO_FreeResult(data), RUVO_OK);
    return value;
  }

  RedisServer redis_;
  // Long enough for large values on a busy machine.
  Session session_{"connect_timeout = 10000\nsocket_timeout = 60000\n" +
                   pools_at(redis_.addr(), redis_.addr(), redis_.addr())};
  LogCapture log_{WARN};
};

TEST_F(OnRedis, BytesAreStoredAndReadUnchanged) {
  std::string every_byte;
  for (int byte = 0; byte < 256; ++byte) {
    every_byte += static_cast<char>(byte);
  }
  for (const std::string& value :
       {std::string(), std::string(1, '\0'), every_byte, std::string(16U << 20U, '\xFF')}) {
    const std::string field = value.substr(0, 1000);
    EXPECT_EQ(RUVO_InsertKey("s", value.data(), value.size(), -1, T, nullptr), 0);
    EXPECT_EQ(RUVO_QueryKey("s", &data, &len, T, nullptr), 0);
    EXPECT_TRUE(take_result() == value) << value.size();
    EXPECT_EQ(
        RUVO_HashSet("h", field.data(), field.size(), value.data(), value.size(), -1, T, nullptr),
        0);
    EXPECT_EQ(RUVO_HashGet("h", field.data(), field.size(), &data, &len, T, nullptr), 0);
    EXPECT_TRUE(take_result() == value);
    EXPECT_EQ(RUVO_LPush("l", value.data(), value.size(), 0, nullptr, T, nullptr), 0);
    EXPECT_EQ(RUVO_LRange("l", 0, 0, texts, T, nullptr), 0);
    EXPECT_TRUE(texts == (value.empty() ? decltype(texts){} : decltype(texts){value}));
    EXPECT_EQ(RUVO_RPop("l", text, T, nullptr), value.empty() ? RUVO_NOTHING_DONE : RUVO_OK);
    EXPECT_TRUE(text == value);
    EXPECT_EQ(RUVO_SAdd("set", value.data(), value.size(), T, nullptr), 0);
    EXPECT_EQ(RUVO_SIsmember("set", value.data(), value.size(), T, nullptr), 0);
    EXPECT_EQ(RUVO_SMembers("set", texts, T, nullptr), 0);
    EXPECT_TRUE(texts == (value.empty() ? decltype(texts){} : decltype(texts){value}));
    EXPECT_EQ(RUVO_SRem("set", value.data(), value.size(), T, nullptr), 0);
  }
  EXPECT_EQ(RUVO_InsertKey("", "empty key", 9, -1, T, nullptr), 0);
  EXPECT_EQ(RUVO_QueryKey("", &data, &len, T, nullptr), 0);
  EXPECT_EQ(take_result(), "empty key");
  EXPECT_EQ(RUVO_HashSet("h", "f", 1, "four", 4, -1, T, nullptr), 0);
  EXPECT_EQ(RUVO_HashGet("h", "f", 1, nullptr, &len, T, nullptr), 0);
  EXPECT_EQ(len, 4U);
  EXPECT_EQ(RUVO_HashGet("h", "f", 1, nullptr, nullptr, T, nullptr), 0);
  EXPECT_EQ(RUVO_HashIncrBy("h", "n", 1, 1, nullptr, T, nullptr), 0);
  EXPECT_EQ(RUVO_HashFieldsNum("h", nullptr, T, nullptr), 0);
}

TEST_F(OnRedis, RawCommandsReturnTheReply) {
  const auto run = [](const char* format, auto... args) {
    auto* reply = static_cast<redisReply*>(RUVO_ExecRedisCmd(ePersistServer, format, args...));
    const int type = reply != nullptr ? reply->type : -1;
    if (reply != nullptr) {
      RUVO_FreeReplyObject(reply);
    }
    return type;
  };
  EXPECT_EQ(run("PING"), REDIS_REPLY_STATUS);
  // NOLINTNEXTLINE: the zero byte is meant
  EXPECT_EQ(run("SET %s %b", "k", "a\0b", std::size_t{3}), REDIS_REPLY_STATUS);
  EXPECT_EQ(run("STRLEN %s", "k"), REDIS_REPLY_INTEGER);
  EXPECT_EQ(run("GET none"), REDIS_REPLY_NIL);
  EXPECT_EQ(run("LLEN k"), REDIS_REPLY_ERROR);
  EXPECT_EQ(run("KEYS *"), REDIS_REPLY_ARRAY);
  EXPECT_TRUE(log_.take().empty());
  EXPECT_EQ(run(nullptr), -1);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::exec_redis_cmd | format is NULL"), 1);
  EXPECT_EQ(run(" "), -1);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::exec_redis_cmd | format is empty"), 1);
  EXPECT_EQ(run("GET %y"), -1);  // hiredis does not understand it
  EXPECT_EQ(run("GET k"), REDIS_REPLY_STRING);
  RUVO_FreeReplyObject(nullptr);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::free_reply_object | reply is NULL"), 1);

  auto* kept = static_cast<redisReply*>(RUVO_ExecRedisCmd(T, "PING"));
  RUVO_Fini();
  EXPECT_EQ(RUVO_ExecRedisCmd(T, "PING"), nullptr);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::hash_del_field | redis is not initialized"), 1);
  RUVO_FreeReplyObject(kept);
  EXPECT_EQ(log_.count(ERROR, "ruvo_redis::free_reply_object | redis is not initialized"), 1);
  ASSERT_EQ(kept->type, REDIS_REPLY_STATUS);  // not released
  freeReplyObject(kept);
}

}  // namespace

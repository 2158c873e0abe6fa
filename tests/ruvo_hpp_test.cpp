// The interface for C++: each operation against a real Redis, its refusals, and its owners.
#include <gtest/gtest.h>
#include <ruvo/ruvo.hpp>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <iostream>
#include <ranges>
#include <regex>
#include <set>
#include <sstream>
#include <unordered_map>

#include "host.h"
#include "servers.h"

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;
using namespace std::chrono_literals;

template <typename T>
concept Optional = requires(const T& value) {
  value.has_value();
};
template <typename T>
concept Pair = requires(const T& value) {
  value.first;
};
template <typename T>
concept Duration = requires(const T& value) {
  value.count();
};
template <typename T>
concept Printable = requires(const T& value) {
  std::cout << value;
};

// The value of a result, or its code.
template <typename T>
std::string show(const T& value) {
  if constexpr (requires { value.failed(); }) {
    EXPECT_EQ(!value.error(), !value.failed());
    EXPECT_TRUE(value.error() == static_cast<RuvoResult>(value.code()));
    if (value.failed()) {
      return (value.absent() ? "absent " : "") + std::to_string(value.code());
    }
    if constexpr (requires { *value; }) {
      return show(*value);
    }
    return "done";
  } else if constexpr (Optional<T>) {
    return value ? show(*value) : "none";
  } else if constexpr (Pair<T>) {
    return show(value.first) + "=" + show(value.second);
  } else if constexpr (std::is_same_v<T, bool>) {
    return value ? "yes" : "no";
  } else if constexpr (std::is_arithmetic_v<T>) {
    return testing::PrintToString(+value);
  } else if constexpr (Duration<T>) {
    return show(value.count());
  } else if constexpr (Printable<T>) {
    std::ostringstream printed;
    printed << value;
    return printed.str();
  } else {
    std::string all;
    for (const auto& one : value) {
      all += (all.empty() ? "" : " ") + show(one);
    }
    return all;
  }
}

using Outputs = std::vector<std::pair<std::string, std::string>>;  // printed, and expected

void compare(const Outputs& outputs) {
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    EXPECT_EQ(outputs[i].first, outputs[i].second) << "row " << i;
  }
}

const ruvo::pool pool(eTempServer);
static_assert(sizeof pool == sizeof(int));

// A time that the compiler does not know.
std::chrono::seconds unknown(long long seconds) {
  const volatile long long count = seconds;
  return std::chrono::seconds(count);
}

class InCpp : public testing::Test {
 protected:
  void start() {
    const QuietConsole quiet;
    library_.emplace(config_.path());
    EXPECT_TRUE(*library_);
    log_.clear();  // start-up reports its settings at ERROR
  }
  double ttl(const std::string& key) const { return std::stod(redis_.ask("ttl " + key)); }

  RedisServer redis_;
  HostConfig config_{all_pools_at(redis_.addr())};
  LogCapture log_{BaseLib::Logger::ERROR};
  std::optional<ruvo::library> library_;
};

TEST_F(InCpp, EveryCallReadsWhatRedisSays) {
  using Key = std::string_view;
  // clang-format off
  const auto outputs_of = [](Key key) { return Outputs{
      {show(pool.get(key)), "absent 10402"}, {show(pool.set(key, "a\0b"sv)), "done"},
      {show(pool.get(key)), "a\0b"s}, {show(pool.append(key, "\0"sv)), "done"},
      {show(pool.get(key)), "a\0b\0"s}, {show(pool.set(key, {})), "done"},
      {show(pool.get(key)), ""}, {show(pool.exists(key)), "yes"},
      {show(pool.set(key, "41", unknown(100))), "done"}, {show(pool.persist(key)), "done"},
      {show(pool.increment(key)), "42"}, {show(pool.hlen(key)), "-1"},
      {show(pool.expire(key, unknown(0))), "done"}, {show(pool.exists(key)), "no"},
      {show(pool.hset(key, "f\0"sv, "\0v"sv)), "done"},
      {show(pool.hset(key, {}, {}, unknown(100))), "done"},
      {show(pool.hget(key, "f\0"sv)), "\0v"s}, {show(pool.hget(key, "f")), "absent 10402"},
      {show(pool.hexists(key, "")), "yes"}, {show(pool.hdel(key, "")), "done"},
      {show(pool.hexists(key, "")), "no"}, {show(pool.hincrby(key, "n", -3)), "-3"},
      {show(pool.hlen(key)), "2"}, {show(pool.remove(key)), "done"},
      {show(pool.rpop(key)), "absent 10402"}, {show(pool.lpush(key, "")), "1"},
      {show(pool.rpop(key)), ""}, {show(pool.lrange(key, 0, -1)), "absent -2"},
      {show(pool.lpush(key, "a\0a"sv)), "1"}, {show(pool.lpush(key, "b", unknown(100))), "2"},
      {show(pool.lpush(key, "c")), "3"}, {show(pool.lrange(key, 0, 2)), "c b a\0a"s},
      {show(pool.ltrim(key, 1, -1)), "done"}, {show(pool.lrem(key, 1, "b")), "done"},
      {show(pool.lrem(key, 1, "b")), "absent -2"}, {show(pool.rpop(key)), "a\0a"s},
      {show(pool.sadd(key, "m\0"sv)), "yes"}, {show(pool.sadd(key, "m\0"sv)), "no"},
      {show(pool.sismember(key, "m\0"sv)), "yes"}, {show(pool.smembers(key)), "m\0"s},
      {show(pool.srem(key, "m\0"sv)), "done"}, {show(pool.sismember(key, "m\0"sv)), "no"},
      {show(pool.smembers(key)), "absent -2"},
  };};
  // clang-format on
  for (const auto& [printed, expected] : outputs_of("k")) {
    EXPECT_EQ(printed, "10111");
  }
  start();
  for (const std::string& key : {"k"s, ""s, std::string(127, 'k'), std::string(128, 'k')}) {
    // More bytes follow, where the library would look for a zero byte.
    const std::string longer = key + "x";
    compare(outputs_of(Key(longer).substr(0, key.size())));
  }
  EXPECT_EQ(redis_.ask("dbsize"), "0");
  for (const auto& [printed, expected] : outputs_of("k\0"sv)) {
    EXPECT_EQ(printed, "10107");
  }
}

TEST_F(InCpp, RefusalsSayWhy) {
  const auto why = [](const auto& result) {
    EXPECT_EQ(result.code(), RUVO_ERR_NULL_ARGUMENT);
    EXPECT_EQ(result.error(), std::errc::invalid_argument);
    return result.error().message();
  };
  const std::string null = "a required argument is null";
  const std::string zero = "a key has a zero byte in it";
  const std::string time = "a time is out of range";
  start();
  const char* const none = std::getenv("RUVO_NO_SUCH_VARIABLE");  // NOLINT: one thread
  const std::vector<std::string> zeros{"k", "k\0"s};
  const std::vector<const char*> nulls{"k", none};
  const std::map<std::string, const char*> null_field{{"f", none}};
  // clang-format off
  compare({
      {why(pool.get(none)), null}, {why(pool.set("k", none)), null},
      {why(pool.set("k", none, ruvo::if_absent)), null}, {why(pool.append("k", none)), null},
      {why(pool.hset("k", none, "v")), null}, {why(pool.hset("k", "f", none)), null},
      {why(pool.hget("k", none)), null}, {why(pool.lpush("k", none)), null},
      {why(pool.lrem("k", 0, none)), null}, {why(pool.sadd("k", none)), null},
      {why(pool.sismember("k", none)), null}, {why(pool.command("SET", "k", none)), null},
      {why(pool.ask<void>("DEL", nulls)), null}, {why(pool.mget(nulls)), null},
      {why(pool.mset({{"k", none}})), null}, {why(pool.remove({"k", none})), null},
      {why(pool.hset("k", null_field)), null}, {why(pool.ttl(none)), null},
      {why(pool.hgetall(none)), null}, {why(pool.hset(none, null_field)), null},
      {why(pool.get("k\0"sv)), zero}, {why(pool.set("k\0"s, "v")), zero},
      {why(pool.lrem("k", 0, "v\0"sv)), zero}, {why(pool.mget(zeros)), zero},
      {why(pool.mset({{"k\0"sv, "v"}})), zero}, {why(pool.remove(zeros)), zero},
      {why(pool.increment("k\0"sv, 1, 1s)), zero}, {why(pool.hset("k\0"sv, null_field, 1s)), zero},
      {why(pool.expire("k", unknown(-1))), time}, {why(pool.expire("k", unknown(1LL + UINT_MAX))), time},
      {why(pool.set("k", "v", std::chrono::milliseconds(unknown(0).count()))), time},
      {why(pool.set("k", "v", unknown(0), ruvo::if_absent)), time},
      {why(pool.increment("k", 1, unknown(0))), time},
      {why(pool.hset("k", null_field, unknown(-1))), time},
      {why(pool.command(ruvo::words())), "a command has no words, or more than 1024"},
  });
  // clang-format on
  for (const long long seconds : {LLONG_MIN, -1LL, 0LL, 1LL + INT_MAX, LLONG_MAX}) {
    EXPECT_EQ(why(pool.set("s", "v", unknown(seconds))), time) << seconds;
    EXPECT_EQ(why(pool.hset("h", "f", "v", unknown(seconds))), time) << seconds;
    EXPECT_EQ(why(pool.lpush("l", "v", unknown(seconds))), time) << seconds;
  }
  EXPECT_EQ(redis_.ask("dbsize"), "0");
}

TEST_F(InCpp, CommandsTakeAnyWords) {
  EXPECT_EQ(show(pool.command("PING")), "10111");
  start();
  EXPECT_EQ(show(pool.command("PING")), "PONG");
  const ruvo::reply echo = pool.command("ECHO", "\0%b"sv).value();
  EXPECT_EQ(show(pool.command("SET"s, "%s %d\0"sv, echo.text())), "OK");
  EXPECT_EQ(show(pool.ask<std::string>("GET", "%s %d\0"sv)), "\0%b"s);
  EXPECT_EQ(show(pool.command("RPUSH", "", "", LLONG_MIN, ULLONG_MAX, std::uint8_t{7}, -0,
                              std::string_view(), 0.1, 1e300, 2.0F)),
            "(integer) 9");
  EXPECT_EQ(show(pool.ask<std::vector<std::string>>("LRANGE", "", 0, -1)),
            "-9223372036854775808 18446744073709551615 7 0  0.1 1e+300 2");
  const auto refused = pool.command("LLEN", "%s %d\0"sv);
  EXPECT_TRUE(refused && refused->is_error() && !refused->is_nil());
  EXPECT_EQ(refused->text().substr(0, 9), "WRONGTYPE");
  EXPECT_TRUE((*refused)[0].is_nil());
  EXPECT_EQ(refused->size(), 0);
  const volatile std::size_t gigabyte = std::size_t{1} << 30U;  // never read
  const auto large = pool.command("ECHO", std::string_view("x", gigabyte));
  EXPECT_EQ(large.code(), RUVO_ERR_FAILED);
  EXPECT_EQ(large.error().message(), "failed: a command is larger than 1 GiB");
  EXPECT_TRUE(log_.take().empty());
}

TEST_F(InCpp, CommandsTakeRangesOfAnyLength) {
  start();
  const std::map<std::string, int> pairs{{"a", 1}, {"b", 2}};
  EXPECT_EQ(show(pool.command("RPUSH", "l", pairs, "x", std::vector<double>{0.5, 2}, pairs)),
            "(integer) 11");
  EXPECT_EQ(show(pool.ask<std::vector<std::string>>("LRANGE", "l", 0, -1)),
            "a 1 b 2 x 0.5 2 a 1 b 2");
  // Lengths around the size of the internal buffer.
  for (const std::size_t count : {1U, 13U, 14U, 15U, 125U, 126U, 127U, 1021U, 1022U}) {
    ruvo::words some;
    for (std::size_t i = 0; i < count; ++i) {
      some.add("\0 %"s + std::to_string(i));
    }
    ASSERT_TRUE(pool.remove("l"));
    EXPECT_EQ(pool.ask<std::size_t>("RPUSH", "l", some).value(), count);
    const auto last = pool.ask<std::string>("LINDEX", "l", -1);
    EXPECT_EQ(last.value(), "\0 %"s + std::to_string(count - 1));
  }
  const std::vector<int> many(1023);
  EXPECT_EQ(show(pool.ask<int>("RPUSH", "l", many)), "10107");
  EXPECT_EQ(show(pool.ask<int>("LLEN", "l")), "1022");
}

TEST_F(InCpp, AnswersHaveTheirTypes) {
  start();
  const auto lua = [](const std::string& result) { return "return " + result; };
  using texts = std::vector<std::string>;
  using scores = std::vector<std::pair<std::string, double>>;
  using maybe = std::vector<std::optional<std::string>>;
  using map = std::map<std::string, int>;
  using stream = std::vector<std::pair<std::string, std::map<std::string, std::string>>>;
  const std::string alternating = lua("{'a','1','b','2'}");
  // clang-format off
  compare({
      {show(pool.ask<void>("SET", "n", 41)), "done"}, {show(pool.ask<int>("GET", "n")), "41"},
      {show(pool.ask<bool>("SET", "t", "text")), "yes"}, {show(pool.ask<double>("INCRBYFLOAT", "n", 0.5)), "41.5"},
      {show(pool.ask<int>("GET", "n")), "-1"}, {show(pool.ask<double>("GET", "n")), "41.5"},
      {show(pool.ask<signed char>("ECHO", 127)), "127"}, {show(pool.ask<signed char>("ECHO", 128)), "-1"},
      {show(pool.ask<unsigned>("DECR", "m")), "-1"}, {show(pool.ask<long long>("ECHO", ULLONG_MAX)), "-1"},
      {show(pool.ask<int>("ECHO", "")), "-1"}, {show(pool.ask<int>("ECHO", "7 ")), "-1"},
      {show(pool.ask<bool>("EXISTS", "t")), "yes"}, {show(pool.ask<bool>("EXISTS", "none")), "no"},
      {show(pool.ask<bool>("DECRBY", "m", 1)), "-1"}, {show(pool.ask<bool>("PING")), "-1"},
      {show(pool.ask<ruvo::bytes>("GET", "t")), "text"}, {show(pool.ask<std::string>("PING")), "PONG"},
      {show(pool.ask<std::string>("STRLEN", "t")), "-1"}, {show(pool.ask<std::string>("GET", "none")), "absent 10402"},
      {show(pool.ask<void>("GET", "none")), "absent 10402"}, {show(pool.ask<void>("GET", "t")), "done"},
      {show(pool.ask<std::optional<int>>("GET", "none")), "none"}, {show(pool.ask<std::optional<int>>("STRLEN", "t")), "4"},
      {show(pool.ask<texts>("MGET", "t", "t")), "text text"}, {show(pool.ask<texts>("MGET", "t", "none")), "-1"},
      {show(pool.ask<maybe>("MGET", "t", "none")), "text none"}, {show(pool.ask<texts>("KEYS", "none")), ""},
      {show(pool.ask<texts>("GET", "t")), "-1"},
      {show(pool.ask<map>("EVAL", alternating, 0)), "a=1 b=2"},
      {show(pool.ask<std::unordered_map<std::string, bool>>("EVAL", lua("{'a','1'}"), 0)), "a=yes"},
      {show(pool.ask<map>("EVAL", lua("{'a','1','b'}"), 0)), "-1"}, {show(pool.ask<map>("EVAL", lua("{'a','b'}"), 0)), "-1"},
      {show(pool.ask<scores>("EVAL", lua("{'a','.5'}"), 0)), "a=0.5"}, {show(pool.ask<scores>("EVAL", lua("{{'a',1},{'b',2}}"), 0)), "a=1 b=2"},
      {show(pool.ask<std::pair<int, texts>>("EVAL", lua("{1,{'a','b'}}"), 0)), "1=a b"}, {show(pool.ask<std::pair<int, int>>("EVAL", lua("{1,2,3}"), 0)), "-1"},
      {show(pool.ask<std::vector<std::vector<int>>>("EVAL", lua("{{1},{},{2,3}}"), 0)), "1  2 3"},
      {show(pool.ask<stream>("EVAL", lua("{{'1-1',{'a','1'}},{'1-2',{}}}"), 0)), "1-1=a=1 1-2="},
      {show(pool.ask<std::vector<bool>>("SMISMEMBER", "none", "a")), "no"},
  });
  // clang-format on
}

TEST_F(InCpp, FailuresKnowWhatRedisSaid) {
  start();
  ASSERT_TRUE(pool.set("k", "text"));
  const auto failed = pool.increment("k");
  EXPECT_EQ(failed.error(), std::error_code(RUVO_ERR_FAILED, ruvo::category()));
  EXPECT_TRUE(failed.error() == RUVO_ERR_FAILED && failed.error() != RUVO_ERR_NOT_FOUND);
  EXPECT_EQ(failed.error().category().name(), "ruvo"s);
  EXPECT_EQ(failed.error().message(), ruvo_result_text(RUVO_ERR_FAILED));
  EXPECT_EQ(failed.value_or(7), 7);
  EXPECT_TRUE(pool.get("none").value_or({}).empty());
  EXPECT_TRUE(pool.smembers("none").value_or({}).empty());
  EXPECT_THROW(pool.get("none").value(), std::system_error);
  EXPECT_THROW(pool.lrem("none", 0, "v").value(), std::system_error);
  EXPECT_THROW(pool.exists(static_cast<const char*>(nullptr)).value(), std::system_error);
  EXPECT_NO_THROW(pool.remove("none").value());
  EXPECT_DEATH(*pool.lrange("none", 0, -1), "ruvo: a result without a value was read: nothing");
  EXPECT_DEATH((void)pool.lrange("none", 0, -1)->front(), "without a value");

  const std::string wrong = "WRONGTYPE Operation against a key holding the wrong kind of value";
  const auto refused = pool.ask<int>("LLEN", "k");
  EXPECT_EQ(refused.code(), RUVO_ERR_FAILED);
  EXPECT_EQ(refused.reply_text(), wrong);
  EXPECT_EQ(refused.error().message(), "failed: " + wrong);
  const ruvo::result<std::string> passed_on = refused.why();
  EXPECT_EQ(passed_on.reply_text(), wrong);
  try {
    refused.value();
    FAIL();
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), RUVO_ERR_FAILED);
    EXPECT_NE(std::string(error.what()).find(wrong), std::string::npos);
  }
  EXPECT_EQ(pool.hgetall("k").reply_text(), wrong);
  EXPECT_EQ(pool.increment("k", 1, 1s).failed(), true);
  const auto other = pool.ask<int>("GET", "k");
  EXPECT_EQ(other.error().message(),
            "failed: the reply has another shape than was asked for: text");
  using answers = std::vector<std::string>;
  const std::string script = "return {'a', redis.pcall('LLEN', 'k')}";
  EXPECT_EQ(pool.ask<answers>("EVAL", script, 0).reply_text(), wrong);
  EXPECT_EQ(std::error_code(make_error_code(RUVO_ERR_NO_MEMORY)), std::errc::not_enough_memory);
}

TEST(CppInterface, TakesNoReplyOfAnotherTypeForAValue) {
  const ScriptedServer server("*0\r\n");
  const HostConfig config(all_pools_at(server.addr()));
  const LogCapture log;
  const QuietConsole quiet;
  const ruvo::library library(config.path());
  EXPECT_EQ(show(pool.get("k")), "-1");
  EXPECT_EQ(show(pool.increment("k")), "-1");
  EXPECT_EQ(show(pool.lpush("k", "v", unknown(100))), "-1");
  EXPECT_EQ(show(pool.set("k", "v", 1500ms)), "done");
  EXPECT_EQ(show(pool.ttl("k")), "-1");
  EXPECT_EQ(show(pool.increment("k", 1)), "-1");
}

TEST_F(InCpp, ValuesAreSetOnConditionAndForAnyTime) {
  start();
  const std::string text = "k";
  char writable[] = "k";
  // clang-format off
  compare({
      {show(pool.ttl("k")), "absent 10402"}, {show(pool.set("k", "1", ruvo::if_present)), "no"},
      {show(pool.set("k", "1", ruvo::if_absent)), "yes"},
      {show(pool.ttl("k")->count()), show(ruvo::stays.count())},
      {show(pool.set(text, "2", 1h, ruvo::if_absent)), "no"},
      {show(pool.get(*pool.get(writable))), "absent 10402"},
      {show(pool.set("k", "3", 90500ms, ruvo::if_present)), "yes"},
      {show(pool.set("m", "4", 90500ms)), "done"},
      {show(pool.get(writable)), "3"}, {show(pool.get("m")), "4"},
      {show(pool.set("k", "5", std::chrono::milliseconds::max())), "-1"},
      {show(pool.set("empty", std::string_view())), "done"}, {show(pool.get("empty")), ""},
      {show(pool.set("s", "v", unknown(90))), "done"},
      {show(pool.hset("h", "f", "v", unknown(90))), "done"},
      {show(pool.lpush("l", "v", unknown(90))), "1"}, {show(pool.set("e", "v")), "done"},
      {show(pool.expire("e", unknown(90))), "done"}, {show(pool.increment("hits", 5, 90s)), "5"},
      {show(pool.increment("hits", LLONG_MAX - 7, 1h)), show(LLONG_MAX - 2)},
      {show(pool.increment("hits", 3, 1h)), "-1"},
      {show(pool.increment("stays", LLONG_MAX)), show(LLONG_MAX)},
      {show(pool.increment("stays", LLONG_MIN)), "-1"},
      {show(pool.ttl("stays")->count()), show(ruvo::stays.count())},
      {show(pool.increment("stays", 1, 90s)), "0"},
  });
  // clang-format on
  for (const char* key : {"k", "m", "s", "h", "l", "e", "hits", "stays"}) {
    EXPECT_NEAR(static_cast<double>(pool.ttl(key)->count()), 89000, 1500) << key;
  }
}

TEST_F(InCpp, ManyKeysUseAsFewCommandsAsPossible) {
  start();
  std::vector<std::string> keys;
  std::vector<std::optional<std::string>> values;
  std::map<std::string, std::string> pairs;
  for (int i = 0; i < 1500; ++i) {
    keys.push_back("k" + std::to_string(i));
    values.emplace_back();
    if (i % 3 != 0) {
      pairs[keys.back()] = values.back().emplace("\0"s + std::to_string(i));
    }
  }
  const auto calls = [this](const std::string& command) {
    const std::string line = redis_.ask("info commandstats | grep cmdstat_" + command + ":");
    return line.substr(line.find('=') + 1, line.find(',') - line.find('=') - 1);
  };
  EXPECT_EQ(show(pool.mset(pairs)), "done");
  EXPECT_EQ(calls("mset"), "2");
  EXPECT_EQ(pool.mget(keys).value(), values);
  EXPECT_EQ(calls("mget"), "2");
  EXPECT_EQ(show(pool.remove(keys)), "1000");
  EXPECT_EQ(calls("del"), "2");
  EXPECT_EQ(show(pool.mget(std::vector<std::string>())), "");
  EXPECT_EQ(show(pool.mset(std::map<std::string, int>())), "done");

  EXPECT_EQ(show(pool.hgetall("h")), "absent 10402");
  EXPECT_EQ(show(pool.hset("h", pairs)), "done");
  EXPECT_EQ(show(pool.hset("h", {{"f\0"sv, "v"}}, 100s)), "done");
  EXPECT_NEAR(ttl("h"), 99, 1);
  EXPECT_EQ(show(pool.hset("h2", pairs, 100s)), "done");
  EXPECT_NEAR(ttl("h2"), 99, 1);
  EXPECT_EQ(pool.hgetall("h2").value(), pairs);
  std::map<std::string, std::string> scanned;
  for (ruvo::cursor at; !at.done();) {
    for (auto& [field, value] : pool.hscan("h2", at).value()) {
      scanned[field] = value;
    }
  }
  EXPECT_EQ(scanned, pairs);
  keys.resize(999);
  ASSERT_TRUE(pool.ask<void>("SADD", "s", keys));
  std::set<std::string> members;
  std::size_t pages = 0;
  for (ruvo::cursor at; !at.done(); ++pages) {
    const auto page = pool.sscan("s", at, 50).value();
    members.insert(page.begin(), page.end());
  }
  EXPECT_EQ(members.size(), 999);
  EXPECT_GT(pages, 5);
  ruvo::cursor at;
  EXPECT_EQ(show(pool.sscan("h", at)), "-1");
  EXPECT_FALSE(at.done());
}

TEST_F(InCpp, RepliesPrintAsInRedisCli) {
  start();
  const std::string script =
      "return {1,{'a\"\\\\ \\n\\r\\t\\7\\b\\1\\200',false,{},{ok='ST'}},{err='E x'},'','3','4','5',"
      "'6','7','8',{'9',{10}}}";
  EXPECT_EQ(
      show(pool.command("EVAL", script, 0)),
      redis_.ask("--no-raw eval '" + std::regex_replace(script, std::regex("'"), "'\\''") + "' 0"));
  std::vector<ruvo::reply> made;
  made.push_back(ruvo::reply::of_text("a"));
  made.push_back(ruvo::reply::of_nil());
  made.push_back(ruvo::reply::of_integer(3));
  made.push_back(ruvo::reply::of_error("ERR no"));
  EXPECT_EQ(show(ruvo::reply::of_array(std::move(made))),
            "1) \"a\"\n2) (nil)\n3) (integer) 3\n4) (error) ERR no");
  const ruvo::reply list = pool.command("EVAL", "return {3, 1, 2}", 0).value();
  static_assert(std::forward_iterator<ruvo::reply_view::iterator>);
  static_assert(std::ranges::view<ruvo::reply_view> &&
                std::ranges::borrowed_range<ruvo::reply_view> && std::ranges::range<ruvo::reply>);
  const auto largest = std::ranges::max_element(list, {}, &ruvo::reply_view::integer);
  EXPECT_EQ((*largest).integer(), 3);

  ASSERT_TRUE(pool.set("k", "b"));
  const ruvo::bytes value = pool.get("k").value();
  EXPECT_TRUE(value == "b" && "b" == value && value == "b"s && value == value && value != "c"sv);
  EXPECT_TRUE(value < "c" && "a" < value && value <= value && value > "a" && "c" >= value);
  EXPECT_EQ(testing::PrintToString(value), "b");
}

// At DEBUG, the log does not read past an unterminated text.
TEST_F(InCpp, ShortTextsEndInTheLog) {
  start();
  BaseLib::Logger::setLogLevel(BaseLib::Logger::DEBUG);
  const std::string text = "fieldvaluemember";
  const std::string_view all = text;
  const std::string_view field = all.substr(0, 5);
  EXPECT_TRUE(pool.hset("k", field, all.substr(5, 5)));
  EXPECT_EQ(show(pool.hget("k", field)), "value");
  EXPECT_EQ(show(pool.hincrby("n", {text.data(), 5}, 2)), "2");
  EXPECT_EQ(show(pool.lpush("l", field)), "1");
  EXPECT_EQ(show(pool.sadd("s", field)), "yes");
  EXPECT_EQ(show(pool.sismember("s", field)), "yes");
  EXPECT_TRUE(pool.srem("s", field));
  EXPECT_GE(log_.count_containing("field"), 7);
  EXPECT_EQ(log_.count_containing("fieldv") + log_.count_containing("valuem"), 0);
}

TEST_F(InCpp, OwnersMoveAndMayOutliveTheLibrary) {
  start();
  ASSERT_TRUE(pool.set("k", "value"));
  ruvo::bytes first = pool.get("k").value();
  ruvo::bytes second = std::move(first);
  // cppcheck-suppress accessMoved
  EXPECT_TRUE(first.empty());  // NOLINT: that it is empty now is the question
  EXPECT_EQ(second, "value");
  second = pool.get("k").value();

  ruvo::reply echo = pool.command("ECHO", "one").value();
  ruvo::reply other = std::move(echo);
  EXPECT_TRUE(echo.is_nil() && echo.begin() == echo.end());  // NOLINT: moved from
  EXPECT_EQ(other.text(), "one");
  other = pool.command("ECHO", "two").value();

  library_.reset();
  EXPECT_EQ(second, "value");
  EXPECT_EQ(other.text(), "two");
  const char* lost = second.data();
  log_.clear();
  second = ruvo::bytes::of("made");
  EXPECT_EQ(
      log_.count(BaseLib::Logger::ERROR, "ruvo_redis::free_result | redis is not initialized"), 1);
  second = {};  // made by the host: nothing to report
  EXPECT_EQ(log_.take().size(), 1);
  start();                                    // for the other owner, and so that nothing leaks here
  EXPECT_EQ(RUVO_FreeResult(lost), RUVO_OK);  // NOLINT: it has not been released
}

TEST_F(InCpp, LibraryEndsItsStartUps) {
  {
    const QuietConsole quiet;
    const ruvo::library one(config_.path());
    const ruvo::library two(std::string_view(config_.path()));
    EXPECT_TRUE(one && two);
  }
  EXPECT_EQ(RUVO_Fini(), RUVO_ERR_NOT_INITIALIZED);
}

// A failed start-up is final for its process: a later one only counts, and calls keep failing.
TEST_F(InCpp, LibraryKnowsWhenCallsCannotWork) {
  const auto fail = [this] {
    const ruvo::library wrong("none\0"sv);
    const ruvo::library again(config_.path());
    std::cerr << wrong.code() << ' ' << again.code() << ' ' << !again << ' '
              << again.error().message() << ' ' << pool.remove("k").code();
    std::exit(0);  // NOLINT: one thread
  };
  EXPECT_EXIT(fail(), testing::ExitedWithCode(0), "10102 10111 1 not initialised 10111$");
}

// The examples of the header in sequence, as one program: they print what their comments say.
TEST_F(InCpp, ExamplesPrintWhatTheySay) {
  std::filesystem::current_path(std::filesystem::path(config_.path()).parent_path());
  std::ostringstream printed;
  std::streambuf* const console = std::cout.rdbuf(printed.rdbuf());
  {
#include "ruvo_hpp_examples.inc"
  } std::cout.rdbuf(console);
  const std::string said =
#include "ruvo_hpp_said.inc"
      ;
  EXPECT_EQ(std::regex_replace(printed.str(), std::regex("\n"), ", "), said);
}

}  // namespace

// The interface for C++: each operation against a real Redis, its refusals, and what its owners do.
#include <gtest/gtest.h>
#include <ruvo/ruvo.hpp>

#include <climits>
#include <filesystem>
#include <iostream>
#include <regex>
#include <sstream>

#include "host.h"
#include "servers.h"

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

// What a result holds, or its code.
std::string show(long long value) { return std::to_string(value); }
std::string show(bool value) { return value ? "yes" : "no"; }
std::string show(std::string_view value) { return std::string(value); }
std::string show(const std::vector<std::string>& values) {
  std::string all;
  for (const std::string& value : values) {
    all += (all.empty() ? "" : " ") + value;
  }
  return all;
}
std::string show(ruvo::reply_view reply) {  // NOLINT(misc-no-recursion)
  std::string all = reply.is_nil() ? "nil" : show(reply.text());
  if (reply.type() == REDIS_REPLY_INTEGER) {
    all = show(reply.integer());
  }
  for (const ruvo::reply_view element : reply) {
    all += "[" + show(element) + "]";
  }
  return all;
}
template <typename T>
std::string show(const ruvo::result<T>& result) {
  EXPECT_EQ(!result.error(), static_cast<bool>(result));
  if (!result) {
    return (result.absent() ? "absent " : "") + std::to_string(result.code());
  }
  if constexpr (std::is_void_v<T>) {
    return "done";
  } else {
    return show(*result);
  }
}

const ruvo::pool pool(eTempServer);

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
    log_.clear();  // start-up tells of its settings at ERROR
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
  using Story = std::vector<std::pair<std::string, std::string>>;  // what is said, and should be
  const auto tell = [](Key key) { return Story{
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
  for (const auto& [said, expected] : tell("k")) {
    EXPECT_EQ(said, "10111");
  }
  start();
  for (const std::string& key : {"k"s, ""s, std::string(127, 'k'), std::string(128, 'k')}) {
    // Followed by more, where a zero byte would be looked for.
    const std::string longer = key + "x";
    for (const auto& [said, expected] : tell(Key(longer).substr(0, key.size()))) {
      EXPECT_EQ(said, expected);
    }
  }
  EXPECT_EQ(redis_.ask("dbsize"), "0");
  for (const auto& [said, expected] : tell("k\0"sv)) {
    EXPECT_EQ(said, "10107");
  }
}

TEST_F(InCpp, KeysAndTimesAreRefused) {
  start();
  const std::string text = "k";
  char writable[] = "k";
  EXPECT_TRUE(pool.set(text, "v"));
  EXPECT_EQ(show(pool.get(writable)), "v");
  EXPECT_EQ(show(pool.get(pool.command("ECHO", "k")->text())), "v");
  EXPECT_EQ(show(pool.get(std::string("k\0", 2))), "10107");
  EXPECT_EQ(show(pool.get(static_cast<const char*>(nullptr))), "10107");
  EXPECT_EQ(show(pool.lrem("k", 0, "v\0"sv)), "10107");

  for (const long long seconds : {LLONG_MIN, -1LL, 0LL, 1LL + INT_MAX, LLONG_MAX}) {
    EXPECT_EQ(show(pool.set("s", "v", unknown(seconds))), "10107") << seconds;
    EXPECT_EQ(show(pool.hset("h", "f", "v", unknown(seconds))), "10107") << seconds;
    EXPECT_EQ(show(pool.lpush("l", "v", unknown(seconds))), "10107") << seconds;
  }
  EXPECT_EQ(show(pool.expire("k", unknown(-1))), "10107");
  EXPECT_EQ(show(pool.expire("k", unknown(1LL + UINT_MAX))), "10107");
  EXPECT_EQ(redis_.ask("dbsize"), "1");
  EXPECT_EQ(ttl("k"), -1);

  pool.set("s", "v", unknown(100));
  pool.hset("h", "f", "v", unknown(100));
  pool.lpush("l", "v", unknown(100));
  pool.expire("k", unknown(100));
  EXPECT_NEAR(ttl("s") + ttl("h") + ttl("l") + ttl("k"), 400, 8);
}

TEST_F(InCpp, CommandsTakeAnyWords) {
  EXPECT_EQ(show(pool.command("PING")), "-1");
  start();
  EXPECT_EQ(show(pool.command("PING")), "PONG");
  EXPECT_EQ(show(pool.command("SET"s, "%s %d\0"sv, pool.command("ECHO", "\0%b"sv)->text())), "OK");
  EXPECT_EQ(show(pool.command("GET", "%s %d\0"sv)), "\0%b"s);
  EXPECT_EQ(show(pool.command("RPUSH", "", "", LLONG_MIN, ULLONG_MAX, std::uint8_t{7}, -0,
                              std::string_view())),
            "6");
  EXPECT_EQ(show(pool.command("LRANGE", "", 0, -1)),
            "[][-9223372036854775808][18446744073709551615][7][0][]");
  EXPECT_EQ(show(pool.command("EVAL", "return {1, {'a', false}}", 0)), "[1][[a][nil]]");
  const auto refused = pool.command("LLEN", "%s %d\0"sv);
  EXPECT_TRUE(refused && refused->is_error() && !refused->is_nil());
  EXPECT_EQ(refused->text().substr(0, 9), "WRONGTYPE");
  EXPECT_TRUE((*refused)[0].is_nil());
  EXPECT_EQ(refused->size(), 0);
  const volatile std::size_t gigabyte = std::size_t{1} << 30U;  // never read
  EXPECT_EQ(show(pool.command("ECHO", std::string_view("x", gigabyte))), "-1");
  EXPECT_TRUE(log_.take().empty());
}

TEST_F(InCpp, FailuresAreErrorCodes) {
  start();
  pool.set("k", "text");
  const auto failed = pool.increment("k");
  EXPECT_EQ(failed.error(), std::error_code(RUVO_ERR_FAILED, ruvo::category()));
  EXPECT_EQ(failed.error().category().name(), "ruvo"s);
  EXPECT_EQ(failed.error().message(), ruvo_result_text(RUVO_ERR_FAILED));
  EXPECT_FALSE(failed.absent());
  EXPECT_EQ(failed.value_or(7), 7);
  EXPECT_EQ(pool.get("none").value_or(ruvo::bytes()).data(), nullptr);
  try {
    pool.get("none").value();
    FAIL();
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::error_code(RUVO_ERR_NOT_FOUND, ruvo::category()));
  }
  EXPECT_THROW(pool.lrem("none", 0, "v").value(), std::system_error);
  EXPECT_NO_THROW(pool.remove("none").value());
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
}

TEST_F(InCpp, OwnersMoveAndMayOutliveTheLibrary) {
  start();
  pool.set("k", "value");
  ruvo::bytes first = pool.get("k").value();
  ruvo::bytes second = std::move(first);
  EXPECT_EQ(first.size() + std::string_view(first).size(), 0);  // NOLINT: moved from
  EXPECT_EQ(std::string_view(second), "value");
  second = pool.get("k").value();
  EXPECT_EQ(std::string_view(second), "value");

  ruvo::reply echo = pool.command("ECHO", "one").value();
  ruvo::reply other = std::move(echo);
  EXPECT_TRUE(echo.is_nil() && echo.begin() == echo.end());  // NOLINT: moved from
  EXPECT_EQ(show(other), "one");
  other = pool.command("ECHO", "two").value();
  EXPECT_EQ(show(other), "two");

  library_.reset();
  EXPECT_EQ(std::string_view(second), "value");
  EXPECT_EQ(show(other), "two");
  const char* lost = second.data();
  log_.clear();
  second = {};
  EXPECT_EQ(
      log_.count(BaseLib::Logger::ERROR, "ruvo_redis::free_result | redis is not initialized"), 1);
  start();  // for the other owner, and so that nothing is lost here
  EXPECT_EQ(RUVO_FreeResult(lost), RUVO_OK);
}

TEST_F(InCpp, LibraryEndsWhatItHasStarted) {
  {
    const QuietConsole quiet;
    const ruvo::library one(config_.path());
    const ruvo::library two(std::string_view(config_.path()));
    EXPECT_TRUE(one && two);
  }
  EXPECT_EQ(RUVO_Fini(), RUVO_ERR_NOT_INITIALIZED);
  // A start-up that fails is final for its process.
  const auto fail = [] {
    const ruvo::library wrong("none\0"sv);
    std::exit(!wrong && wrong.code() == RUVO_ERR_NO_CONFIG ? 0 : 1);
  };
  EXPECT_EXIT(fail(), testing::ExitedWithCode(0), "");
}

// The examples of the header one after the other, as one program: they print what they say.
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

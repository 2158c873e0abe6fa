// ruvo_cli's operations, its refusals and its load.
#include "cli_tool.h"
#include "operations.h"
#include "servers.h"

namespace {

TEST(Cli, RunsEveryOperation) {
  const RedisServer redis;
  const Tool tool(all_pools_at(redis.addr()));
  const TempDir dir;
  const std::string bytes = dir.write("bytes", std::string("a\0\xff", 3));
  // clang-format off
  struct { std::string arguments; int status; std::string output; } const cases[] = {
      {"set k v", 0, ""}, {"get k", 0, "v\n"}, {"get k -n", 0, "v"},
      {"--json get k", 0,
       R"({"command":"get","pool":"temp","result":0,"text":"success","value":"v"})"},
      {"get none", 1, "ruvo_cli: get: not found\n"},
      {"get none --json", 1,
       R"({"command":"get","pool":"temp","result":10402,"text":"not found"})"},
      {"append k w", 0, ""}, {"exists k", 0, ""}, {"exists none", 1, "ruvo_cli: exists: absent\n"},
      {"expire k 100", 0, ""}, {"raw TTL k", 0, "100\n"}, {"persist k", 0, ""},
      {"raw TTL k", 0, "-1\n"}, {"del k", 0, ""}, {"incr n --pool persist", 0, "1\n"},
      {"--pool personality --json incr n", 0,
       R"({"command":"incr","pool":"personality","result":0,"text":"success","value":2})"},
      {"set b --ttl 50 --value-file " + bytes, 0, ""},
      {"get b --json", 0,
       R"({"command":"get","pool":"temp","result":0,"text":"success","value":{"hex":"6100ff"}})"},
      {"raw TTL b", 0, "50\n"}, {"hset h f -- -v", 0, ""}, {"hget h f", 0, "-v\n"},
      {"hexists h f", 0, ""}, {"hincrby h n -3", 0, "-3\n"}, {"hlen h", 0, "2\n"},
      {"hdel h f", 0, ""}, {"hexists h f", 1, "ruvo_cli: hexists: absent\n"},
      {"lpush l a", 0, "1\n"}, {"lpush l b", 0, "2\n"}, {"lrange l 0 -1", 0, "b\na\n"},
      {"rpop l", 0, "a\n"}, {"lrem l 0 b", 0, ""},
      {"lrem l 0 b", 2, "ruvo_cli: lrem: no such element\n"},
      {"ltrim l 0 1", 0, ""}, {"sadd s 'a b'", 0, ""},
      {"sadd s 'a b'", 2, "ruvo_cli: sadd: already a member\n"},
      {"sismember s 'a b'", 0, ""}, {"smembers s", 0, "a b\n"}, {"srem s 'a b'", 0, ""},
      {"sismember s 'a b' --json", 2,
       R"({"command":"sismember","pool":"temp","result":-2,"text":"not a member"})"},
      {"raw EVAL 'return {1,{\"%s\",false}}' 0", 0, "1) 1\n2) 1) %s\n   2) (nil)\n"},
      {"--json raw EVAL 'return {1,{\"%s\",false}}' 0", 0,
       R"({"command":"raw","pool":"temp","result":0,"text":"success","value":[1,["%s",null]]})"},
      {"set j [12]", 0, ""}, {"get j", 0, "[12]\n"}, {"raw SET j [1,2]", 0, "OK\n"},
      {"raw -n GET j", 0, "[1,2]"}, {"raw GET none", 1, "(nil)\nruvo_cli: raw: not found\n"},
  };
  // clang-format on
  for (const auto& one : cases) {
    const ProgramResult run = tool.run(one.arguments);
    EXPECT_EQ(run.status, one.status) << one.arguments;
    const bool is_json = one.output.starts_with('{');
    EXPECT_EQ(run.output, one.output + (is_json ? "\n" : "")) << one.arguments;
  }
  EXPECT_EQ(shell("printf 'from here' | " + tool.command("set k --value-file -")).status, 0);
  EXPECT_EQ(tool.run("get k").output, "from here\n");
}

TEST(Cli, SaysWhatIsWrong) {
  const RedisServer redis;
  const Tool tool(all_pools_at(redis.addr()));
  const TempDir dir;
  const std::string with_zero = dir.write("zero", std::string("a\0b", 3));
  // clang-format off
  struct { std::string arguments; int status; std::string output_part; } const cases[] = {
      {"", 64, "A subcommand is required"}, {"fly", 64, "no such command: fly"},
      {"get", 64, "KEY is required"}, {"set k", 64, "VALUE or --value-file is required"},
      {"set k v --value-file f", 64, "excludes"},
      {"get k --pool best", 64, "--pool: best not in {temp,persist,personality}"},
      {"hincrby h n 1e3", 64, "INCREMENT: not a whole number from -9223372036854775808 to"},
      {"set k v --ttl 0", 64, "--ttl: not a whole number from 1 to 2147483647: 0"},
      {"raw", 64, "WORD is required"}, {"load --mix get=1,fly=2", 64, "'fly=2'"},
      {"load --mix get=", 64, "'get='"},
      {"set k --value-file /none", 66, "cannot read /none: No such file"},
      {"set k --value-file ''", 66, "cannot read : No such file"},
      {"set k --value-file /", 66, "cannot read /: Is a directory"},
      {"set k --value-file - <&-", 66, "cannot read standard input"},
      {"lrem k 0 --value-file " + with_zero, 64, "lrem: the value must not contain a zero byte"},
      {"get k --log-file /none/log", 74, "cannot write the log /none/log: No such file"},
      {"get k > /dev/full", 74, ""}, {"load --seconds 1 --keys 1 > /dev/full", 74, ""},
      {"get k --log-file /dev/full --log-level INFO", 74, "cannot write the log /dev/full"},
      {"--help > /dev/full", 74, ""}, {"--log-level TRACE get k 2>&-", 0, ""},
      {"load --mix raw=1 --raw ''", 64, "--raw has no words"},
      {"get -h", 0, "   1  the key or field is absent (library results 1, 10402)\n   3  no server"},
      {"sadd -h", 0, "   2  already a member (-2)"}, {"watch -h", 0, "   7  in the last round some servers were not up"},
      {"load -h", 0, "smembers raw\n"},
      {"raw Multi", 0, "raw: warning: Multi changes or blocks one connection"},
      {"raw client reply on", 0, "warning: client changes"},
      {"raw FLY", 3, "ERR unknown command 'FLY'"},
      {"--log-level INFO hlen none", 0, "hash_fields_num | do_exec_command success!"},
  };
  // clang-format on
  tool.run("set k v");
  for (const auto& one : cases) {
    expect_output(tool, one.arguments, one.status, {one.output_part});
  }
  EXPECT_EQ(shell("RUVO_CONFIG=" + tool.path() + " " RUVO_CLI " get k").output, "v\n");
  EXPECT_EQ(shell(std::string(RUVO_CLI) + " --version").output, "ruvo_cli " RUVO_VERSION "\n");
  EXPECT_EQ(tool.run("--log-file " + dir.path("log") + " raw FLY").status, 3);
  EXPECT_NE(content_of(dir.path("log")).find("ERROR"), std::string::npos);
}

TEST(Cli, LoadMeasuresAndCleansUp) {
  const RedisServer redis;
  const Tool tool(all_pools_at(redis.addr()), "p_connect_num = 2");
  std::string mix = "get=9";
  for (const Operation& operation : all_operations()) {
    mix += std::string(",") + operation.name + "=1";
  }
  expect_output(tool, "load --threads 2 --seconds 1 --keys 10 --mix " + mix, 0,
                {"   1 s  ", " 0 failed in this second\n", "failed      0\n", "99.9%  ", "####"});
  EXPECT_EQ(redis.ask("DBSIZE"), "0");
}

TEST(Cli, LoadCountsFailuresAndReportsRemainingKeys) {
  const RedisServer redis("--rename-command DEL ''");
  const Tool tool(all_pools_at(redis.addr()));
  const ProgramResult run = tool.run(
      "load --json --threads 1 --seconds 1 --keys 20 --mix set=1,raw=1 --raw 'HGET {key} f'");
  expect_result(run, "load", 3,
                {R"("keys_left":40,)", "up to 40 keys ruvo_cli:load:* could not be deleted"});
  EXPECT_EQ(run.output.find(R"("failed":0,)"), std::string::npos) << run.output;
  EXPECT_EQ(redis.ask("DBSIZE"), "40");
  EXPECT_EQ(redis.ask("TTL ruvo_cli:load:string:7").substr(0, 1), "3");  // of 3600
}

}  // namespace

// ruvo_cli, run as an operator runs it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "operations.h"
#include "servers.h"

namespace {

struct Ended {
  int status;
  std::string output;  // standard output, and standard error behind it where it was asked for
};

Ended shell(const std::string& command) {
  // NOLINTNEXTLINE(cert-env33-c): the commands of this file
  FILE* pipe = popen(command.c_str(), "re");
  std::string output;
  std::array<char, 4096> part{};
  for (std::size_t length = 1; length > 0; output.append(part.data(), length)) {
    length = fread(part.data(), 1, part.size(), pipe);
  }
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// The tool on a configuration of its own.
class Tool {
 public:
  explicit Tool(const std::string& common, const std::string& server = "")
      : config_(common, server) {}
  std::string command(const std::string& arguments) const {
    return std::string(RUVO_CLI) + " --config " + config_.path() + " " + arguments;
  }
  Ended run(const std::string& arguments) const { return shell(command(arguments) + " 2>&1"); }

 private:
  HostConfig config_;
};

TEST(Cli, RunsEveryOperation) {
  const RedisServer redis;
  const Tool tool(all_pools_at(redis.addr()));
  const TempDir dir;
  const std::string bytes = dir.write("bytes", std::string("a\0\xff", 3));
  struct {
    std::string arguments;
    int status;
    std::string output;
  } const cases[] = {
      {"set k v", 0, ""},
      {"get k", 0, "v\n"},
      {"get k -n", 0, "v"},
      {"--json get k", 0,
       R"({"command":"get","pool":"temp","result":0,"text":"success","value":"v"})"
       "\n"},
      {"get none", 1, "ruvo_cli: get: not found\n"},
      {"get none --json", 1,
       R"({"command":"get","pool":"temp","result":10402,"text":"not found"})"
       "\n"},
      {"append k w", 0, ""},
      {"exists k", 0, ""},
      {"exists none", 1, "ruvo_cli: exists: absent\n"},
      {"expire k 100", 0, ""},
      {"raw TTL k", 0, "100\n"},
      {"persist k", 0, ""},
      {"raw TTL k", 0, "-1\n"},
      {"del k", 0, ""},
      {"incr n --pool persist", 0, "1\n"},
      {"--pool personality --json incr n", 0,
       R"({"command":"incr","pool":"personality","result":0,"text":"success","value":2})"
       "\n"},
      {"set b --ttl 50 --value-file " + bytes, 0, ""},
      {"get b --json", 0,
       R"({"command":"get","pool":"temp","result":0,"text":"success","value":{"hex":"6100ff"}})"
       "\n"},
      {"raw TTL b", 0, "50\n"},
      {"hset h f -- -v", 0, ""},
      {"hget h f", 0, "-v\n"},
      {"hexists h f", 0, ""},
      {"hincrby h n -3", 0, "-3\n"},
      {"hlen h", 0, "2\n"},
      {"hdel h f", 0, ""},
      {"hexists h f", 1, "ruvo_cli: hexists: absent\n"},
      {"lpush l a", 0, "1\n"},
      {"lpush l b", 0, "2\n"},
      {"lrange l 0 -1", 0, "b\na\n"},
      {"rpop l", 0, "a\n"},
      {"lrem l 0 b", 0, ""},
      {"lrem l 0 b", 2, "ruvo_cli: lrem: nothing to do\n"},
      {"ltrim l 0 1", 0, ""},
      {"sadd s 'a b'", 0, ""},
      {"sadd s 'a b'", 2, "ruvo_cli: sadd: nothing to do\n"},
      {"sismember s 'a b'", 0, ""},
      {"smembers s", 0, "a b\n"},
      {"srem s 'a b'", 0, ""},
      {"raw EVAL 'return {1,{\"%s\",false}}' 0", 0, "1\n%s\n(nil)\n"},
      {"--json raw EVAL 'return {1,{\"%s\",false}}' 0", 0,
       R"({"command":"raw","pool":"temp","result":0,"text":"success","value":[1,["%s",null]]})"
       "\n"},
      {"set j [12]", 0, ""},
      {"get j", 0, "[12]\n"},
      {"raw SET j [1,2]", 0, "OK\n"},
      {"raw -n GET j", 0, "[1,2]"},
      {"raw GET none", 1, "(nil)\nruvo_cli: raw: not found\n"},
  };
  for (const auto& one : cases) {
    const Ended run = tool.run(one.arguments);
    EXPECT_EQ(run.status, one.status) << one.arguments;
    EXPECT_EQ(run.output, one.output) << one.arguments;
  }
  EXPECT_EQ(shell("printf 'from here' | " + tool.command("set k --value-file -")).status, 0);
  EXPECT_EQ(tool.run("get k").output, "from here\n");
}

TEST(Cli, SaysWhatIsWrong) {
  const RedisServer redis;
  const Tool tool(all_pools_at(redis.addr()));
  const TempDir dir;
  const std::string with_zero = dir.write("zero", std::string("a\0b", 3));
  struct {
    std::string arguments;
    int status;
    std::string told;
  } const cases[] = {
      {"", 64, "A subcommand is required"},
      {"fly", 64, "no such command: fly"},
      {"get", 64, "KEY is required"},
      {"set k", 64, "VALUE or --value-file is required"},
      {"set k v --value-file f", 64, "excludes"},
      {"get k --pool best", 64, "--pool: best not in {temp,persist,personality}"},
      {"hincrby h n 1e3", 64, "INCREMENT: not a whole number from -9223372036854775808 to"},
      {"set k v --ttl 0", 64, "--ttl: not a whole number from 1 to 2147483647: 0"},
      {"raw", 64, "WORD is required"},
      {"load --mix get=1,fly=2", 64, "'fly=2'"},
      {"load --mix get=", 64, "'get='"},
      {"set k --value-file /none", 66, "cannot read /none: No such file"},
      {"set k --value-file ''", 66, "cannot read : No such file"},
      {"set k --value-file /", 66, "cannot read /: Is a directory"},
      {"set k --value-file - <&-", 66, "cannot read standard input"},
      {"lrem k 0 --value-file " + with_zero, 64, "lrem: the value must not hold a zero byte"},
      {"get k --log-file /none/log", 74, "cannot write the log /none/log: No such file"},
      {"get k > /dev/full", 74, ""},
      {"load --seconds 1 --keys 1 > /dev/full", 74, ""},
      {"get k --log-file /dev/full --log-level INFO", 74, "cannot write the log /dev/full"},
      {"--help > /dev/full", 74, ""},
      {"--log-level TRACE get k 2>&-", 0, ""},
      {"raw FLY", 3, "ERR unknown command 'FLY'"},
      {"--log-level INFO hlen none", 0, "hash_fields_num | do_exec_command success!"},
  };
  tool.run("set k v");
  for (const auto& one : cases) {
    const Ended run = tool.run(one.arguments);
    EXPECT_EQ(run.status, one.status) << one.arguments;
    EXPECT_NE(run.output.find(one.told), std::string::npos) << one.arguments << ": " << run.output;
  }
  EXPECT_EQ(shell(std::string(RUVO_CLI) + " --config /none get k 2>/dev/null").status, 4);
  EXPECT_EQ(shell(std::string(RUVO_CLI) + " --version").output, "ruvo_cli " RUVO_VERSION "\n");
  EXPECT_EQ(tool.run("--log-file " + dir.path("log") + " raw FLY").status, 3);
  std::ifstream log(dir.path("log"));
  const std::string lines{std::istreambuf_iterator<char>(log), {}};
  EXPECT_NE(lines.find("ERROR"), std::string::npos);
}

TEST(Cli, CheckTellsOfPoolsServersAndConnections) {
  const RedisServer redis;
  const RedisServer guarded("--requirepass right");
  const DownServer down;
  const ScriptedServer silent([](Peer& peer) { peer.hang(); });
  const ScriptedServer closing([](Peer& peer) { peer.read_command(); });
  struct {
    std::string common;
    std::string server;
    int status;
    std::vector<std::string> told;
  } const cases[] = {
      {all_pools_at(redis.addr()),
       "p_connect_num = 2\nt_auto_eject_server = 0\nps_server_retry_timeout = 7",
       0,
       {"result         0, success",
        "temp         up     configured  2 to each server  after 5 failures, for 30 s",
        "persist      up     configured  2 to each server  never",
        "personality  up     configured  2 to each server  after 5 failures, for 7 s",
        "persist      " + redis.addr() + "  2/2\n"}},
      {pools_at(redis.addr() + "," + down.addr(), redis.addr(), redis.addr()),
       "p_connect_num = 3",
       7,
       {"temp         up in part", down.addr() + "  0/3  3 refused"}},
      {pools_at(down.addr(), redis.addr(), redis.addr()),
       "",
       5,
       {"result         1, the temporary pool failed"}},
      {pools_at("", redis.addr(), "here"),
       "",
       5,
       {"personality  an address list is empty or malformed (10109)", "invalid server addr:here"}},
      {pools_at(guarded.addr(), redis.addr(), silent.addr()) + "socket_timeout = 100",
       "p_password = wrong\nps_password = x",
       5,
       {"temp         no connection", guarded.addr() + "  0/1  1 wrong password",
        silent.addr() + "  0/1  1 password not answered"}},
      {pools_at(redis.addr(), redis.addr(), closing.addr()),
       "ps_password = x",
       5,
       {"personality  no connection", closing.addr() + "  0/1  1 closed on the password"}},
      {pools_at(guarded.addr(), redis.addr(), redis.addr()),
       "",
       5,
       {"temp         no answer to commands", "NOAUTH", "persist      up"}},
      {pools_at("127.0.0.1:3000000000," + redis.addr(), redis.addr(), redis.addr()),
       "p_server_failure_limit = -1",
       7,
       {"never", "0/1  1 no such port", "temp         up in part"}},
  };
  for (const auto& one : cases) {
    const Tool tool(one.common, one.server);
    const Ended run = tool.run("check");
    EXPECT_EQ(run.status, one.status) << run.output;
    for (const std::string& part : one.told) {
      EXPECT_NE(run.output.find(part), std::string::npos) << part << "\n" << run.output;
    }
    EXPECT_EQ(tool.run("check --json").output.substr(0, 2), "{\"");
  }
}

TEST(Cli, WatchFollowsAServerFromFailingToEjectedToRetried) {
  const RedisServer redis;
  const DownServer down;
  const Tool tool(all_pools_at(redis.addr() + "," + down.addr()),
                  "p_server_failure_limit = 1\np_server_retry_timeout = 2");
  const Ended run = tool.run("watch --rounds 4");
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.output.find(redis.addr() +
                            "  up                reads 8  failures 0  ejections 0  retries 0"),
            std::string::npos)
      << run.output;
  for (const std::string state :
       {"failing", "ejected", "retried, failing  reads 0  failures 2  ejections 1  retries 1"}) {
    EXPECT_NE(run.output.find(down.addr() + "  " + state), std::string::npos) << state << "\n"
                                                                              << run.output;
  }
}

TEST(Cli, LoadMeasuresAndCleansUp) {
  const RedisServer redis;
  const Tool tool(all_pools_at(redis.addr()), "p_connect_num = 2");
  std::string mix = "get=9";
  for (const Operation& operation : all_operations()) {
    mix += std::string(",") + operation.name + "=1";
  }
  const Ended run = tool.run("load --threads 2 --seconds 1 --keys 10 --mix " + mix);
  EXPECT_EQ(run.status, 0) << run.output;
  for (const std::string part : {"   1 s  ", " 0 failed\n", "failed      0\n", "99.9%  ", "####"}) {
    EXPECT_NE(run.output.find(part), std::string::npos) << part << "\n" << run.output;
  }
  EXPECT_EQ(redis.ask("DBSIZE"), "0");
}

}  // namespace

// What ruvo_cli says about configurations and servers: check, watch, and what every command says
// about files and passwords.
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli_tool.h"
#include "server_states.h"
#include "servers.h"
#include "settings.h"
#include "settings_review.h"

namespace {

using nlohmann::json;

TEST(CliCheck, ShowsPoolsServersAndConnections) {
  const RedisServer redis;
  const RedisServer guarded("--requirepass right");
  const DownServer down;
  const DownServer other;
  const std::string twice_failed =
      "  failing           reads 0  failures 2  ejections 0  retries 0  refused\n";
  // clang-format off
  struct { std::string common; std::string server; int status; std::vector<std::string> output_parts; std::string arguments = "check"; }
      const cases[] = {
      {all_pools_at(redis.addr()),
       "p_connect_num = 2\nt_auto_eject_server = 0\nps_server_retry_timeout = 7", 0,
       {"result         0, success\n",
        "temp         up     configured  2 to each server  after 5 failures, for 30 s",
        "persist      up     configured  2 to each server  never",
        "personality  up     configured  2 to each server  after 5 failures, for 7 s",
        "persist      " + redis.addr() + "  2/2          up\n"}},
      {all_pools_at(redis.addr()) + "eject_silent_servers = 1\nlog_limit = 9\ncall_timeout = 1500",
       "", 0,
       {"options        eject_silent_servers true\n               log_limit 9 lines\n"
        "               call_timeout 1500 ms\n"}},
      {pools_at(redis.addr() + "," + down.addr(), redis.addr(), redis.addr()), "p_connect_num = 3",
       7,
       {"temp         up in part", down.addr() + "  0/3          refused  nothing listens at the address"}},
      {pools_at(down.addr(), redis.addr(), redis.addr()), "", 5,
       {"result         1, the temporary pool failed; not usable: temp (refused)\n"}},
      {all_pools_at(guarded.addr()), "p_password = wrong\nt_password = wrong\nps_password = right",
       5,
       {"result         0, success; not usable: temp (wrong password), persist (wrong password)\n"}},
      {pools_at(down.addr(), down.addr(), down.addr()), "", 5,
       {"result         3,", "personality  refused"}},
      {pools_at("", redis.addr(), "here"), "", 5,
       {"personality  an address list is empty or malformed (10109)", "'here' is not host:port",
        "invalid server addr:here"}},
      {all_pools_at(redis.addr()), "p_conect_num = 2\np_server_failure_limit = -1", 8,
       {"never", "the library does not read key"}},
      {all_pools_at(redis.addr()), "p_connect_num = 0", 5,
       {"no connection", "no connections are configured"}},
      {all_pools_at(redis.addr()), "", 0,
       {"\nworth setting:\nrecommended_defaults = true switches on "}},
      {all_pools_at(redis.addr() + "," + down.addr()),
       "p_server_failure_limit = 1\np_server_retry_timeout = 2", 7,
       {redis.addr() + "  up                reads 8  failures 0  ejections 0  retries 0\n",
        down.addr() + "  failing", down.addr() + "  ejected",
        down.addr() + "  retried, failing  reads 0  failures 2  ejections 1  retries 1  refused\n"},
       "watch --rounds 4"},
      // A walk that is back at its first server ejects none.
      {pools_at(down.addr() + "," + other.addr(), redis.addr(), redis.addr()), "", 5,
       {down.addr() + twice_failed, other.addr() + twice_failed}, "watch --rounds 1"},
  };
  // clang-format on
  for (const auto& one : cases) {
    expect_output(Tool(one.common, one.server), one.arguments, one.status, one.output_parts);
  }
}

TEST(CliCheck, ProbesEveryServerDirectly) {
  const RedisServer redis;
  const RedisServer guarded("--requirepass right");
  const DownServer down;
  const ScriptedServer silent([](Peer& peer) { peer.hang(); });
  const ScriptedServer closing([](Peer& peer) { peer.read_command(); });
  const ScriptedServer web("HTTP/1.1 400 Bad Request\r\n\r\n");
  const ScriptedServer not_redis("+OK\r\n");
  const ScriptedServer strange("-ERR no \x1b such thing\r\n");
  RedisServer loading;
  restart_loading(loading);
  const RedisServer full;
  const ClientLimit limit(full);
  const RedisServer replica;
  become_replica(replica, redis);
  const RedisServer without_primary;
  become_replica_without_primary(without_primary);
  const RedisServer stale("--replicaof 127.0.0.1 " + std::to_string(down.port()));
  const std::string hung = "hung accepts connections but does not answer within 100 ms";
  const std::string closed = "closed closes the connection on the first command";
  const std::string not_redis_text =
      "not a Redis something else answers at the address, or a Redis behind TLS";
  const std::map<std::string, std::string> states{
      {"temp " + redis.addr(), "up "},
      {"temp " + guarded.addr(),
       "no password given requires a password, and p_password is not set"},
      {"temp " + down.addr(), "refused nothing listens at the address"},
      {"temp " + silent.addr(), hung},
      {"temp " + closing.addr(), closed},
      {"temp " + web.addr(), not_redis_text},
      {"temp " + not_redis.addr(), not_redis_text},
      {"temp " + strange.addr(), "error reply ERR no ? such thing"},
      {"temp " + loading.addr(),
       "loading is loading its data, and answers no command until that is done"},
      {"temp " + full.addr(),
       "at its limit of clients closes every further connection: see its maxclients"},
      {"temp " + replica.addr(),
       "replica follows " + redis.addr() + ", and answers writes with READONLY"},
      {"temp " + without_primary.addr(),
       "replica without its primary its link to its primary is down, and it answers no command "
       "until the link is up"},
      {"temp " + stale.addr(), "replica without its primary follows " + down.addr() +
                                   ", but the link is down (connect): its data may be old, and it "
                                   "answers writes with READONLY"},
      {"temp a..b:1",
       "no such name the resolver does not know the name: Name or service not known"},
      {"temp 127.0.0.1:70000", "no such port a port is a number from 1 to 65535"},
      {"persist " + guarded.addr(), "wrong password rejects the value of t_password"},
      {"persist " + redis.addr(),
       "no password wanted has no password, and rejects the one in t_password"},
      {"persist " + silent.addr(), hung},
      {"persist " + closing.addr(), closed},
      {"personality " + redis.addr(), "up "},
  };
  std::map<std::string, std::string> lists;
  for (const auto& [server, state] : states) {
    const std::size_t blank = server.find(' ');
    std::string& list = lists[server.substr(0, blank)];
    list += (list.empty() ? "" : ",") + server.substr(blank + 1);
  }
  const Tool tool(
      pools_at(lists["temp"], lists["persist"], lists["personality"]) + "socket_timeout = 100",
      "t_password = secret");
  const ProgramResult run = tool.run("--json check");
  EXPECT_EQ(run.status, 5);
  const json report = json::parse(run.output);
  std::map<std::string, std::string> found;
  for (const json& pool : report["pools"]) {
    const std::string name = pool["pool"];
    EXPECT_EQ(pool["usable"], name != "persist");
    for (const json& server : pool["servers"]) {
      found[name + " " + std::string(server["address"])] =
          std::string(server["state"]) + " " + std::string(server["reason"]);
    }
  }
  EXPECT_EQ(found, states);
}

// ---- The keys that a configuration lacks ----

std::map<std::string, std::string> advice_for(const std::string& common) {
  const json report = json::parse(Tool(common).run("--json check").output);
  std::map<std::string, std::string> advice;
  for (const json& one : report["advice"]) {
    advice[one["key"]] = one["value"].get<std::string>() + ": " + one["reason"].get<std::string>();
  }
  return advice;
}

TEST(CliCheck, RecommendsMissingKeys) {
  const RedisServer redis;
  std::string all_keys;
  for (const setting& key : all_settings()) {
    if (key.is_option() && key.name != "recommended_defaults" && *key.recommended != '\0') {
      all_keys += key.name + " = " + key.recommended + "\n";
    }
  }
  const std::vector<std::pair<std::string, bool>> cases{
      {"", true},
      {"auto_pipelining = true\ncall_timeout = 10", true},
      {"recommended_defaults = true", false},
      {"recommended_defaults = true\nlog_limit = 0\nwait_for_servers = false", false},
      {"recommended_defaults = false", false},
      {all_keys, false},
  };
  for (const auto& [keys, is_advised] : cases) {
    EXPECT_EQ(advice_for(all_pools_at(redis.addr()) + keys).size(), is_advised ? 1 : 0) << keys;
  }
  const std::string reason =
      advice_for(all_pools_at(redis.addr()) + "auto_pipelining = 0")["recommended_defaults"];
  EXPECT_EQ(reason.find("auto_pipelining"), std::string::npos) << reason;
  EXPECT_NE(reason.find(", call_timeout 2000,"), std::string::npos) << reason;
}

TEST(CliCheck, RecommendsRepliesThatItHasSeen) {
  const RedisServer redis;
  const RedisServer replica;
  become_replica(replica, redis);
  const std::string common =
      pools_at(redis.addr() + "," + replica.addr(), redis.addr(), redis.addr());
  EXPECT_EQ(advice_for(common + "recommended_defaults = 1\nfailover_replies = LOADING"),
            (std::map<std::string, std::string>{{"failover_replies",
                                                 "LOADING,READONLY: makes calls fail over on "
                                                 "replies that end them now: READONLY from temp " +
                                                     replica.addr()}}));
  EXPECT_TRUE(advice_for(common + "recommended_defaults = 1").empty());
  expect_output(Tool(common), "check", 7, {"temp         up in part", "replica  follows"});
}

TEST(CliCheck, ListsSettingsThatAreNotReadAsWritten) {
  // clang-format off
  const struct { std::string content; std::vector<std::string> findings; } cases[] = {
      {"; all is well\r\n[Common]\r\nTEMP_server = a:1, b:0x10\r\nlog_limit = "
       "5\n[server]\np_auto_eject_server=True\n",
       {"3 temp_server: port 0x10 of 'b:0x10' is read as 16"}},
      {"x = 1\n[servers]\ny = 1\n[common]\np_connect_num = 1\nconect_timeout = 1\n",
       {"1 the line is before the first section: it is skipped",
        "2 the library does not read section [servers]",
        "5 the library does not read key p_connect_num here: it belongs to section [server]",
        "6 the library does not read key conect_timeout"}},
      {"[common]\nsocket_timeout = 200 # ms\nconnect_timeout = 0.2\ncall_timeout = -1\nlog_limit = "
       "9999999999\n",
       {"2 socket_timeout = 200 # ms is not a whole number: 200 is used",
        "3 connect_timeout = 0.2 is not a whole number: 0 is used",
        "4 call_timeout = -1 is not a number from 0 to 2147483647: the default, 0, is used",
        "5 log_limit = 9999999999 is not a number from 0 to 2147483647: the default, 0, is used"}},
      {"[common]\nauto_pipelining = yes\n[server]\nt_auto_eject_server = off\np_connect_num = "
       "-2\nps_password =\n",
       {"2 auto_pipelining = yes is not true, 1, false or 0: the default, false, is used",
        "4 t_auto_eject_server = off is not true, 1, false or 0: the default, true, is used",
        "5 p_connect_num = -2 is negative: the default, 1, is used",
        "6 ps_password is empty: it counts as absent"}},
      {"[common]\nwait_for_servers = true\nfailover_replies = ,\nslow_call_log = 1s\n",
       {"2 wait_for_servers = true needs a call_timeout: it counts as absent",
        "4 slow_call_log = 1s is not a number from 0 to 2147483647: the default, 0, is used"}},
      {"[common]\nlog_limit = few\nrecommended_defaults = true\n",
       {"2 log_limit = few is not a number from 0 to 2147483647: the default, 5, is used"}},
      {"[common]\ntemp_server = a:70000,b,c:x\n[server]\np_connect_num = 1\np_connect_num = "
       "2\n[Server]\nz = 1\np_word\n",
       {"2 temp_server: port 70000 of 'a:70000' is not from 1 to 65535: the library never connects to it",
        "2 temp_server: 'b' is not host:port: the whole list is refused",
        "2 temp_server: port x of 'c:x' is not from 1 to 65535: the library never connects to it",
        "5 p_connect_num is already in line 4: that one is read",
        "6 section [Server] is already in line 3: only that one is read",
        "8 the line is not a section, a setting or a comment: it is skipped"}},
      {"[server]\np_password = one\n",
       {"0 p_password is set and t_password is not: a rebuilt connection sends no password"}},
      {"[server]\np_password = one\nt_password = two\n",
       {"0 p_password and t_password differ: a rebuilt connection sends t_password",
        "0 t_password is set and ps_password is not: a rebuilt connection of that pool sends "
        "t_password"}},
  };
  // clang-format on
  const TempDir dir;
  for (const auto& one : cases) {
    std::vector<std::string> findings;
    for (const Finding& finding : review_settings(dir.write("settings", one.content))) {
      findings.push_back(std::to_string(finding.line) + " " + finding.text);
    }
    EXPECT_EQ(findings, one.findings) << one.content;
  }
}

TEST(CliCheck, NamesAnUnusableFile) {
  const TempDir dir;
  const std::string none = dir.path("none");
  const std::string empty = dir.write("empty", "[redis_cfg]\n");
  const std::string gone = dir.write("gone", "[redis_cfg]\nredis_cfg_path = " + none + "\n");
  const std::string relative = dir.write("astray", "[redis_cfg]\nredis_cfg_path = stray.conf\n");
  // clang-format off
  const struct { std::string config; std::string output_part; } cases[] = {
      {none, "cannot open " + none + ": No such file or directory (10115)\n"},
      {"/", "start-up failed: /: Is a directory (10106)\n"},
      {empty, empty + ": no redis_cfg_path in section [redis_cfg] (10106)\n"},
      {gone, "cannot open " + none + ": No such file or directory; it is the redis_cfg_path of " +
       gone + " (-1)\n"},
      {relative, "relative to the working directory " + std::filesystem::current_path().string() +
       " (-1)\n"},
  };
  // clang-format on
  for (const auto& one : cases) {
    for (const std::string command : {"check", "watch", "load", "get k", "raw PING"}) {
      const ProgramResult run = shell(RUVO_CLI " --config " + one.config + " " + command + " 2>&1");
      expect_result(run, command, 4, {one.output_part});
      EXPECT_TRUE(run.output.starts_with("ruvo_cli: start-up failed: ")) << run.output;
    }
  }
}

TEST(CliCheck, HidesPasswordsUnlessAskedForThem) {
  const RedisServer guarded("--requirepass right");
  const Tool tool(all_pools_at(guarded.addr()),
                  "p_password = secret\nt_password = secret\nps_password = secret");
  const TempDir dir;
  for (const std::string arguments :
       {"check", "get k", "--log-level TRACE get k", "watch --rounds 1"}) {
    EXPECT_EQ(tool.run(arguments).output.find("secret"), std::string::npos) << arguments;
  }
  tool.run("--log-file " + dir.path("log") + " get k");
  EXPECT_EQ(content_of(dir.path("log")).find("secret"), std::string::npos);
  expect_output(tool, "--show-passwords --log-level WARN get k", 3, {"passwd = secret\n"});
}

// Without the signal it would end after a minute.
TEST(CliWatch, EndsCleanlyOnASignal) {
  const RedisServer redis;
  const Tool tool(all_pools_at(redis.addr()));
  const TempDir dir;
  for (const std::string signal : {"INT", "TERM"}) {
    const std::string out = dir.path(signal);
    const ProgramResult run = shell(tool.command("watch --rounds 60") + " >" + out +
                                    " & until grep -q reads " + out + "; do :; done; kill -" +
                                    signal + " $!; wait $!; echo $? $(grep -c reads " + out + ")");
    EXPECT_TRUE(run.output.starts_with("0 ")) << run.output;
    EXPECT_NE(run.output, "0 60\n");
  }
}

TEST(CliWatch, StartsTheLibraryWhenTheFirstServerAnswers) {
  RedisServer redis;
  const Tool tool(all_pools_at(redis.addr()));
  redis.kill();
  expect_output(
      tool, "watch --rounds 1", 5,
      {"no server of the temporary or the persistent pool answers", "not started", "  refused\n"});
  const TempDir dir;
  ProgramResult watched{};
  std::jthread watch([&] {
    watched = shell("timeout 30 " + tool.command("watch --json") + " 2>&1 | tee " +
                    dir.path("out") + " | grep -m 1 '\"state\":\"up\"'");
  });
  EXPECT_TRUE(eventually(
      [&] { return content_of(dir.path("out")).find("not started") != std::string::npos; }));
  redis.restart();
  watch.join();
  EXPECT_EQ(watched.status, 0);
}

}  // namespace

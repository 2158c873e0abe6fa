// ruvo_chaos on an operator's servers. CTest itself runs it on its own servers.
#include <gtest/gtest.h>

#include "servers.h"
#include "shell.h"

namespace {

ProgramResult chaos_on(const std::string& addr, const std::string& options,
                       const std::string& server = "") {
  const HostConfig config(all_pools_at(addr), server);
  return shell(std::string(RUVO_CHAOS) + " --seconds 1 --threads 1 --config " + config.path() +
               " " + options + " 2>&1");
}

void expect_refusal(const ProgramResult& run, const std::string& why) {
  EXPECT_EQ(run.status, 2) << run.output;
  EXPECT_NE(run.output.find(why), std::string::npos) << run.output;
}

TEST(Chaos, RefusesServersThatHoldOtherKeys) {
  const RedisServer redis;
  // Keys of ruvo_chaos fill the first pages of a scan.
  redis.ask("EVAL 'for i = 1, 9999 do redis.call(\"SET\", \"ruvo_workload:x\" .. i, \"x\") end' 0");
  redis.ask("SET somebody:1 x");
  expect_refusal(chaos_on(redis.addr(), ""), "somebody:1");
  EXPECT_EQ(redis.ask("DBSIZE"), "10000");
  const ProgramResult throwaway = chaos_on(redis.addr(), "--throwaway");
  EXPECT_EQ(throwaway.status, 0) << throwaway.output;

  redis.ask("DEL somebody:1");
  EXPECT_NE(redis.ask("DBSIZE"), "0");  // the keys of the previous run
  const ProgramResult own = chaos_on(redis.addr(), "");
  EXPECT_EQ(own.status, 0) << own.output;

  redis.ask("-n 3 SET somebody:1 x");
  expect_refusal(chaos_on(redis.addr(), ""), "db3");
}

TEST(Chaos, RefusesServersThatDoNotShowTheirKeys) {
  const DownServer down;
  expect_refusal(chaos_on(down.addr(), ""), "Connection refused");
  const ScriptedServer unable("-ERR unknown command\r\n");
  expect_refusal(chaos_on(unable.addr(), ""), "ERR unknown command");
  const ScriptedServer closes([](Peer& peer) { peer.read_command(); });  // as nutcracker does
  expect_refusal(chaos_on(closes.addr(), ""), "does not show its keys");
  const RedisServer locked("--requirepass right");
  expect_refusal(chaos_on(locked.addr(), "", "p_password = wrong"), "WRONGPASS");
}

}  // namespace

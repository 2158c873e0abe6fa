// Hosts that were built for an earlier version.
#include <gtest/gtest.h>

#include "servers.h"
#include "shell.h"

namespace {

TEST(BinaryInterface, AHostOfVersion1Runs) {
  const RedisServer temp;
  const RedisServer persist;
  const HostConfig config("connect_timeout = 10000\nsocket_timeout = 10000\n" +
                          pools_at(temp.addr(), persist.addr(), temp.addr()));
  const ProgramResult run = shell(std::string(HOST_1_0) + " " + config.path() + " 2>&1");
  EXPECT_EQ(run.status, 0) << run.output;
}

}  // namespace

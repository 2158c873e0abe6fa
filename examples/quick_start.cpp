// The smallest host, complete: starts a Redis of its own to talk to, stores a value and reads it
// back. Needs no arguments, no configuration and no server.
#include <ruvo/ruvo.h>
#include <stream_log/logger.h>

#include <cstdio>
#include <exception>

#include "sandbox.h"

namespace {

int run() {
  const RedisServer redis;
  const HostConfig config(all_pools_at(redis.addr()));
  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);

  if (const int ret = RUVO_Init(config.path())) {
    std::printf("RUVO_Init: %s\n", ruvo_result_text(ret));
    return 1;
  }
  RUVO_InsertKey("user:7", "Ada", 3, 3600, eTempServer, nullptr);

  const char* data = nullptr;
  unsigned long len = 0;
  if (RUVO_QueryKey("user:7", &data, &len, eTempServer, nullptr) == RUVO_OK) {
    std::printf("user:7 is %.*s\n", static_cast<int>(len), data);
    RUVO_FreeResult(data);
  }
  return RUVO_Fini();
}

}  // namespace

int main() {
  try {
    return run();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "quick_start: %s\n", failure.what());
    return 2;
  }
}

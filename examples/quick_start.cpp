// The smallest host, complete: starts a Redis of its own to talk to, stores a value and reads it
// back. Needs no arguments, no configuration and no server.
#include <stream_log/logger.h>
#include <ruvo/ruvo.hpp>

#include <exception>
#include <iostream>

#include "sandbox.h"

namespace {

int run() {
  const RedisServer redis;
  const HostConfig config(all_pools_at(redis.addr()));
  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);

  const ruvo::library library(config.path());
  if (!library) {
    std::cerr << "ruvo: " << ruvo_result_text(library.code()) << '\n';
    return 1;
  }
  const ruvo::pool temp(eTempServer);
  temp.set("user:7", "Ada", std::chrono::hours(1)).value();  // throws when it failed
  std::cout << "user:7 is " << std::string_view(temp.get("user:7").value()) << '\n';
  return 0;
}

}  // namespace

int main() {
  try {
    return run();
  } catch (const std::exception& failure) {
    std::cerr << "quick_start: " << failure.what() << '\n';
    return 2;
  }
}

// Access for tests that look inside the library.
#ifndef RUVO_TESTING_CLIENT_H
#define RUVO_TESTING_CLIENT_H

#include "host.h"
#include "ruvo_redis.h"

// The library itself shows its pools to readers only; tests also change them.
inline server_pool& pool_in(const ruvo_redis& client, RedisServerType type = eTempServer) {
  return const_cast<server_pool&>(client.getPool(type));
}

// Starts a client and lets go of the shared reader, so that the next one reads its own files.
inline int init_client(ruvo_redis& client, const HostConfig& config) {
  const QuietConsole quiet;
  const int ret = client.init(config.path());
  ruvo_cfg.close();
  return ret;
}

#endif

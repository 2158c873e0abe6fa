// Access to the library's internals, for tests.
#ifndef RUVO_TESTING_CLIENT_H
#define RUVO_TESTING_CLIENT_H

#include "host.h"
#include "ruvo_redis.h"

// The library gives read access to its pools; tests also change them.
inline server_pool& pool_in(const ruvo_redis& client, RedisServerType type = eTempServer) {
  return const_cast<server_pool&>(client.getPool(type));
}

// Starts a client and closes the shared reader, so that the next client reads its own files.
inline int init_client(ruvo_redis& client, const HostConfig& config) {
  const QuietConsole quiet;
  const int ret = client.init(config.path());
  ruvo_cfg.close();
  return ret;
}

#endif

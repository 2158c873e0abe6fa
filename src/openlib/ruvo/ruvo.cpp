// The exported functions: each fetches the one instance and calls one method of it.
#include "ruvo.h"

#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>
#include <pthread.h>

#include "ruvo_redis.h"

namespace {

// A cancelled thread finishes its call: one that left in the middle of an exchange would leave a
// reply behind for the connection's next user.
class cancellation_block {
 public:
  cancellation_block() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
  ~cancellation_block() { pthread_setcancelstate(previous_, nullptr); }
  cancellation_block(const cancellation_block&) = delete;
  cancellation_block& operator=(const cancellation_block&) = delete;

 private:
  int previous_ = PTHREAD_CANCEL_ENABLE;
};

// The instance is made by the first call and lives until the process ends, so that threads that
// still run then find it.
ruvo_redis* instance() { return ACE_Unmanaged_Singleton<ruvo_redis, ACE_Null_Mutex>::instance(); }

// Calls the instance; `failure` is the result when there is none, or when memory runs out in the
// call. No exception leaves the library.
template <typename Result, typename Method, typename... Args>
Result forward(Result failure, Method method, Args... args) noexcept {
  const cancellation_block block;
  try {
    ruvo_redis* redis = instance();
    return redis != nullptr ? (redis->*method)(args...) : failure;
  } catch (...) {
    return failure;
  }
}

template <typename Method, typename... Args>
int forward_code(Method method, Args... args) noexcept {
  return forward<int>(RUVO_ERR_NO_MEMORY, method, args...);
}

RedisServerType pool(int redisSrvType) { return static_cast<RedisServerType>(redisSrvType); }

}  // namespace

int RUVO_Init(const char* config) { return forward_code(&ruvo_redis::init, config); }

int RUVO_Fini(void) { return forward_code(&ruvo_redis::fini); }

int RUVO_InsertKey(const char* key, const char* data, unsigned long len, int time_out,
                   int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::insert_key, key, data, len, time_out, pool(redisSrvType),
                      server_addr);
}

int RUVO_AppendKey(const char* key, const char* data, unsigned long len, int redisSrvType,
                   const char* server_addr) {
  return forward_code(&ruvo_redis::append_key, key, data, len, pool(redisSrvType), server_addr);
}

int RUVO_IncreaseKey(const char* key, long long* value, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::increase_key, key, value, pool(redisSrvType), server_addr);
}

int RUVO_QueryKey(const char* key, const char** data, unsigned long* len, int redisSrvType,
                  const char* server_addr) {
  return forward_code(&ruvo_redis::query_key, key, data, len, pool(redisSrvType), server_addr);
}

int RUVO_ExistsKey(const char* key, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::exists_key, key, pool(redisSrvType), server_addr);
}

int RUVO_FreeResult(const char* data) { return forward_code(&ruvo_redis::free_result, data); }

int RUVO_DeleteKey(const char* key, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::delete_key, key, pool(redisSrvType), server_addr);
}

int RUVO_ExpireKey(const char* key, unsigned int time_out, int redisSrvType,
                   const char* server_addr) {
  return forward_code(&ruvo_redis::expire_key, key, time_out, pool(redisSrvType), server_addr);
}

int RUVO_PersistKey(const char* key, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::persist_key, key, pool(redisSrvType), server_addr);
}

// The exported functions: each fetches the one instance and calls one method of it.
#include "ruvo.h"

#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>
#include <pthread.h>

#include <functional>
#include <type_traits>

#include "ruvo_redis.h"
#include "statistics.h"

namespace {

// A cancelled thread finishes its call: leaving in the middle of an exchange would leave a reply
// for the connection's next user.
class cancellation_block {
 public:
  cancellation_block() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
  ~cancellation_block() { pthread_setcancelstate(previous_, nullptr); }
  cancellation_block(const cancellation_block&) = delete;
  cancellation_block& operator=(const cancellation_block&) = delete;

 private:
  int previous_ = PTHREAD_CANCEL_ENABLE;
};

// The first call creates the instance. It is never destroyed: other threads may still call the
// library while the process ends.
ruvo_redis* instance() { return ACE_Unmanaged_Singleton<ruvo_redis, ACE_Null_Mutex>::instance(); }

// Operations name their pool and are counted there.
pool_stats* stats_of(ruvo_redis& redis, RedisServerType pool) { return redis.getPool(pool).stats_; }
template <typename Other>
pool_stats* stats_of(ruvo_redis& /*redis*/, const Other& /*argument*/) {
  return nullptr;
}

// Calls the instance. Returns `failure` if there is none, or if memory runs out in the call. No
// exception leaves the library.
template <typename Result, typename Method, typename... Args>
Result forward(Result failure, Method method, Args... args) noexcept {
  const cancellation_block block;
  call_timer timer;
  Result result = failure;
  try {
    if (ruvo_redis* redis = instance()) {
      (timer.begin(stats_of(*redis, args)), ...);
      result = std::invoke(method, *redis, args...);
    }
  } catch (...) {
    note_cause(RUVO_STATS_NO_MEMORY);
  }
  timer.end(result);
  return result;
}

template <typename Method, typename... Args>
int forward_code(Method method, Args... args) noexcept {
  return forward<int>(RUVO_ERR_NO_MEMORY, method, args...);
}

// The same for a method that fills a container of the caller, which is cleared if memory runs out.
template <typename Method, typename Container, typename... Args>
int forward_filling(Container& container, Method method, Args... args) noexcept {
  const int ret = forward_code(method, args...);
  if (ret == RUVO_ERR_NO_MEMORY) {
    container.clear();
  }
  return ret;
}

RedisServerType pool_type(int redisSrvType) { return static_cast<RedisServerType>(redisSrvType); }

}  // namespace

int RUVO_Init(const char* config) { return forward_code(&ruvo_redis::init, config); }

int RUVO_Fini(void) { return forward_code(&ruvo_redis::fini); }

int RUVO_InsertKey(const char* key, const char* data, unsigned long len, int time_out,
                   int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::insert_key, key, data, len, time_out, pool_type(redisSrvType),
                      server_addr);
}

int RUVO_AppendKey(const char* key, const char* data, unsigned long len, int redisSrvType,
                   const char* server_addr) {
  return forward_code(&ruvo_redis::append_key, key, data, len, pool_type(redisSrvType),
                      server_addr);
}

int RUVO_IncreaseKey(const char* key, long long* value, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::increase_key, key, value, pool_type(redisSrvType), server_addr);
}

int RUVO_QueryKey(const char* key, const char** data, unsigned long* len, int redisSrvType,
                  const char* server_addr) {
  return forward_code(&ruvo_redis::query_key, key, data, len, pool_type(redisSrvType), server_addr);
}

int RUVO_ExistsKey(const char* key, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::exists_key, key, pool_type(redisSrvType), server_addr);
}

int RUVO_FreeResult(const char* data) { return forward_code(&ruvo_redis::free_result, data); }

int RUVO_DeleteKey(const char* key, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::delete_key, key, pool_type(redisSrvType), server_addr);
}

int RUVO_ExpireKey(const char* key, unsigned int time_out, int redisSrvType,
                   const char* server_addr) {
  return forward_code(&ruvo_redis::expire_key, key, time_out, pool_type(redisSrvType), server_addr);
}

int RUVO_PersistKey(const char* key, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::persist_key, key, pool_type(redisSrvType), server_addr);
}

int RUVO_HashSet(const char* key, const char* field, unsigned long f_len, const char* value,
                 unsigned long v_len, int time_out, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::hash_set, key, field, f_len, value, v_len, time_out,
                      pool_type(redisSrvType), server_addr);
}

int RUVO_HashGet(const char* key, const char* field, unsigned long f_len, const char** value,
                 unsigned long* v_len, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::hash_get, key, field, f_len, value, v_len,
                      pool_type(redisSrvType), server_addr);
}

int RUVO_HashFieldExist(const char* key, const char* field, unsigned long f_len, int redisSrvType,
                        const char* server_addr) {
  return forward_code(&ruvo_redis::hash_field_exist, key, field, f_len, pool_type(redisSrvType),
                      server_addr);
}

int RUVO_HashIncrBy(const char* key, const char* field, unsigned long f_len, long long increment,
                    long long* result, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::hash_incr_by, key, field, f_len, increment, result,
                      pool_type(redisSrvType), server_addr);
}

int RUVO_HashFieldsNum(const char* key, long long* fields_num, int redisSrvType,
                       const char* server_addr) {
  return forward_code(&ruvo_redis::hash_fields_num, key, fields_num, pool_type(redisSrvType),
                      server_addr);
}

int RUVO_HashDelField(const char* key, const char* field, unsigned long f_len, int redisSrvType,
                      const char* server_addr) {
  return forward_code(&ruvo_redis::hash_del_field, key, field, f_len, pool_type(redisSrvType),
                      server_addr);
}

void* RUVO_ExecRedisCmd(int redisSrvType, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  void* reply = RUVO_ExecRedisvCmd(redisSrvType, format, ap);
  va_end(ap);
  return reply;
}

void* RUVO_ExecRedisvCmd(int redisSrvType, const char* format, va_list ap) {
  return forward<void*>(nullptr, &ruvo_redis::exec_redis_cmd, format, ap, pool_type(redisSrvType));
}

void RUVO_FreeReplyObject(void* reply) {
  forward(RUVO_OK, [reply](ruvo_redis& redis) {
    redis.free_reply_object(reply);
    return RUVO_OK;
  });
}

int RUVO_LRem(const char* key, int count, const char* value, int redisSrvType,
              const char* server_addr) {
  return forward_code(&ruvo_redis::list_rem, key, count, value, pool_type(redisSrvType),
                      server_addr);
}

int RUVO_LPush(const char* key, const char* value, size_t length, int timeout, long long* count,
               int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::list_push, key, value, length, timeout, count,
                      pool_type(redisSrvType), server_addr);
}

int RUVO_RPop(const char* key, std::string& value, int redisSrvType, const char* server_addr) {
  return forward_filling(value, &ruvo_redis::list_rpop, key, std::ref(value),
                         pool_type(redisSrvType), server_addr);
}

int RUVO_LRange(const char* key, int start, int end, std::vector<std::string>& value,
                int redisSrvType, const char* server_addr) {
  return forward_filling(value, &ruvo_redis::list_range, key, start, end, std::ref(value),
                         pool_type(redisSrvType), server_addr);
}

int RUVO_LTrim(const char* key, int start, int end, int redisSrvType, const char* server_addr) {
  return forward_code(&ruvo_redis::list_trim, key, start, end, pool_type(redisSrvType),
                      server_addr);
}

int RUVO_SAdd(const char* key, const char* data, size_t len, int redisSrvType,
              const char* server_addr) {
  return forward_code(&ruvo_redis::set_add, key, data, len, pool_type(redisSrvType), server_addr);
}

int RUVO_SRem(const char* key, const char* data, size_t len, int redisSrvType,
              const char* server_addr) {
  return forward_code(&ruvo_redis::set_rem, key, data, len, pool_type(redisSrvType), server_addr);
}

int RUVO_SIsmember(const char* key, const char* data, size_t len, int redisSrvType,
                   const char* server_addr) {
  return forward_code(&ruvo_redis::set_ismember, key, data, len, pool_type(redisSrvType),
                      server_addr);
}

int RUVO_SMembers(const char* key, std::vector<std::string>& value, int redisSrvType,
                  const char* server_addr) {
  return forward_filling(value, &ruvo_redis::set_members, key, std::ref(value),
                         pool_type(redisSrvType), server_addr);
}

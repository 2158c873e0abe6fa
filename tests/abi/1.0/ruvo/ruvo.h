// As version 1.0 had it, without comments.
#ifndef RUVO_RUVO_H
#define RUVO_RUVO_H
#include <stdarg.h>
#include <stddef.h>
#ifdef __cplusplus
#include <string>
#include <vector>
#endif
#define RUVO_API __attribute__((visibility("default")))
#ifdef __cplusplus
enum RedisServerType : int {
#else
enum RedisServerType {
#endif
  eTempServer = 1,
  ePersistServer = 2,
  ePersonalityServer = 3
};
enum RuvoResult {
  RUVO_OK = 0,
  RUVO_ABSENT = 1,
  RUVO_INIT_TEMP_POOL_FAILED = 1,
  RUVO_INIT_PERSIST_POOL_FAILED = 2,
  RUVO_INIT_BOTH_POOLS_FAILED = 3,
  RUVO_ERR_FAILED = -1,
  RUVO_NOTHING_DONE = -2,
  RUVO_ERR_NO_CONFIG = 10102,
  RUVO_ERR_NO_REDIS_CONFIG = 10106,
  RUVO_ERR_NULL_ARGUMENT = 10107,
  RUVO_ERR_ADDRESS_LIST = 10109,
  RUVO_ERR_NOT_INITIALIZED = 10111,
  RUVO_ERR_NO_REPLY = 10112,
  RUVO_ERR_NO_MEMORY = 10113,
  RUVO_ERR_CONFIG_FILE = 10115,
  RUVO_ERR_NOT_FOUND = 10402,
  RUVO_ERR_NO_CONNECTION = 10405
};
#ifdef __cplusplus
extern "C" {
#endif
RUVO_API int RUVO_Init(const char* config);
RUVO_API int RUVO_Fini(void);
RUVO_API int RUVO_InsertKey(const char* key, const char* data, unsigned long len, int time_out,
                            int redisSrvType, const char* server_addr);
RUVO_API int RUVO_AppendKey(const char* key, const char* data, unsigned long len, int redisSrvType,
                            const char* server_addr);
RUVO_API int RUVO_IncreaseKey(const char* key, long long* value, int redisSrvType,
                              const char* server_addr);
RUVO_API int RUVO_QueryKey(const char* key, const char** data, unsigned long* len, int redisSrvType,
                           const char* server_addr);
RUVO_API int RUVO_ExistsKey(const char* key, int redisSrvType, const char* server_addr);
RUVO_API int RUVO_FreeResult(const char* data);
RUVO_API int RUVO_DeleteKey(const char* key, int redisSrvType, const char* server_addr);
RUVO_API int RUVO_ExpireKey(const char* key, unsigned int time_out, int redisSrvType,
                            const char* server_addr);
RUVO_API int RUVO_PersistKey(const char* key, int redisSrvType, const char* server_addr);
RUVO_API int RUVO_HashSet(const char* key, const char* field, unsigned long f_len,
                          const char* value, unsigned long v_len, int time_out, int redisSrvType,
                          const char* server_addr);
RUVO_API int RUVO_HashGet(const char* key, const char* field, unsigned long f_len,
                          const char** value, unsigned long* v_len, int redisSrvType,
                          const char* server_addr);
RUVO_API int RUVO_HashFieldExist(const char* key, const char* field, unsigned long f_len,
                                 int redisSrvType, const char* server_addr);
RUVO_API int RUVO_HashIncrBy(const char* key, const char* field, unsigned long f_len,
                             long long increment, long long* result, int redisSrvType,
                             const char* server_addr);
RUVO_API int RUVO_HashFieldsNum(const char* key, long long* fields_num, int redisSrvType,
                                const char* server_addr);
RUVO_API int RUVO_HashDelField(const char* key, const char* field, unsigned long f_len,
                               int redisSrvType, const char* server_addr);
RUVO_API void* RUVO_ExecRedisCmd(int redisSrvType, const char* format, ...);
RUVO_API void* RUVO_ExecRedisvCmd(int redisSrvType, const char* format, va_list ap);
RUVO_API void RUVO_FreeReplyObject(void* reply);
RUVO_API int RUVO_LRem(const char* key, int count, const char* value, int redisSrvType,
                       const char* server_addr);
RUVO_API int RUVO_LPush(const char* key, const char* value, size_t length, int timeout,
                        long long* count, int redisSrvType, const char* server_addr);
#ifdef __cplusplus
RUVO_API int RUVO_RPop(const char* key, std::string& value, int redisSrvType,
                       const char* server_addr);
RUVO_API int RUVO_LRange(const char* key, int start, int end, std::vector<std::string>& value,
                         int redisSrvType, const char* server_addr);
RUVO_API int RUVO_SMembers(const char* key, std::vector<std::string>& value, int redisSrvType,
                           const char* server_addr);
#endif
RUVO_API int RUVO_LTrim(const char* key, int start, int end, int redisSrvType,
                        const char* server_addr);
RUVO_API int RUVO_SAdd(const char* key, const char* data, size_t len, int redisSrvType,
                       const char* server_addr);
RUVO_API int RUVO_SRem(const char* key, const char* data, size_t len, int redisSrvType,
                       const char* server_addr);
RUVO_API int RUVO_SIsmember(const char* key, const char* data, size_t len, int redisSrvType,
                            const char* server_addr);
#ifdef __cplusplus
}
#endif
#endif

// One call of every operation, for tests that need them all. Nothing here allocates memory, since
// some of these tests let it run out.
#ifndef RUVO_TESTING_EVERY_OPERATION_H
#define RUVO_TESTING_EVERY_OPERATION_H

#include <ruvo/ruvo.h>

#include <array>

#include "fixtures.h"

// Start-up, without its printed lines.
inline int start(const HostConfig& config) {
  const QuietConsole quiet;
  return RUVO_Init(config.path());
}

struct Operation {
  const char* name;
  int (*function)(const char* key, int pool);
  int other_result;  // what it may return besides 0, -1 and 10402; 0: nothing
  int commands = 1;  // that it sends if the first is answered with the number 1

  int call(const char* key, int pool = eTempServer) const { return function(key, pool); }
  bool may_return(int code) const {
    return code == RUVO_OK || code == RUVO_ERR_FAILED || code == RUVO_ERR_NOT_FOUND ||
           code == other_result;
  }
  // What it returns while the library is not ready; for a raw command a null reply.
  int result_before_start() const;
};

// Frees what a call returns.
template <typename Call>
int discard(Call call) {
  const char* data = nullptr;
  unsigned long len = 0;
  const int ret = call(&data, &len);
  RUVO_FreeResult(data);
  return ret;
}

// Returns 99 if the call fails and leaves something in the container.
template <typename Container, typename Call>
int fill(Call call) {
  Container value;
  const int ret = call(value);
  return ret == RUVO_OK || value.empty() ? ret : 99;
}

inline int raw_command(const char* key, int pool) {
  void* reply = RUVO_ExecRedisCmd(pool, "GET %s", key);
  if (reply != nullptr) {
    RUVO_FreeReplyObject(reply);
  }
  return reply != nullptr ? RUVO_OK : RUVO_ERR_FAILED;
}

inline int Operation::result_before_start() const {
  return function == raw_command ? RUVO_ERR_FAILED : RUVO_ERR_NOT_INITIALIZED;
}

// clang-format off
inline const std::array operations{
    Operation{"InsertKey", [](const char* key, int pool) { return RUVO_InsertKey(key, "v", 1, 30, pool, nullptr); }, 0},
    Operation{"AppendKey", [](const char* key, int pool) { return RUVO_AppendKey(key, "v", 1, pool, nullptr); }, 0},
    Operation{"IncreaseKey", [](const char* key, int pool) { long long n = 0; return RUVO_IncreaseKey(key, &n, pool, nullptr); }, 0, 2},
    Operation{"QueryKey", [](const char* key, int pool) { return discard([=](auto... to) { return RUVO_QueryKey(key, to..., pool, nullptr); }); }, 0},
    Operation{"ExistsKey", [](const char* key, int pool) { return RUVO_ExistsKey(key, pool, nullptr); }, RUVO_ABSENT},
    Operation{"DeleteKey", [](const char* key, int pool) { return RUVO_DeleteKey(key, pool, nullptr); }, 0},
    Operation{"ExpireKey", [](const char* key, int pool) { return RUVO_ExpireKey(key, 30, pool, nullptr); }, 0},
    Operation{"PersistKey", [](const char* key, int pool) { return RUVO_PersistKey(key, pool, nullptr); }, 0},
    Operation{"HashSet", [](const char* key, int pool) { return RUVO_HashSet(key, "f", 1, "1", 1, 30, pool, nullptr); }, 0, 2},
    Operation{"HashGet", [](const char* key, int pool) { return discard([=](auto... to) { return RUVO_HashGet(key, "f", 1, to..., pool, nullptr); }); }, 0},
    Operation{"HashFieldExist", [](const char* key, int pool) { return RUVO_HashFieldExist(key, "f", 1, pool, nullptr); }, RUVO_ABSENT},
    Operation{"HashIncrBy", [](const char* key, int pool) { long long n = 0; return RUVO_HashIncrBy(key, "f", 1, 2, &n, pool, nullptr); }, 0},
    Operation{"HashFieldsNum", [](const char* key, int pool) { long long n = 0; return RUVO_HashFieldsNum(key, &n, pool, nullptr); }, 0},
    Operation{"HashDelField", [](const char* key, int pool) { return RUVO_HashDelField(key, "f", 1, pool, nullptr); }, 0},
    Operation{"LPush", [](const char* key, int pool) { long long n = 0; return RUVO_LPush(key, "v", 1, 30, &n, pool, nullptr); }, 0, 2},
    Operation{"LRange", [](const char* key, int pool) { return fill<std::vector<std::string>>([=](auto& value) { return RUVO_LRange(key, 0, -1, value, pool, nullptr); }); }, RUVO_NOTHING_DONE},
    Operation{"LTrim", [](const char* key, int pool) { return RUVO_LTrim(key, 0, -1, pool, nullptr); }, RUVO_NOTHING_DONE},
    Operation{"RPop", [](const char* key, int pool) { return fill<std::string>([=](auto& value) { return RUVO_RPop(key, value, pool, nullptr); }); }, RUVO_NOTHING_DONE},
    Operation{"LRem", [](const char* key, int pool) { return RUVO_LRem(key, 0, "v", pool, nullptr); }, RUVO_NOTHING_DONE},
    Operation{"SAdd", [](const char* key, int pool) { return RUVO_SAdd(key, "v", 1, pool, nullptr); }, RUVO_NOTHING_DONE},
    Operation{"SIsmember", [](const char* key, int pool) { return RUVO_SIsmember(key, "v", 1, pool, nullptr); }, RUVO_NOTHING_DONE},
    Operation{"SMembers", [](const char* key, int pool) { return fill<std::vector<std::string>>([=](auto& value) { return RUVO_SMembers(key, value, pool, nullptr); }); }, RUVO_NOTHING_DONE},
    Operation{"SRem", [](const char* key, int pool) { return RUVO_SRem(key, "v", 1, pool, nullptr); }, 0},
    Operation{"ExecRedisCmd", raw_command, 0},
};
// clang-format on

#endif

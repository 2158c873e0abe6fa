/// @file
/// libruvo: Redis for multi-threaded server processes, as a small set of plain functions.
///
///     #include <ruvo/ruvo.h>
///
///     if (RUVO_Init("/etc/app/sruvo.conf") != RUVO_OK) { ... }        // once, before all others
///
///     RUVO_InsertKey("user:7", "Ada", 3, 3600, eTempServer, NULL);    // from any thread
///
///     const char* data = NULL;
///     unsigned long len = 0;
///     if (RUVO_QueryKey("user:7", &data, &len, eTempServer, NULL) == RUVO_OK) {
///       fwrite(data, 1, len, stdout);                                 // not zero-terminated
///       RUVO_FreeResult(data);
///     }
///
///     RUVO_Fini();                                                    // once for each RUVO_Init
///
/// What holds for every function, and is not repeated below:
///
/// POOLS. An operation names one of three pools of servers, see RedisServerType. The servers of one
/// pool are interchangeable doors to the same data (several proxies in front of one Redis, say):
/// requests go to them in turn.
///
/// PARAMETERS. `key` is a zero-terminated text. Values, fields and members with a length (in bytes)
/// may hold any bytes, zero bytes included. `redisSrvType` is a RedisServerType; it is never
/// refused: 2 and 3 name their pools, every other number the temporary one. `server_addr` is not
/// used: pass NULL. Time-outs of keys are in seconds. What a pointer parameter points to stays the
/// caller's and is not kept beyond the call; memory that the library hands out is released with
/// RUVO_FreeResult or RUVO_FreeReplyObject, as the function says.
///
/// RESULTS. An int result is one of the RUVO_ codes below. Besides the codes that a function names,
/// every data operation may return
///
/// - RUVO_ERR_NOT_INITIALIZED: before a successful RUVO_Init and after the last RUVO_Fini
/// - RUVO_ERR_NULL_ARGUMENT: a pointer that must not be null is null: `key`, and those said to be
///   "required"; other pointers to results may be null, and the result is then not stored
/// - RUVO_ERR_FAILED: no server could be reached, or Redis answered with an error (a wrong
///   type of key, say) or with something unexpected; the log tells
/// - RUVO_ERR_NO_MEMORY: memory ran out in the library itself
/// - RUVO_ERR_NO_REPLY: a command succeeded without a reply, which Redis does not do
///
/// A value, field or member of more than 512 MiB, Redis' own limit, is refused with
/// RUVO_ERR_FAILED. A reply that announces an array of more than 16,777,216 elements counts as a
/// broken connection. Result parameters are written on RUVO_OK only, except where a function says
/// otherwise.
///
/// THREADS. All operations may be called from any number of threads at once. RUVO_Init and
/// RUVO_Fini must not overlap operations, and the first call of all must have returned before other
/// threads call. A thread that is cancelled (pthread_cancel) inside a call finishes the call first.
///
/// BLOCKING. A call waits for the connection that its turn gives it, then for the network: for each
/// attempt at most `connect_timeout` for connecting and `socket_timeout` for each read and write
/// (milliseconds, from the configuration; less than 1 means without limit). A command is sent, and
/// after a broken connection sent once more over a new one, before the next server is tried. A
/// command makes at most twice as many visits as its pool has servers (a raw command: as the three
/// pools have together), and so ends within
///
///     2 x servers x (connect_timeout + 6 x socket_timeout)
///
/// for replies that arrive in one piece, plus the time that other threads hold its connections.
/// RUVO_IncreaseKey, RUVO_HashSet and RUVO_LPush may run two commands. Server names, as opposed to
/// addresses, add the time of the system's resolver. A signal whose handler runs in the waiting
/// thread lets that wait begin anew: keep periodic signals away from threads that call.
///
/// A COMMAND MAY RUN MORE THAN ONCE: when a connection breaks, or socket_timeout passes, after the
/// server has run a command and before its reply has arrived, the command is sent again, up to
/// twice for each visit. Increments, pushes and appends then count more than once.
///
/// SIGNALS AND EXCEPTIONS. A connection that its server has closed does not raise SIGPIPE in the
/// host. No function throws.
///
/// LOG. What goes wrong is written through BaseLib::Logger (stream_log/logger.h). At level DEBUG
/// some operations print the caller's field, value or member as a zero-terminated text, whatever
/// its length: in a process that logs at DEBUG such buffers must be terminated.
#ifndef RUVO_RUVO_H
#define RUVO_RUVO_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
#include <string>
#include <vector>
#endif

/// What the library lets out.
#define RUVO_API __attribute__((visibility("default")))

/// The pools of servers. A pool's addresses and settings are the configuration's.
#ifdef __cplusplus
enum RedisServerType : int {
#else
enum RedisServerType {
#endif
  eTempServer = 1,        ///< for what may be lost
  ePersistServer = 2,     ///< for what must stay
  ePersonalityServer = 3  ///< for what belongs to a single user
};

/// The results of the functions.
enum RuvoResult {
  RUVO_OK = 0,                        ///< done
  RUVO_ABSENT = 1,                    ///< RUVO_ExistsKey, RUVO_HashFieldExist: it is not there
  RUVO_INIT_TEMP_POOL_FAILED = 1,     ///< RUVO_Init: persistent pool up, temporary not
  RUVO_INIT_PERSIST_POOL_FAILED = 2,  ///< RUVO_Init: temporary pool up, persistent not
  RUVO_INIT_BOTH_POOLS_FAILED = 3,    ///< RUVO_Init: neither pool is up
  RUVO_ERR_FAILED = -1,               ///< no usable server, an error reply, an unexpected reply
  RUVO_NOTHING_DONE = -2,             ///< nothing popped, in range, added or found
  RUVO_ERR_NO_CONFIG = 10102,         ///< no configuration path given
  RUVO_ERR_NO_REDIS_CONFIG = 10106,   ///< the local configuration names no redis_cfg_path
  RUVO_ERR_NULL_ARGUMENT = 10107,     ///< a required pointer is null
  RUVO_ERR_ADDRESS_LIST = 10109,      ///< an address list is empty or malformed
  RUVO_ERR_NOT_INITIALIZED = 10111,   ///< the library is not initialised
  RUVO_ERR_NO_REPLY = 10112,          ///< a command succeeded without a reply
  RUVO_ERR_NO_MEMORY = 10113,         ///< memory or a mutex could not be obtained
  RUVO_ERR_CONFIG_FILE = 10115,       ///< the local configuration file cannot be opened
  RUVO_ERR_NOT_FOUND = 10402,         ///< Redis answered nil: the key or field is absent
  RUVO_ERR_NO_CONNECTION = 10405      ///< a pool has no good connection
};

/// A short English text for a result code; never null, static.
static inline const char* ruvo_result_text(int code) {
  switch (code) {
    case RUVO_OK:
      return "success";
    case RUVO_ABSENT:
      return "absent, or the temporary pool failed";
    case RUVO_INIT_PERSIST_POOL_FAILED:
      return "the persistent pool failed";
    case RUVO_INIT_BOTH_POOLS_FAILED:
      return "the temporary and the persistent pool failed";
    case RUVO_ERR_FAILED:
      return "failed";
    case RUVO_NOTHING_DONE:
      return "nothing to do";
    case RUVO_ERR_NO_CONFIG:
      return "no configuration path given";
    case RUVO_ERR_NO_REDIS_CONFIG:
      return "the configuration names no redis_cfg_path";
    case RUVO_ERR_NULL_ARGUMENT:
      return "a required argument is null";
    case RUVO_ERR_ADDRESS_LIST:
      return "an address list is empty or malformed";
    case RUVO_ERR_NOT_INITIALIZED:
      return "not initialised";
    case RUVO_ERR_NO_REPLY:
      return "no reply";
    case RUVO_ERR_NO_MEMORY:
      return "out of memory";
    case RUVO_ERR_CONFIG_FILE:
      return "the configuration file cannot be opened";
    case RUVO_ERR_NOT_FOUND:
      return "not found";
    case RUVO_ERR_NO_CONNECTION:
      return "no good connection";
    default:
      return "unknown result";
  }
}

#ifdef __cplusplus
extern "C" {
#endif

/// @name Start and end
/// @{

/// Reads the configuration, connects all pools and makes the library ready. `config` is the path of
/// the local configuration file, which names the Redis configuration file.
///
/// Calls are counted: a call while the library is ready only adds to the count and returns RUVO_OK,
/// and every one of them wants its RUVO_Fini. So does a call while another thread's RUVO_Init runs;
/// it returns RUVO_OK at once, before the library is ready. A start-up that failed is final for the
/// process: every later RUVO_Init returns RUVO_OK without trying again, and operations keep
/// answering RUVO_ERR_NOT_INITIALIZED.
///
/// @retval RUVO_OK                        ready (only the log tells of the personality pool)
/// @retval RUVO_INIT_TEMP_POOL_FAILED     ready, but for the temporary pool
/// @retval RUVO_INIT_PERSIST_POOL_FAILED  ready, but for the persistent pool
/// @retval RUVO_INIT_BOTH_POOLS_FAILED    not ready
/// @retval RUVO_ERR_NO_CONFIG             `config` is null or empty
/// @retval RUVO_ERR_CONFIG_FILE           the local configuration file cannot be opened
/// @retval RUVO_ERR_NO_REDIS_CONFIG       it has no redis_cfg_path in section redis_cfg
/// @retval RUVO_ERR_FAILED                the file that redis_cfg_path names cannot be opened
/// @retval RUVO_ERR_NO_MEMORY             memory ran out
///
/// A pool fails when its address list is empty or malformed, or when it has no good connection and
/// at least one could not be opened. Servers that are down at start-up stay in the pool and are
/// connected when first used. Connections that are refused for their password are given up for good
/// and do not fail the pool: the log tells.
///
/// Prints a few progress lines to standard output. Blocks for each connection in turn: at most
/// connect_timeout, and with a password 2 x socket_timeout more; for a pool without addresses in
/// the configuration also for the resolution of the host's own name.
RUVO_API int RUVO_Init(const char* config);

/// Takes back one counted RUVO_Init; the last one closes all connections. The library can then be
/// initialised again. Buffers and raw replies that the library has handed out must be released
/// before. Does not wait for the network.
/// @retval RUVO_OK                   done
/// @retval RUVO_ERR_NOT_INITIALIZED  nothing was
RUVO_API int RUVO_Fini(void);

/// @}

/// @name String keys
/// @{

/// Stores `len` bytes under `key`, in place of what was there. `time_out` of -1: for ever; a
/// positive one: for so many seconds. Redis refuses any other (RUVO_ERR_FAILED). `data` is
/// required.
/// @retval RUVO_OK  done
RUVO_API int RUVO_InsertKey(const char* key, const char* data, unsigned long len, int time_out,
                            int redisSrvType, const char* server_addr);

/// Appends `len` bytes to the value, or stores them where there is none. `data` is required.
/// @retval RUVO_OK  done
RUVO_API int RUVO_AppendKey(const char* key, const char* data, unsigned long len, int redisSrvType,
                            const char* server_addr);

/// Adds 1 to the number under `key` (absent counts as 0) and stores the sum through `value`. A
/// counter that comes to 1 is set to expire at the next local midnight: this is a counter for the
/// day.
/// @retval RUVO_OK  done
RUVO_API int RUVO_IncreaseKey(const char* key, long long* value, int redisSrvType,
                              const char* server_addr);

/// Reads a value: `*data` is a buffer of exactly `*len` bytes, not zero-terminated and never null,
/// that the caller releases with RUVO_FreeResult (an empty value has one too). Both pointers are
/// required. Should Redis answer with something that is no text, the results are left alone.
/// @retval RUVO_OK             done
/// @retval RUVO_ERR_NOT_FOUND  no such key; both results are left alone
/// @retval RUVO_ERR_NO_MEMORY  no buffer; `*data` is null
RUVO_API int RUVO_QueryKey(const char* key, const char** data, unsigned long* len, int redisSrvType,
                           const char* server_addr);

/// Asks for a key.
/// @retval RUVO_OK      the key is there
/// @retval RUVO_ABSENT  it is not
RUVO_API int RUVO_ExistsKey(const char* key, int redisSrvType, const char* server_addr);

/// Releases a buffer from RUVO_QueryKey or RUVO_HashGet; a null `data` is fine. Before a successful
/// RUVO_Init and after the last RUVO_Fini nothing is released. Does not block.
/// @retval RUVO_OK                   done
/// @retval RUVO_ERR_NOT_INITIALIZED  nothing was
RUVO_API int RUVO_FreeResult(const char* data);

/// Deletes a key.
/// @retval RUVO_OK  whether or not it was there
RUVO_API int RUVO_DeleteKey(const char* key, int redisSrvType, const char* server_addr);

/// Lets a key expire `time_out` seconds from now; 0 deletes it.
/// @retval RUVO_OK  whether or not it was there
RUVO_API int RUVO_ExpireKey(const char* key, unsigned int time_out, int redisSrvType,
                            const char* server_addr);

/// Takes a key's time-out away.
/// @retval RUVO_OK  whether or not it had one
RUVO_API int RUVO_PersistKey(const char* key, int redisSrvType, const char* server_addr);

/// @}

/// @name Hashes
/// @{

/// Sets a field of a hash. With a `time_out` other than -1 the whole hash is then set to expire
/// after so many seconds (0 and below: at once), in a command of its own whose outcome does not
/// change the result. `field` and `value` are required.
/// @retval RUVO_OK  done
RUVO_API int RUVO_HashSet(const char* key, const char* field, unsigned long f_len,
                          const char* value, unsigned long v_len, int time_out, int redisSrvType,
                          const char* server_addr);

/// Reads a field: `*value` is a buffer of exactly `*v_len` bytes, not zero-terminated and never
/// null, that the caller releases with RUVO_FreeResult. `field` is required.
/// @retval RUVO_OK             done
/// @retval RUVO_ERR_NOT_FOUND  no such key or field; both results are left alone
/// @retval RUVO_ERR_NO_MEMORY  no buffer; `*value` is null
RUVO_API int RUVO_HashGet(const char* key, const char* field, unsigned long f_len,
                          const char** value, unsigned long* v_len, int redisSrvType,
                          const char* server_addr);

/// Asks for a field. `field` is required.
/// @retval RUVO_OK      the field is there
/// @retval RUVO_ABSENT  it is not
RUVO_API int RUVO_HashFieldExist(const char* key, const char* field, unsigned long f_len,
                                 int redisSrvType, const char* server_addr);

/// Adds `increment` to the number in a field (absent counts as 0) and stores the sum through
/// `result`. Sets no time-out. `field` is required.
/// @retval RUVO_OK  done
RUVO_API int RUVO_HashIncrBy(const char* key, const char* field, unsigned long f_len,
                             long long increment, long long* result, int redisSrvType,
                             const char* server_addr);

/// Stores the number of fields through `fields_num`; 0 where there is no such key.
/// @retval RUVO_OK  done
RUVO_API int RUVO_HashFieldsNum(const char* key, long long* fields_num, int redisSrvType,
                                const char* server_addr);

/// Deletes a field. `field` is required.
/// @retval RUVO_OK  whether or not it was there
RUVO_API int RUVO_HashDelField(const char* key, const char* field, unsigned long f_len,
                               int redisSrvType, const char* server_addr);

/// @}

/// @name Any command
/// @{

/// Runs a command and hands over Redis' reply as it is: a redisReply of hiredis, of any type, error
/// and nil replies included. The caller owns it and releases it with RUVO_FreeReplyObject. Null
/// when there is no reply: not initialised, `format` null or not understood, no server reachable,
/// no memory; the log tells.
///
/// `format` is a hiredis command template: arguments are separated by blanks, and each of `%s`
/// (text), `%b` (pointer and size_t length), `%d`, `%u`, `%ld`, `%lld` and so on takes an argument.
///
///     redisReply* reply =
///         (redisReply*)RUVO_ExecRedisCmd(eTempServer, "GETRANGE %s %d %d", key, 0, 3);
///
/// When a server fails, the command goes on to the pool whose number is that server's position in
/// its list counted from 1 (another number than 1 to 3: the temporary pool), WHICHEVER POOL WAS
/// ASKED FOR. Where the pools hold different data, check what you get, or use a typed function,
/// which stays in its pool. It also gives up sooner: a null reply while a server fails is worth
/// another call.
///
/// Commands that are sent one by one may go to different servers and connections: what needs a
/// connection of its own (MULTI, SUBSCRIBE, WATCH, SELECT) does not belong here, nor does a command
/// that waits longer than socket_timeout (BLPOP). Arguments of more than 512 MiB must not be given.
RUVO_API void* RUVO_ExecRedisCmd(int redisSrvType, const char* format, ...);

/// The same with the arguments in a list, which is left as it was.
RUVO_API void* RUVO_ExecRedisvCmd(int redisSrvType, const char* format, va_list ap);

/// Releases a reply, from any thread. Before a successful RUVO_Init and after the last RUVO_Fini
/// nothing is released. Does not block.
RUVO_API void RUVO_FreeReplyObject(void* reply);

/// @}

/// @name Lists
/// @{

/// Removes elements equal to `value`, a required zero-terminated text: the first `count` from the
/// head, the last -`count` from the tail when negative, all when 0.
/// @retval RUVO_OK            something was removed
/// @retval RUVO_NOTHING_DONE  nothing was
RUVO_API int RUVO_LRem(const char* key, int count, const char* value, int redisSrvType,
                       const char* server_addr);

/// Puts an element at the head of a list and stores the new length through `count`. With a positive
/// `timeout` the whole list is then set to expire after so many seconds, in a command of its own
/// whose result is the result of the call. `value` is required.
/// @retval RUVO_OK  done
RUVO_API int RUVO_LPush(const char* key, const char* value, size_t length, int timeout,
                        long long* count, int redisSrvType, const char* server_addr);

#ifdef __cplusplus
// The three functions that take types of the standard library: caller and library must use the same
// one. A C caller runs these commands with RUVO_ExecRedisCmd. The containers are emptied first,
// also when the call fails.

/// Takes the element at the tail of a list.
/// @retval RUVO_OK             `value` holds it
/// @retval RUVO_NOTHING_DONE   it was the empty text; it is gone from the list
/// @retval RUVO_ERR_NOT_FOUND  no such list
RUVO_API int RUVO_RPop(const char* key, std::string& value, int redisSrvType,
                       const char* server_addr);

/// Reads the elements from `start` to `end`, both included, 0 the head; negative positions count
/// from the tail, -1 being the last. Empty elements are left out.
/// @retval RUVO_OK            `value` holds them in order
/// @retval RUVO_NOTHING_DONE  there are none
RUVO_API int RUVO_LRange(const char* key, int start, int end, std::vector<std::string>& value,
                         int redisSrvType, const char* server_addr);

/// Reads all members of a set, in the order in which Redis lists them. An empty member is left out.
/// @retval RUVO_OK            `value` holds them
/// @retval RUVO_NOTHING_DONE  there are none
RUVO_API int RUVO_SMembers(const char* key, std::vector<std::string>& value, int redisSrvType,
                           const char* server_addr);
#endif

/// Cuts a list down to the elements from `start` to `end`, counted as for RUVO_LRange.
/// @retval RUVO_OK  done
RUVO_API int RUVO_LTrim(const char* key, int start, int end, int redisSrvType,
                        const char* server_addr);

/// @}

/// @name Sets
/// @{

/// Adds a member. `data` is required.
/// @retval RUVO_OK            it is new
/// @retval RUVO_NOTHING_DONE  it was a member before
RUVO_API int RUVO_SAdd(const char* key, const char* data, size_t len, int redisSrvType,
                       const char* server_addr);

/// Removes a member. `data` is required.
/// @retval RUVO_OK  whether or not it was one
RUVO_API int RUVO_SRem(const char* key, const char* data, size_t len, int redisSrvType,
                       const char* server_addr);

/// Asks for a member. `data` is required.
/// @retval RUVO_OK            it is a member
/// @retval RUVO_NOTHING_DONE  it is not
RUVO_API int RUVO_SIsmember(const char* key, const char* data, size_t len, int redisSrvType,
                            const char* server_addr);

/// @}

#ifdef __cplusplus
}
#endif

#endif

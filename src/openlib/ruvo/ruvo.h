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
/// The following applies to every function and is not repeated below.
///
/// POOLS. Each operation names one of three server pools, see RedisServerType. All servers of a
/// pool must serve the same data (several proxies in front of one Redis, for example): calls use
/// them round-robin.
///
/// PARAMETERS. `key` is a zero-terminated string. Values, fields and members that come with a
/// length (in bytes) may contain any bytes, zeros included. `redisSrvType` is a RedisServerType and
/// is never rejected: 2 and 3 select their pools, any other number the temporary one. `server_addr`
/// is unused: pass NULL. Expiry times are in seconds. The library does not keep pointers to
/// the caller's data after a call. Memory that it returns is released with RUVO_FreeResult or
/// RUVO_FreeReplyObject, as stated for each function.
///
/// RESULTS. An int result is one of the RUVO_ codes below. In addition to the codes listed for a
/// function, every data operation may return
///
/// - RUVO_ERR_NOT_INITIALIZED: before a successful RUVO_Init or after the last RUVO_Fini
/// - RUVO_ERR_NULL_ARGUMENT: `key`, or a pointer described as required, is null; any other result
///   pointer may be null, and that result is then not stored
/// - RUVO_ERR_FAILED: no server replied (with `call_timeout`: in time), the reply was lost and
///   `send_once` forbids a retry, or Redis returned an error (wrong type of key, for example) or an
///   unexpected reply; see the log
/// - RUVO_ERR_NO_MEMORY: the library ran out of memory
/// - RUVO_ERR_NO_REPLY: a command succeeded without a reply, which Redis does not do
///
/// Values, fields and members of more than 512 MiB, Redis' own limit, are rejected with
/// RUVO_ERR_FAILED. A reply that announces an array of more than 16,777,216 elements counts as a
/// broken connection. Result parameters are written only on RUVO_OK unless stated otherwise.
///
/// THREADS. Operations may be called from any number of threads concurrently. RUVO_Init and
/// RUVO_Fini must not overlap them, and the first RUVO_Init must have returned before other threads
/// call the library. A thread that is cancelled (pthread_cancel) during a call completes it first.
///
/// BLOCKING. With `call_timeout` (milliseconds, from the configuration) a call returns within that
/// time, plus what it takes to schedule its thread. Without it a command makes at most two visits
/// for each server of its pool (a raw command: of all three pools), and a visit takes at most
/// `connect_timeout + 6 x socket_timeout`, plus the time that calls of other threads take on its
/// connection. A visit sends the command; if the connection breaks, it reconnects and sends once
/// more. A reply that arrives in pieces may take `socket_timeout` for each; a timeout below 1 means
/// no limit. RUVO_IncreaseKey, RUVO_HashSet and RUVO_LPush may run two commands, which share the
/// `call_timeout`. Host names, as opposed to addresses, add the time of the system's resolver.
/// Without `call_timeout`, a signal handler that runs in a waiting thread may restart that wait:
/// block periodic signals in threads that call the library.
///
/// FORK. The child of a fork opens its own connections on first use and never uses those of its
/// parent. Do not fork during RUVO_Init or RUVO_Fini.
///
/// A COMMAND MAY RUN MORE THAN ONCE. If the connection breaks or socket_timeout passes after the
/// server has run a command and before its reply has arrived, the command is sent again
/// (at-least-once); a visit sends it at most twice. Increments, pushes, appends, pops, trims and
/// removals of a number of elements are then applied more than once, unless the configuration says
/// `send_once`. The result is that of the last run.
///
/// SIGNALS AND EXCEPTIONS. A connection closed by its server does not raise SIGPIPE in the host. No
/// function throws.
///
/// LOG. Problems are logged through BaseLib::Logger (stream_log/logger.h). At level DEBUG some
/// operations print the caller's field, value or member as a zero-terminated string, whatever its
/// length: a process that logs at DEBUG must terminate these buffers.
#ifndef RUVO_RUVO_H
#define RUVO_RUVO_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
#include <string>
#include <vector>
#endif

/// Marks the functions that the library exports.
#define RUVO_API __attribute__((visibility("default")))

/// Marks the functions whose result must be checked: the compiler warns if it is ignored.
#define RUVO_CHECKED __attribute__((warn_unused_result))

/// The server pools. Their addresses and settings come from the configuration.
#ifdef __cplusplus
enum RedisServerType : int {
#else
enum RedisServerType {
#endif
  eTempServer = 1,        ///< data that may be lost
  ePersistServer = 2,     ///< data that must be kept
  ePersonalityServer = 3  ///< data of individual users
};

/// Result codes.
enum RuvoResult {
  RUVO_OK = 0,                        ///< success
  RUVO_ABSENT = 1,                    ///< RUVO_ExistsKey, RUVO_HashFieldExist: does not exist
  RUVO_INIT_TEMP_POOL_FAILED = 1,     ///< RUVO_Init: ready except for the temporary pool
  RUVO_INIT_PERSIST_POOL_FAILED = 2,  ///< RUVO_Init: ready except for the persistent pool
  RUVO_INIT_BOTH_POOLS_FAILED = 3,    ///< RUVO_Init: not ready, both pools failed
  RUVO_ERR_FAILED = -1,               ///< no usable server, an error reply or an unexpected reply
  RUVO_NOTHING_DONE = -2,             ///< nothing popped, in range, added, removed or found
  RUVO_ERR_NO_CONFIG = 10102,         ///< no configuration path given
  RUVO_ERR_NO_REDIS_CONFIG = 10106,   ///< no redis_cfg_path in the local configuration
  RUVO_ERR_NULL_ARGUMENT = 10107,     ///< a required pointer is null
  RUVO_ERR_ADDRESS_LIST = 10109,      ///< in the log only: an address list is empty or malformed
  RUVO_ERR_NOT_INITIALIZED = 10111,   ///< the library is not initialised
  RUVO_ERR_NO_REPLY = 10112,          ///< a command succeeded without a reply
  RUVO_ERR_NO_MEMORY = 10113,         ///< out of memory
  RUVO_ERR_CONFIG_FILE = 10115,       ///< the local configuration file cannot be opened
  RUVO_ERR_NOT_FOUND = 10402,         ///< Redis replied nil: no such key or field
  RUVO_ERR_NO_CONNECTION = 10405      ///< in the log only: no working connection in a pool
};

/// Returns a short description of a result code: a static string, never null.
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

/// @name Start-up and shutdown
/// @{

/// Reads the configuration and connects all pools. `config` is the path of the local configuration
/// file, which names the Redis configuration file.
///
/// Calls are counted, and each must be matched by one RUVO_Fini. A call while the library is ready
/// only adds to the count and returns RUVO_OK. So does a call while another thread is still inside
/// RUVO_Init; it returns before the library is ready. A failed start-up is final for the process:
/// every later RUVO_Init returns RUVO_OK without trying again, and operations keep returning
/// RUVO_ERR_NOT_INITIALIZED.
///
/// @retval RUVO_OK                        ready (for the personality pool see the log)
/// @retval RUVO_INIT_TEMP_POOL_FAILED     ready except for the temporary pool
/// @retval RUVO_INIT_PERSIST_POOL_FAILED  ready except for the persistent pool
/// @retval RUVO_INIT_BOTH_POOLS_FAILED    not ready
/// @retval RUVO_ERR_NO_CONFIG             `config` is null or empty
/// @retval RUVO_ERR_CONFIG_FILE           the local configuration file cannot be opened
/// @retval RUVO_ERR_NO_REDIS_CONFIG       it has no redis_cfg_path in section redis_cfg
/// @retval RUVO_ERR_FAILED                the file named by redis_cfg_path cannot be opened
/// @retval RUVO_ERR_NO_MEMORY             out of memory
///
/// A pool fails if its address list is empty or malformed, or if it has no working connection and
/// at least one could not be opened. Servers that are down at start-up stay in the pool and are
/// connected on first use. A connection whose password is rejected is dropped for good and does not
/// fail the pool; see the log. With `start_without_servers` (as `recommended_defaults` sets it) a
/// pool fails only for its address list, and no connection is dropped.
///
/// Prints a few progress lines to standard output. Blocks for one connection after the other: at
/// most connect_timeout, plus 2 x socket_timeout with a password, for each; with
/// `start_without_servers` at most that for each server. A pool without configured addresses
/// also waits for the host's own name to be resolved.
RUVO_API RUVO_CHECKED int RUVO_Init(const char* config);

/// Undoes one RUVO_Init; the last call closes all connections, and the library can then be
/// initialised again. Buffers and raw replies obtained from the library must be released before
/// that. Does not wait for the network.
/// @retval RUVO_OK                   success
/// @retval RUVO_ERR_NOT_INITIALIZED  the library was not initialised
RUVO_API int RUVO_Fini(void);

/// @}

/// @name String keys
/// @{

/// Sets `key` to the `len` bytes at `data` (required), replacing any previous value. `time_out` is
/// the expiry in seconds, or -1 for none; Redis rejects 0 and other negative numbers
/// (RUVO_ERR_FAILED).
/// @retval RUVO_OK  success
RUVO_API int RUVO_InsertKey(const char* key, const char* data, unsigned long len, int time_out,
                            int redisSrvType, const char* server_addr);

/// Appends `len` bytes to the value of `key`, creating it if necessary. `data` is required.
/// @retval RUVO_OK  success
RUVO_API int RUVO_AppendKey(const char* key, const char* data, unsigned long len, int redisSrvType,
                            const char* server_addr);

/// Increments a daily counter and stores the new count in `*value`. A missing key counts as 0; a
/// counter that reaches 1 is set to expire at the next local midnight.
/// @retval RUVO_OK  success; `*value` is unchanged if the reply is not a number
RUVO_API int RUVO_IncreaseKey(const char* key, long long* value, int redisSrvType,
                              const char* server_addr);

/// Gets a value: sets `*data` to a buffer of exactly `*len` bytes, not zero-terminated and never
/// null, even for an empty value. Release it with RUVO_FreeResult. Both pointers are required.
/// Initialise both results: RUVO_OK does not always set them.
/// @retval RUVO_OK             success; both results are unchanged if the reply is not a string
/// @retval RUVO_ERR_NOT_FOUND  no such key; both results are unchanged
/// @retval RUVO_ERR_NO_MEMORY  no buffer could be allocated; `*data` is null, `*len` is the length
RUVO_API RUVO_CHECKED int RUVO_QueryKey(const char* key, const char** data, unsigned long* len,
                                        int redisSrvType, const char* server_addr);

/// Tests whether a key exists.
/// @retval RUVO_OK      it exists
/// @retval RUVO_ABSENT  it does not
RUVO_API RUVO_CHECKED int RUVO_ExistsKey(const char* key, int redisSrvType,
                                         const char* server_addr);

/// Releases a buffer from RUVO_QueryKey or RUVO_HashGet; `data` may be null. Releases nothing while
/// the library is not initialised. Does not block.
/// @retval RUVO_OK                   success
/// @retval RUVO_ERR_NOT_INITIALIZED  nothing was released
RUVO_API int RUVO_FreeResult(const char* data);

/// Deletes a key.
/// @retval RUVO_OK  whether or not it existed
RUVO_API int RUVO_DeleteKey(const char* key, int redisSrvType, const char* server_addr);

/// Sets a key to expire in `time_out` seconds; 0 deletes it.
/// @retval RUVO_OK  whether or not it existed
RUVO_API int RUVO_ExpireKey(const char* key, unsigned int time_out, int redisSrvType,
                            const char* server_addr);

/// Removes the expiry of a key.
/// @retval RUVO_OK  whether or not it had an expiry
RUVO_API int RUVO_PersistKey(const char* key, int redisSrvType, const char* server_addr);

/// @}

/// @name Hashes
/// @{

/// Sets a field of a hash. Unless `time_out` is -1, a second command then sets the whole hash to
/// expire in `time_out` seconds (0 or less: immediately); its outcome does not affect the result.
/// `field` and `value` are required.
/// @retval RUVO_OK  success
RUVO_API int RUVO_HashSet(const char* key, const char* field, unsigned long f_len,
                          const char* value, unsigned long v_len, int time_out, int redisSrvType,
                          const char* server_addr);

/// Gets a field: sets `*value` to a buffer of exactly `*v_len` bytes, not zero-terminated and never
/// null. Release it with RUVO_FreeResult. `field` is required.
/// @retval RUVO_OK             success
/// @retval RUVO_ERR_NOT_FOUND  no such key or field; both results are unchanged
/// @retval RUVO_ERR_NO_MEMORY  no buffer could be allocated; `*value` is null, `*v_len` the length
RUVO_API RUVO_CHECKED int RUVO_HashGet(const char* key, const char* field, unsigned long f_len,
                                       const char** value, unsigned long* v_len, int redisSrvType,
                                       const char* server_addr);

/// Tests whether a field exists. `field` is required.
/// @retval RUVO_OK      it exists
/// @retval RUVO_ABSENT  it does not
RUVO_API RUVO_CHECKED int RUVO_HashFieldExist(const char* key, const char* field,
                                              unsigned long f_len, int redisSrvType,
                                              const char* server_addr);

/// Adds `increment` to the number in a field (a missing one counts as 0) and stores the sum in
/// `*result`. Sets no expiry. `field` is required.
/// @retval RUVO_OK  success
RUVO_API int RUVO_HashIncrBy(const char* key, const char* field, unsigned long f_len,
                             long long increment, long long* result, int redisSrvType,
                             const char* server_addr);

/// Stores the number of fields in `*fields_num`; 0 if there is no such key.
/// @retval RUVO_OK  success
RUVO_API RUVO_CHECKED int RUVO_HashFieldsNum(const char* key, long long* fields_num,
                                             int redisSrvType, const char* server_addr);

/// Deletes a field. `field` is required.
/// @retval RUVO_OK  whether or not it existed
RUVO_API int RUVO_HashDelField(const char* key, const char* field, unsigned long f_len,
                               int redisSrvType, const char* server_addr);

/// @}

/// @name Any command
/// @{

/// Runs a command and returns Redis' reply as it is: a hiredis redisReply of any type, error and
/// nil replies included, that the caller releases with RUVO_FreeReplyObject. Returns null if there
/// is no reply: library not initialised, `format` null, empty or invalid, no server replied (with
/// `call_timeout`: in time), the reply was lost and `send_once` forbids a retry, out of memory; see
/// the log.
///
/// `format` is a hiredis command template: words are separated by blanks, and each `%s` (string),
/// `%b` (pointer and size_t length), `%d`, `%u`, `%ld`, `%lld` and so on takes an argument.
///
///     redisReply* reply =
///         (redisReply*)RUVO_ExecRedisCmd(eTempServer, "GETRANGE %s %d %d", key, 0, 3);
///
/// If a server fails, the command fails over to the pool whose number is that server's position in
/// its list, counted from 1 (anything but 1 to 3: the temporary pool), WHICHEVER POOL WAS
/// REQUESTED, unless the configuration says `raw_commands_stay_in_pool` (as `recommended_defaults`
/// does). Without that key, check the reply if the pools hold different data; such a command also
/// gives up sooner, so call again after a null reply while a server is failing.
///
/// Successive commands may use different servers and connections. Do not send commands that need a
/// connection of their own (MULTI, SUBSCRIBE, WATCH, SELECT) or that block for longer than
/// socket_timeout (BLPOP). An argument must not exceed 512 MiB, nor the whole command 1 GiB.
RUVO_API RUVO_CHECKED void* RUVO_ExecRedisCmd(int redisSrvType, const char* format, ...);

/// Like RUVO_ExecRedisCmd, with the arguments in a va_list, which is left unchanged.
RUVO_API RUVO_CHECKED void* RUVO_ExecRedisvCmd(int redisSrvType, const char* format, va_list ap);

/// Releases a reply, from any thread. Releases nothing while the library is not initialised. Does
/// not block.
RUVO_API void RUVO_FreeReplyObject(void* reply);

/// @}

/// @name Lists
/// @{

/// Removes elements equal to `value`, a required zero-terminated string: the first `count` from the
/// head; if negative, the first -`count` from the tail; if 0, all.
/// @retval RUVO_OK            at least one was removed
/// @retval RUVO_NOTHING_DONE  none was removed
RUVO_API int RUVO_LRem(const char* key, int count, const char* value, int redisSrvType,
                       const char* server_addr);

/// Inserts an element at the head of a list and stores the new length in `*count`. If `timeout` is
/// positive, a second command then sets the whole list to expire in `timeout` seconds; its result
/// is the result of the call. If it fails, the element is inserted and `*count` stored all the
/// same. `value` is required.
/// @retval RUVO_OK  success
RUVO_API int RUVO_LPush(const char* key, const char* value, size_t length, int timeout,
                        long long* count, int redisSrvType, const char* server_addr);

#ifdef __cplusplus
// The three functions with standard-library types: caller and library must use the same standard
// library. C callers run these commands with RUVO_ExecRedisCmd. The containers are cleared first,
// even if the call fails.

/// Removes and returns the element at the tail of a list.
/// @retval RUVO_OK             `value` holds it
/// @retval RUVO_NOTHING_DONE   the element was empty; it has been removed
/// @retval RUVO_ERR_NOT_FOUND  no such list
RUVO_API RUVO_CHECKED int RUVO_RPop(const char* key, std::string& value, int redisSrvType,
                                    const char* server_addr);

/// Gets the elements from `start` to `end` inclusive. 0 is the head; negative positions count from
/// the tail, -1 being the last element. Empty elements are omitted.
/// @retval RUVO_OK            `value` holds them in order
/// @retval RUVO_NOTHING_DONE  there are none, not even empty ones
RUVO_API RUVO_CHECKED int RUVO_LRange(const char* key, int start, int end,
                                      std::vector<std::string>& value, int redisSrvType,
                                      const char* server_addr);

/// Gets all members of a set, in the order in which Redis lists them. An empty member is omitted.
/// @retval RUVO_OK            `value` holds them
/// @retval RUVO_NOTHING_DONE  there are none, not even an empty one
RUVO_API RUVO_CHECKED int RUVO_SMembers(const char* key, std::vector<std::string>& value,
                                        int redisSrvType, const char* server_addr);
#endif

/// Trims a list to the elements from `start` to `end`, counted as for RUVO_LRange.
/// @retval RUVO_OK  success
RUVO_API int RUVO_LTrim(const char* key, int start, int end, int redisSrvType,
                        const char* server_addr);

/// @}

/// @name Sets
/// @{

/// Adds a member. `data` is required.
/// @retval RUVO_OK            it was added
/// @retval RUVO_NOTHING_DONE  it was already a member
RUVO_API int RUVO_SAdd(const char* key, const char* data, size_t len, int redisSrvType,
                       const char* server_addr);

/// Removes a member. `data` is required.
/// @retval RUVO_OK  whether or not it was a member
RUVO_API int RUVO_SRem(const char* key, const char* data, size_t len, int redisSrvType,
                       const char* server_addr);

/// Tests whether `data` (required) is a member.
/// @retval RUVO_OK            it is a member
/// @retval RUVO_NOTHING_DONE  it is not
RUVO_API RUVO_CHECKED int RUVO_SIsmember(const char* key, const char* data, size_t len,
                                         int redisSrvType, const char* server_addr);

/// @}

#ifdef __cplusplus
}
#endif

#endif

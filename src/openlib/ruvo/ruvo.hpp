/// @file
/// libruvo for hosts in C++17 and later: the functions of ruvo.h with owners, views, results that
/// cannot be mistaken for values, and typed answers to any command. Header only; ruvo.h says what
/// applies to pools, threads and commands that run more than once.
///
///     #include <ruvo/ruvo.hpp>
///
///     const ruvo::library library("sruvo.conf");  // once, before everything else
///     if (!library) {
///       std::cerr << library.error().message() << '\n';
///     }
///     const ruvo::pool temp(eTempServer);  // from any thread
///
///     if (const auto stored = temp.set("user:7", "Ada", std::chrono::hours(1)); !stored) {
///       std::cerr << "not stored: " << stored.error().message() << '\n';
///     }
///     if (const auto name = temp.get("user:7")) {
///       std::cout << *name << '\n';  // Ada
///     } else if (name.absent()) {
///       std::cout << "no such user\n";
///     } else {
///       std::cerr << name.error().message() << '\n';
///     }
///
/// The following applies to everything here and is not repeated below.
///
/// RESULTS. Every operation returns a ruvo::result, and the compiler warns if one is dropped: no
/// failed write goes unnoticed. Two things throw: value() of a failure (a std::system_error), and
/// memory that runs out (std::bad_alloc) in a container, in a raw command, or for the copy of a key
/// of more than 127 bytes. Everything compiles without exceptions (value() of a failure then ends
/// the program with its message) and without RTTI.
///
/// KEYS are texts: a literal, a `const char*`, a std::string, or anything that converts to a
/// std::string_view. The functions need them zero-terminated; a key that need not be (a
/// std::string_view, say) is copied, up to 127 bytes without an allocation. A key that contains a
/// zero byte is refused with RUVO_ERR_NULL_ARGUMENT. So is a null pointer, here and as a value,
/// field, element, member or word; a literal null, and 0, do not compile.
///
/// VALUES, fields, elements and members are texts too, hold any bytes and are not copied, with one
/// exception. At log level DEBUG the library prints fields, elements, members and the values of
/// fields as zero-terminated texts, whatever their length. So a text that need not be terminated is
/// copied if it has at most 127 bytes; a longer one must be terminated in a process that logs at
/// DEBUG.
///
/// TIMES are durations of std::chrono, from 1 of their unit (if stated, from 0) to the longest
/// that the function takes. Any other time is refused with RUVO_ERR_NULL_ARGUMENT before anything
/// is sent. If the compiler knows a time and it is too short, it does not compile: with Clang
/// always, with GCC from -O1 on.
///
/// BLOCKING. With `call_timeout` an operation returns within that time, plus what it takes to
/// schedule its thread; one that needs several commands for a long range takes up to that time for
/// each. Without it a command makes at most two visits for each server of its pool (a raw
/// command: of all three pools), and a visit takes at most `connect_timeout + 6 x socket_timeout`,
/// plus the time that calls of other threads take on its connection.
///
/// OWNERS (bytes, reply) are moved, not copied; a moved-from owner is empty. They hand out views
/// that end with them; a view of a temporary owner does not compile. Destroy owners before the
/// library: one that outlives it can still be read, but its memory leaks, and a log line reports
/// it.
///
/// RAW. Some operations, MGET for example, have no function in ruvo.h. An operation that says "raw"
/// is sent with RUVO_ExecRedisCmd, in one round trip unless it says more. If a server fails, such a
/// command may fail over to ANOTHER POOL, unless the configuration says `raw_commands_stay_in_pool`
/// (as `recommended_defaults` does): without it, use them only if all pools have the same data.
/// With `send_once` a raw command is sent at most once: if its reply is lost, the call fails.
/// Without `send_once` it is retried, and may run more than once. Its failures are more precise:
/// reply_text() has what Redis said.
#ifndef RUVO_RUVO_HPP
#define RUVO_RUVO_HPP

#if __cplusplus < 201703L
#error "ruvo.hpp needs C++17; hosts in C and in older C++ use ruvo.h"
#endif

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "arguments.hpp"
#include "results.hpp"
#include "ruvo.h"

/// libruvo for hosts in C++17 and later, see ruvo.hpp.
namespace ruvo {

/// Starts the library, and ends it at the end of its own lifetime. Create it before everything else
/// that uses the library, in `main` say, and let every thread that calls the library end before it
/// does. Several objects are counted, see RUVO_Init.
class [[nodiscard]] library {
 public:
  /// Reads the configuration and connects, see RUVO_Init.
  [[nodiscard]] explicit library(const c_text& config) noexcept
      : code_(RUVO_Init(config.c_str())),
        counted_(code_ == RUVO_OK || code_ == RUVO_INIT_TEMP_POOL_FAILED ||
                 code_ == RUVO_INIT_PERSIST_POOL_FAILED) {
    // If an earlier start-up has failed for good, or has not ended yet, RUVO_Init only adds to the
    // count.
    if (counted_ && RUVO_FreeResult(nullptr) != RUVO_OK) {
      code_ = RUVO_ERR_NOT_INITIALIZED;
    }
  }
  library(const library&) = delete;
  library& operator=(const library&) = delete;
  ~library() {
    if (counted_) {
      RUVO_Fini();
    }
  }

  /// Are the temporary and the persistent pool ready? For the personality pool see the log. An
  /// object that only counts does not know which pools failed at the start-up before it.
  explicit operator bool() const noexcept { return code_ == RUVO_OK; }
  /// What RUVO_Init returned. After RUVO_INIT_TEMP_POOL_FAILED and RUVO_INIT_PERSIST_POOL_FAILED
  /// the library is ready except for that pool, and a host may go on. RUVO_ERR_NOT_INITIALIZED if
  /// RUVO_Init only counted: an earlier start-up of this process has failed, which is final, or
  /// another thread is still in one.
  int code() const noexcept { return code_; }
  /// The same in category().
  ruvo::error_code error() const noexcept { return ruvo::error_code(code_); }

 private:
  int code_;
  bool counted_;
};

/// For set: only if there is no such key, or only if there is one.
enum class condition : bool { if_absent, if_present };
/// Only if there is no such key.
inline constexpr condition if_absent = condition::if_absent;
/// Only if there is such a key.
inline constexpr condition if_present = condition::if_present;

/// What pool::ttl returns for a key without an expiry: longer than all other times.
inline constexpr std::chrono::milliseconds stays = std::chrono::milliseconds::max();

/// The position of a scan of a set or hash, see pool::sscan.
class cursor {
 public:
  /// Has the scan ended?
  bool done() const noexcept { return done_; }

 private:
  template <typename Backend>
  friend class basic_pool;
  std::string position_ = "0";
  bool done_ = false;
};

/// The backend of `pool`: the functions of ruvo.h.
struct functions {
  /// @cond
  static result<void> set(RedisServerType pool, const c_text& key, const bytes_view& value,
                          int seconds) noexcept {
    return done(key,
                RUVO_InsertKey(key.c_str(), value.data(), value.size(), seconds, pool, nullptr));
  }
  static result<void> append(RedisServerType pool, const c_text& key,
                             const bytes_view& value) noexcept {
    return done(key, RUVO_AppendKey(key.c_str(), value.data(), value.size(), pool, nullptr));
  }
  static result<bytes> get(RedisServerType pool, const c_text& key) noexcept {
    const char* data = nullptr;
    unsigned long size = 0;
    const int code = RUVO_QueryKey(key.c_str(), &data, &size, pool, nullptr);
    return owned(key, code, data, size);
  }
  static result<long long> increment(RedisServerType pool, const c_text& key) noexcept {
    // No sum with 1 has this value: it remains if Redis' answer is not a number.
    constexpr long long no_sum = std::numeric_limits<long long>::min();
    long long sum = no_sum;
    const int code = RUVO_IncreaseKey(key.c_str(), &sum, pool, nullptr);
    return value_of(key, code == RUVO_OK && sum == no_sum ? RUVO_ERR_FAILED : code, sum);
  }
  static result<bool> exists(RedisServerType pool, const c_text& key) noexcept {
    return yes_or_no(key, RUVO_ExistsKey(key.c_str(), pool, nullptr), RUVO_ABSENT);
  }
  static result<void> remove(RedisServerType pool, const c_text& key) noexcept {
    return done(key, RUVO_DeleteKey(key.c_str(), pool, nullptr));
  }
  static result<void> expire(RedisServerType pool, const c_text& key, unsigned seconds) noexcept {
    return done(key, RUVO_ExpireKey(key.c_str(), seconds, pool, nullptr));
  }
  static result<void> persist(RedisServerType pool, const c_text& key) noexcept {
    return done(key, RUVO_PersistKey(key.c_str(), pool, nullptr));
  }
  static result<void> hset(RedisServerType pool, const c_text& key, const c_bytes& field,
                           const c_bytes& value, int seconds) noexcept {
    return done(key, RUVO_HashSet(key.c_str(), field.data(), field.size(), value.data(),
                                  value.size(), seconds, pool, nullptr));
  }
  static result<bytes> hget(RedisServerType pool, const c_text& key,
                            const c_bytes& field) noexcept {
    const char* data = nullptr;
    unsigned long size = 0;
    const int code =
        RUVO_HashGet(key.c_str(), field.data(), field.size(), &data, &size, pool, nullptr);
    return owned(key, code, data, size);
  }
  static result<bool> hexists(RedisServerType pool, const c_text& key,
                              const c_bytes& field) noexcept {
    return yes_or_no(key,
                     RUVO_HashFieldExist(key.c_str(), field.data(), field.size(), pool, nullptr),
                     RUVO_ABSENT);
  }
  static result<long long> hincrby(RedisServerType pool, const c_text& key, const c_bytes& field,
                                   long long amount) noexcept {
    long long sum = 0;
    const int code =
        RUVO_HashIncrBy(key.c_str(), field.data(), field.size(), amount, &sum, pool, nullptr);
    return value_of(key, code, sum);
  }
  static result<long long> hlen(RedisServerType pool, const c_text& key) noexcept {
    long long fields = 0;
    const int code = RUVO_HashFieldsNum(key.c_str(), &fields, pool, nullptr);
    return value_of(key, code, fields);
  }
  static result<void> hdel(RedisServerType pool, const c_text& key, const c_bytes& field) noexcept {
    return done(key, RUVO_HashDelField(key.c_str(), field.data(), field.size(), pool, nullptr));
  }
  static result<long long> lpush(RedisServerType pool, const c_text& key, const c_bytes& value,
                                 int seconds) noexcept {
    long long length = 0;
    const int code =
        RUVO_LPush(key.c_str(), value.data(), value.size(), seconds, &length, pool, nullptr);
    return value_of(key, code == RUVO_OK && length == 0 ? RUVO_ERR_FAILED : code, length);
  }
  static result<std::string> rpop(RedisServerType pool, const c_text& key) noexcept {
    std::string element;
    const int code = RUVO_RPop(key.c_str(), element, pool, nullptr);
    return value_of(key, code == RUVO_NOTHING_DONE ? RUVO_OK : code, std::move(element));
  }
  static result<std::vector<std::string>> lrange(RedisServerType pool, const c_text& key, int first,
                                                 int last) noexcept {
    std::vector<std::string> elements;
    const int code = RUVO_LRange(key.c_str(), first, last, elements, pool, nullptr);
    return value_of(key, code, std::move(elements));
  }
  static result<void> ltrim(RedisServerType pool, const c_text& key, int first, int last) noexcept {
    return done(key, RUVO_LTrim(key.c_str(), first, last, pool, nullptr));
  }
  static result<void> lrem(RedisServerType pool, const c_text& key, int count,
                           const c_text& value) noexcept {
    return done(key.has_zero_byte() ? key : value,
                RUVO_LRem(key.c_str(), count, value.c_str(), pool, nullptr));
  }
  static result<bool> sadd(RedisServerType pool, const c_text& key,
                           const c_bytes& member) noexcept {
    return yes_or_no(key, RUVO_SAdd(key.c_str(), member.data(), member.size(), pool, nullptr),
                     RUVO_NOTHING_DONE);
  }
  static result<bool> sismember(RedisServerType pool, const c_text& key,
                                const c_bytes& member) noexcept {
    return yes_or_no(key, RUVO_SIsmember(key.c_str(), member.data(), member.size(), pool, nullptr),
                     RUVO_NOTHING_DONE);
  }
  static result<void> srem(RedisServerType pool, const c_text& key,
                           const c_bytes& member) noexcept {
    return done(key, RUVO_SRem(key.c_str(), member.data(), member.size(), pool, nullptr));
  }
  static result<std::vector<std::string>> smembers(RedisServerType pool,
                                                   const c_text& key) noexcept {
    std::vector<std::string> members;
    const int code = RUVO_SMembers(key.c_str(), members, pool, nullptr);
    return value_of(key, code, std::move(members));
  }
  template <std::size_t count>
  static result<reply> command(RedisServerType pool,
                               const std::string_view (&words)[count]) noexcept {
    return replied(detail::execute(pool, count, words, std::make_index_sequence<2 * count>()));
  }
  static result<reply> command(RedisServerType pool, words_view words) {
    return replied(detail::execute(pool, words));
  }
  /// @endcond

 private:
  static failure failed(const c_text& key, int code) noexcept {
    if (code == RUVO_ERR_NULL_ARGUMENT && key.has_zero_byte()) {
      return {code, detail::cause::zero_byte};
    }
    return code;
  }
  static result<void> done(const c_text& key, int code) noexcept {
    if (code != RUVO_OK) {
      return failed(key, code);
    }
    return {};
  }
  template <typename T>
  static result<T> value_of(const c_text& key, int code, T value) noexcept {
    if (code != RUVO_OK) {
      return failed(key, code);
    }
    return value;
  }
  static result<bool> yes_or_no(const c_text& key, int code, int no) noexcept {
    return value_of(key, code == no ? RUVO_OK : code, code != no);
  }
  // The buffer is missing if Redis' answer is not a text.
  static result<bytes> owned(const c_text& key, int code, const char* data,
                             std::size_t size) noexcept {
    return value_of(key, code == RUVO_OK && data == nullptr ? RUVO_ERR_FAILED : code,
                    bytes(data, size));
  }
  static result<reply> replied(void* raw) noexcept {
    if (raw == nullptr) {
      // The function returns no code; another one knows whether calls can work.
      return RUVO_FreeResult(nullptr) == RUVO_OK ? failure(RUVO_ERR_FAILED, detail::cause::no_reply)
                                                 : failure(RUVO_ERR_NOT_INITIALIZED);
    }
    return reply(raw);
  }
};

/// A pool of servers, with all operations. An object holds only the pool's number and the backend:
/// copy and share it freely. Each function documents only what ruvo.h does not say about the
/// function in brackets.
///
/// `pool` uses the functions of ruvo.h. A host that takes the pool as a template parameter can be
/// tested without a Redis, on a backend of its own: a copyable type with those functions of
/// ruvo::functions that the host needs. Each takes the RedisServerType and the arguments of the
/// function here (texts as std::string_view, times as seconds; no time is -1, to lpush 0) and
/// returns the same. Raw operations arrive as `result<reply> command(RedisServerType, words_view)`,
/// and reply::of_text and the like make the answer:
///
///     struct all_is_well {
///       static ruvo::result<ruvo::reply> command(RedisServerType, ruvo::words_view) {
///         return ruvo::reply::of_status("OK");
///       }
///     };
///     const ruvo::basic_pool<all_is_well> tested(eTempServer);
///     std::cout << tested.command("SHUTDOWN").value() << '\n';  // OK
template <typename Backend>
class basic_pool : private Backend {
 public:
  /// The pool of this type.
  explicit constexpr basic_pool(RedisServerType type, Backend backend = Backend()) noexcept
      : Backend(std::move(backend)), pool_(type) {}

  /// @name String keys
  ///
  ///     temp.set("motto", "per aspera", std::chrono::minutes(10)).value();  // throws if it fails
  ///     temp.append("motto", " ad astra").value();
  ///     if (const ruvo::result<ruvo::bytes> motto = temp.get("motto")) {
  ///       std::cout << motto->size() << " bytes\n";  // 19 bytes
  ///     }
  ///     temp.expire("motto", std::chrono::hours(24)).value();
  ///     if (const ruvo::result<void> gone = temp.remove("motto"); !gone) {
  ///       std::cerr << gone.error().message() << '\n';
  ///     }
  ///     const auto locked =
  ///         temp.set("lock:7", "me", std::chrono::milliseconds(1500), ruvo::if_absent);
  ///     std::cout << (locked.yes() ? "mine" : "not mine") << '\n';  // mine
  /// @{

  /// Stores a value without an expiry (RUVO_InsertKey).
  result<void> set(const c_text& key, const bytes_view& value) const noexcept {
    return Backend::set(pool_, key, value, -1);
  }
  /// Stores a value with an expiry.
  [[gnu::always_inline]] result<void> set(const c_text& key, const bytes_view& value,
                                          std::chrono::seconds time) const noexcept
      RUVO_FROM(1, time) {
    return detail::fits<int>(time, 1)
               ? Backend::set(pool_, key, value, static_cast<int>(time.count()))
               : result<void>(out_of_range());
  }
  /// Stores a value with an expiry that is not whole seconds. Raw: SET with PX.
  template <typename Time, typename = detail::if_milliseconds<Time>>
  [[gnu::always_inline]] result<void> set(const c_text& key, const bytes_view& value,
                                          Time time) const RUVO_FROM(1, time) {
    const std::chrono::milliseconds exact = time;
    return detail::fits<long long>(exact, 1)
               ? ask_key<void>(key, "SET", std::string_view(key), value, "PX", exact.count())
               : result<void>(out_of_range());
  }
  /// Stores a value without an expiry, on a condition; yes() if it was stored. Raw:
  /// SET with NX or XX. If a reply is lost, the answer is that of the retry: with
  /// if_absent it is no, even if the first send has stored the value.
  result<bool> set(const c_text& key, const bytes_view& value, condition only) const {
    return stored(ask_key<void>(key, "SET", std::string_view(key), value, name_of(only)));
  }
  /// The same with an expiry. Raw.
  [[gnu::always_inline]] result<bool> set(const c_text& key, const bytes_view& value,
                                          std::chrono::milliseconds time, condition only) const
      RUVO_FROM(1, time) {
    return detail::fits<long long>(time, 1)
               ? stored(ask_key<void>(key, "SET", std::string_view(key), value, "PX", time.count(),
                                      name_of(only)))
               : result<bool>(out_of_range());
  }
  /// Appends bytes to a value (RUVO_AppendKey).
  result<void> append(const c_text& key, const bytes_view& value) const noexcept {
    return Backend::append(pool_, key, value);
  }
  /// Reads a value (RUVO_QueryKey).
  result<bytes> get(const c_text& key) const noexcept { return Backend::get(pool_, key); }
  /// Adds 1 to a counter for the day (RUVO_IncreaseKey), and returns the sum.
  result<long long> increment(const c_text& key) const noexcept {
    return Backend::increment(pool_, key);
  }
  /// Adds to a counter without an expiry, and returns the sum. Raw: INCRBY.
  result<long long> increment(const c_text& key, long long by) const {
    return ask_key<long long>(key, "INCRBY", std::string_view(key), by);
  }
  /// Adds to a counter with an expiry, and returns the sum. The same command sets the expiry of a
  /// counter that has none, so that no counter stays for ever. Later increments do not prolong the
  /// expiry. Raw: EVAL.
  [[gnu::always_inline]] result<long long> increment(const c_text& key, long long by,
                                                     std::chrono::milliseconds time) const
      RUVO_FROM(1, time) {
    return detail::fits<long long>(time, 1) ? count(key, by, time)
                                            : result<long long>(out_of_range());
  }
  /// Tests whether the key exists (RUVO_ExistsKey).
  result<bool> exists(const c_text& key) const noexcept { return Backend::exists(pool_, key); }
  /// Deletes a key of any type (RUVO_DeleteKey).
  result<void> remove(const c_text& key) const noexcept { return Backend::remove(pool_, key); }
  /// Sets the expiry of a key of any type; 0 deletes it (RUVO_ExpireKey).
  [[gnu::always_inline]] result<void> expire(const c_text& key,
                                             std::chrono::seconds time) const noexcept
      RUVO_FROM(0, time) {
    return detail::fits<unsigned>(time, 0)
               ? Backend::expire(pool_, key, static_cast<unsigned>(time.count()))
               : result<void>(out_of_range());
  }
  /// Removes the expiry of a key (RUVO_PersistKey).
  result<void> persist(const c_text& key) const noexcept { return Backend::persist(pool_, key); }
  /// How long a key has to live; `stays` if it has no expiry, and absent() if there is no such key.
  /// Raw: PTTL.
  result<std::chrono::milliseconds> ttl(const c_text& key) const {
    constexpr long long no_key = -2;
    const result<long long> left = ask_key<long long>(key, "PTTL", std::string_view(key));
    if (!left) {
      return left.why();
    }
    if (*left == no_key) {
      return failure(RUVO_ERR_NOT_FOUND);
    }
    return *left < 0 ? stays : std::chrono::milliseconds(*left);
  }

  /// @}

  /// @name Many keys at once
  ///
  ///     temp.mset({{"user:1", "Ada"}, {"user:2", "Bob"}}).value();
  ///     const std::vector<std::string> wanted = {"user:1", "user:3"};
  ///     for (const auto& name : temp.mget(wanted).value()) {
  ///       std::cout << name.value_or("nobody") << '\n';  // Ada, nobody
  ///     }
  ///     std::cout << temp.remove({"user:1", "user:2", "user:3"}).value_or(0) << '\n';  // 2
  ///
  /// They take a range (a std::vector, say) or a list in braces. A range that is too long for one
  /// command is sent as several, each by itself: if one fails, those before it have been carried
  /// out. For an empty range nothing is sent.
  /// @{

  /// Reads the values of keys, in their order; std::nullopt if there is no such key or it is not a
  /// string. Raw: MGET, with up to 1,023 keys in each.
  template <typename Keys>
  result<std::vector<std::optional<std::string>>> mget(const Keys& keys) const {
    std::vector<std::optional<std::string>> values;
    const failure why = in_batches<std::vector<std::optional<std::string>>>(
        words("MGET"), keys_of(keys), 1, [&values](auto part) {
          values.insert(values.end(), std::make_move_iterator(part.begin()),
                        std::make_move_iterator(part.end()));
        });
    return value_unless(why, std::move(values));
  }
  /// The same.
  result<std::vector<std::optional<std::string>>> mget(
      std::initializer_list<bytes_view> keys) const {
    return mget<std::initializer_list<bytes_view>>(keys);
  }
  /// Stores values without an expiry, from pairs of key and value (a std::map, say). Raw: MSET,
  /// with up to 511 pairs in each.
  template <typename Pairs>
  result<void> mset(const Pairs& pairs) const {
    return in_batches<void>(words("MSET"), pairs_of(pairs), 2);
  }
  /// The same.
  result<void> mset(std::initializer_list<std::pair<bytes_view, bytes_view>> pairs) const {
    return mset<std::initializer_list<std::pair<bytes_view, bytes_view>>>(pairs);
  }
  /// Deletes keys, and returns how many of them existed. Raw: DEL, with up to 1,023 keys in each.
  template <typename Keys, typename = std::enable_if_t<!detail::is_text<Keys>>>
  result<long long> remove(const Keys& keys) const {
    long long removed = 0;
    const failure why = in_batches<long long>(words("DEL"), keys_of(keys), 1,
                                              [&removed](long long part) { removed += part; });
    return value_unless(why, removed);
  }
  /// The same.
  result<long long> remove(std::initializer_list<bytes_view> keys) const {
    return remove<std::initializer_list<bytes_view>>(keys);
  }

  /// @}

  /// @name Hashes
  ///
  ///     temp.hset("user:7:profile", "city", "London").value();
  ///     std::cout << temp.hincrby("user:7:profile", "logins", 2).value_or(0) << '\n';  // 2
  ///     if (const auto city = temp.hget("user:7:profile", "city")) {
  ///       std::cout << *city << '\n';  // London
  ///     }
  ///     temp.hset("session:9", {{"user", "7"}, {"role", "guest"}}, std::chrono::hours(1)).value();
  ///     for (const auto& [field, value] : temp.hgetall("session:9").value_or({})) {
  ///       std::cout << field << '=' << value << '\n';  // role=guest, user=7
  ///     }
  /// @{

  /// Sets a field (RUVO_HashSet).
  result<void> hset(const c_text& key, const c_bytes& field, const c_bytes& value) const noexcept {
    return Backend::hset(pool_, key, field, value, -1);
  }
  /// Sets a field, and the expiry of the whole hash.
  [[gnu::always_inline]] result<void> hset(const c_text& key, const c_bytes& field,
                                           const c_bytes& value,
                                           std::chrono::seconds time) const noexcept
      RUVO_FROM(1, time) {
    return detail::fits<int>(time, 1)
               ? Backend::hset(pool_, key, field, value, static_cast<int>(time.count()))
               : result<void>(out_of_range());
  }
  /// Sets fields, from pairs of field and value (a std::map, say). Raw: HSET, with up to 511 pairs
  /// in each.
  template <typename Pairs>
  result<void> hset(const c_text& key, const Pairs& fields) const {
    return key.c_str() == nullptr
               ? refused(key)
               : in_batches<void>(words("HSET", std::string_view(key)), pairs_of(fields), 2,
                                  ignore(), first_word::any);
  }
  /// The same.
  result<void> hset(const c_text& key,
                    std::initializer_list<std::pair<bytes_view, bytes_view>> fields) const {
    return hset<std::initializer_list<std::pair<bytes_view, bytes_view>>>(key, fields);
  }
  /// Sets fields and the expiry of the whole hash with one command, so that no hash stays for ever.
  /// Raw: EVAL, with up to 509 pairs in each.
  template <typename Pairs>
  [[gnu::always_inline]] result<void> hset(const c_text& key, const Pairs& fields,
                                           std::chrono::milliseconds time) const
      RUVO_FROM(1, time) {
    return !detail::fits<long long>(time, 1) ? result<void>(out_of_range())
           : key.c_str() == nullptr          ? refused(key)
                                             : set_fields(key, fields, time);
  }
  /// The same.
  [[gnu::always_inline]] result<void> hset(
      const c_text& key, std::initializer_list<std::pair<bytes_view, bytes_view>> fields,
      std::chrono::milliseconds time) const RUVO_FROM(1, time) {
    return hset<std::initializer_list<std::pair<bytes_view, bytes_view>>>(key, fields, time);
  }
  /// Reads a field (RUVO_HashGet).
  result<bytes> hget(const c_text& key, const c_bytes& field) const noexcept {
    return Backend::hget(pool_, key, field);
  }
  /// Reads all fields; absent() if there is no such hash. Raw: HGETALL.
  result<std::map<std::string, std::string>> hgetall(const c_text& key) const {
    auto all = ask_key<std::map<std::string, std::string>>(key, "HGETALL", std::string_view(key));
    if (all && all->empty()) {
      return failure(RUVO_ERR_NOT_FOUND);
    }
    return all;
  }
  /// Tests whether the field exists (RUVO_HashFieldExist).
  result<bool> hexists(const c_text& key, const c_bytes& field) const noexcept {
    return Backend::hexists(pool_, key, field);
  }
  /// Adds to the number in a field, and returns the sum (RUVO_HashIncrBy).
  result<long long> hincrby(const c_text& key, const c_bytes& field,
                            long long amount) const noexcept {
    return Backend::hincrby(pool_, key, field, amount);
  }
  /// The number of fields; 0 if there is no such hash (RUVO_HashFieldsNum).
  result<long long> hlen(const c_text& key) const noexcept { return Backend::hlen(pool_, key); }
  /// Deletes a field (RUVO_HashDelField).
  result<void> hdel(const c_text& key, const c_bytes& field) const noexcept {
    return Backend::hdel(pool_, key, field);
  }
  /// Reads the next page of a hash, see sscan. Raw: HSCAN.
  result<std::vector<std::pair<std::string, std::string>>> hscan(const c_text& key, cursor& at,
                                                                 unsigned page = 100) const {
    return scan<std::pair<std::string, std::string>>("HSCAN", key, at, page);
  }

  /// @}

  /// @name Lists
  ///
  ///     std::cout << temp.lpush("jobs", "first").value_or(0) << " job\n";  // 1 job
  ///     std::cout << temp.lpush("jobs", "second").value_or(0) << " jobs\n";  // 2 jobs
  ///     for (const std::string& job : temp.lrange("jobs", 0, -1).value_or({})) {
  ///       std::cout << job << '\n';  // second, first
  ///     }
  ///     while (const ruvo::result<std::string> job = temp.rpop("jobs")) {
  ///       std::cout << *job << '\n';  // first, second
  ///     }
  /// @{

  /// Inserts an element at the head, and returns the new length (RUVO_LPush).
  result<long long> lpush(const c_text& key, const c_bytes& value) const noexcept {
    return Backend::lpush(pool_, key, value, 0);
  }
  /// The same, and sets the expiry of the whole list.
  [[gnu::always_inline]] result<long long> lpush(const c_text& key, const c_bytes& value,
                                                 std::chrono::seconds time) const noexcept
      RUVO_FROM(1, time) {
    return detail::fits<int>(time, 1)
               ? Backend::lpush(pool_, key, value, static_cast<int>(time.count()))
               : result<long long>(out_of_range());
  }
  /// Takes the element at the tail, which may be empty (RUVO_RPop).
  result<std::string> rpop(const c_text& key) const noexcept { return Backend::rpop(pool_, key); }
  /// Reads the elements from `first` to `last`, without empty ones; absent() if there are none, not
  /// even empty ones (RUVO_LRange).
  result<std::vector<std::string>> lrange(const c_text& key, int first, int last) const noexcept {
    return Backend::lrange(pool_, key, first, last);
  }
  /// Trims a list to the elements from `first` to `last` (RUVO_LTrim).
  result<void> ltrim(const c_text& key, int first, int last) const noexcept {
    return Backend::ltrim(pool_, key, first, last);
  }
  /// Removes elements that equal `value`, which is refused like a key if it contains a zero byte;
  /// absent() if there were none (RUVO_LRem).
  result<void> lrem(const c_text& key, int count, const c_text& value) const noexcept {
    return Backend::lrem(pool_, key, count, value);
  }

  /// @}

  /// @name Sets
  ///
  ///     const auto added = temp.sadd("online", "Ada");
  ///     std::cout << (added.yes() ? "new" : "known") << '\n';  // new
  ///     if (const auto online = temp.sismember("online", "Bob"); online.no()) {
  ///       std::cout << "gone\n";  // gone
  ///     } else if (online.failed()) {
  ///       std::cerr << online.error().message() << '\n';
  ///     }
  ///     for (const std::string& name : temp.smembers("online").value_or({})) {
  ///       std::cout << name << '\n';  // Ada
  ///     }
  /// @{

  /// Adds a member; yes() if it is new (RUVO_SAdd).
  result<bool> sadd(const c_text& key, const c_bytes& member) const noexcept {
    return Backend::sadd(pool_, key, member);
  }
  /// Tests whether it is a member (RUVO_SIsmember).
  result<bool> sismember(const c_text& key, const c_bytes& member) const noexcept {
    return Backend::sismember(pool_, key, member);
  }
  /// Removes a member (RUVO_SRem).
  result<void> srem(const c_text& key, const c_bytes& member) const noexcept {
    return Backend::srem(pool_, key, member);
  }
  /// Reads all members except an empty one; absent() if there are none, not even an empty one
  /// (RUVO_SMembers).
  result<std::vector<std::string>> smembers(const c_text& key) const noexcept {
    return Backend::smembers(pool_, key);
  }
  /// Reads the next page of a set of any size: about `page` members, sometimes none, sometimes one
  /// twice. A failed page leaves the cursor unchanged. All servers of the pool must know each
  /// other's cursors, as proxies in front of one Redis do. Raw: SSCAN.
  ///
  ///     for (ruvo::cursor at; !at.done();) {
  ///       for (const std::string& name : temp.sscan("online", at).value()) {
  ///         std::cout << name << " is online\n";  // Ada is online
  ///       }
  ///     }
  result<std::vector<std::string>> sscan(const c_text& key, cursor& at, unsigned page = 100) const {
    return scan<std::string>("SSCAN", key, at, page);
  }

  /// @}

  /// @name Any command
  ///
  ///     const auto both =
  ///         temp.ask<std::vector<std::string>>("HMGET", "session:9", "user", "role");
  ///     std::cout << (both ? (*both)[1] : both.error().message()) << '\n';  // guest
  ///     std::cout << temp.ask<int>("INCR", "user:7").reply_text().substr(0, 3) << '\n';  // ERR
  ///     temp.ask<void>("ZADD", "scores", 2.5, "Ada", 1, "Bob").value();
  ///     using scores = std::vector<std::pair<std::string, double>>;
  ///     const auto top = temp.ask<scores>("ZREVRANGE", "scores", 0, 0, "WITHSCORES").value();
  ///     std::cout << top[0].first << ' ' << top[0].second << '\n';  // Ada 2.5
  ///
  /// A word is a text of any bytes, or a number in its shortest form; there is no format string. A
  /// range of these (pairs too, as in a std::map) and ruvo::words may stand anywhere among them.
  /// All are raw. A command has at most 1,024 words; more are refused with RUVO_ERR_NULL_ARGUMENT,
  /// and more than 1 GiB with RUVO_ERR_FAILED.
  /// @{

  /// Runs a command and returns its answer as a T:
  ///
  /// - `void`: anything
  /// - `bool`: from 1 and 0, and from the status OK
  /// - a whole number or floating-point type: from a number, or from a text that is one and fits
  /// - std::string, bytes: from a text
  /// - std::pair of these: from an array of two
  /// - std::optional: also from nil
  /// - std::vector: from an array
  /// - std::vector of std::pair, std::map, std::unordered_map: from an array of keys and values in
  ///   alternation, or of arrays of two
  ///
  /// and of these again, nested to any depth. Nil is absent(), except for std::optional. An error
  /// reply is a failure with RUVO_ERR_FAILED, and so is a reply of another shape; reply_text() has
  /// what Redis said.
  template <typename T, typename... Words>
  result<T> ask(const Words&... words) const {
    static_assert(detail::reader<T>::known,
                  "ruvo: ask gives void, bool, numbers, texts and containers of these");
    return answer<T>(command(words...));
  }

  /// Runs a command and returns Redis' reply (RUVO_ExecRedisCmd). For the call, an error reply is a
  /// success: check is_error(), or use ask.
  ///
  ///     const auto range = temp.command("GETRANGE", "user:7", 0, 1);
  ///     if (range && !range->is_error()) {
  ///       std::cout << range->text() << '\n';  // Ad
  ///     }
  ///     const auto found = temp.command("MGET", "user:7", "user:8").value();
  ///     for (const ruvo::reply_view element : found) {
  ///       std::cout << element << '\n';  // "Ada", (nil)
  ///     }
  template <typename... Words>
  result<reply> command(const Words&... words) const {
    constexpr bool is_command = sizeof...(Words) > 0;
    constexpr bool are_words = (detail::is_word<Words> && ...);
    static_assert(is_command, "ruvo: a command has at least one word");
    static_assert(are_words, "ruvo: a word of a command is a text or a number, or a range of them");
    if constexpr (!is_command || !are_words) {
      return failure(RUVO_ERR_FAILED);
    } else if constexpr ((detail::is_single_word<Words> && ...)) {
      const detail::word all[] = {detail::word(words)...};
      return run(all, std::index_sequence_for<Words...>());
    } else if constexpr (sizeof...(Words) == 1 && (std::is_same_v<Words, ruvo::words> && ...)) {
      return run((words.views(), ...));
    } else {
      return run(ruvo::words(words...).views());
    }
  }

  /// @}

 private:
  static failure out_of_range() noexcept {
    return {RUVO_ERR_NULL_ARGUMENT, detail::cause::time_out_of_range};
  }
  static failure refused(const c_text& key) noexcept {
    return {RUVO_ERR_NULL_ARGUMENT,
            key.has_zero_byte() ? detail::cause::zero_byte : detail::cause::of_code};
  }
  static const char* name_of(condition only) noexcept {
    return only == condition::if_absent ? "NX" : "XX";
  }
  // A SET whose condition is not met answers nil.
  static result<bool> stored(const result<void>& set) noexcept {
    if (!set && !set.absent()) {
      return set.why();
    }
    return static_cast<bool>(set);
  }
  template <typename T>
  static result<T> value_unless(const failure& why, T value) noexcept {
    if (why.code() != RUVO_OK) {
      return why;
    }
    return value;
  }

  // Raw commands refuse a key with a zero byte, too: to the functions of ruvo.h it ends there.
  template <typename T, typename... Words>
  result<T> ask_key(const c_text& key, const Words&... words) const {
    if (key.c_str() == nullptr) {
      return refused(key);
    }
    return ask<T>(words...);
  }

  result<long long> count(const c_text& key, long long by, std::chrono::milliseconds time) const {
    // The sum is a text, since a number of the script's language has 53 bits.
    return ask_key<long long>(key, "EVAL",
                              "redis.call('INCRBY',KEYS[1],ARGV[1]) "
                              "if redis.call('PTTL',KEYS[1])<0 then "
                              "redis.call('PEXPIRE',KEYS[1],ARGV[2]) end "
                              "return redis.call('GET',KEYS[1])",
                              1, std::string_view(key), by, time.count());
  }

  template <typename Pairs>
  result<void> set_fields(const c_text& key, const Pairs& fields,
                          std::chrono::milliseconds time) const {
    return in_batches<void>(words("EVAL",
                                  "redis.call('HSET',KEYS[1],unpack(ARGV,2)) "
                                  "return redis.call('PEXPIRE',KEYS[1],ARGV[1])",
                                  1, std::string_view(key), time.count()),
                            pairs_of(fields), 2, ignore(), first_word::any);
  }

  template <typename Element>
  result<std::vector<Element>> scan(const char* command, const c_text& key, cursor& at,
                                    unsigned page) const {
    auto got = ask_key<std::pair<std::string, std::vector<Element>>>(
        key, command, std::string_view(key), at.position_, "COUNT", page);
    if (!got) {
      return got.why();
    }
    at.position_ = got->first;
    at.done_ = got->first == "0";
    return std::move(got->second);
  }

  struct ignore {
    template <typename... T>
    void operator()(T&&...) const noexcept {}
  };

  template <typename T>
  static result<T> answer(const result<reply>& got) {
    if (!got) {
      return got.why();
    }
    return detail::answer<T>(*got);
  }

  // Sends the words of a range after `head`, in as many commands as needed, and hands each answer
  // to `take`. Groups of `together` words stay in one command; `first` says whether each begins
  // with a key.
  enum class first_word : bool { key, any };
  template <typename T, typename Take = ignore>
  failure in_batches(const words& head, const words& all, std::size_t together, Take take = {},
                     first_word first = first_word::key) const {
    const std::vector<std::string_view> parts = all.views();
    for (std::size_t i = 0; i < parts.size(); i += together) {
      if (first == first_word::key && parts[i].find('\0') != std::string_view::npos) {
        return {RUVO_ERR_NULL_ARGUMENT, detail::cause::zero_byte};
      }
    }
    if (failure why = check(parts); why.code() == RUVO_ERR_NULL_ARGUMENT) {
      return why;  // before the first batch, so that nothing is half done
    }
    const std::size_t room = (words::most - head.size()) / together * together;
    for (std::size_t i = 0; i < parts.size(); i += room) {
      std::vector<std::string_view> batch = head.views();
      const auto from = parts.begin() + static_cast<std::ptrdiff_t>(i);
      const std::size_t count = std::min(room, parts.size() - i);
      batch.insert(batch.end(), from, from + static_cast<std::ptrdiff_t>(count));
      auto part = answer<T>(run(batch));
      if (!part) {
        return part.why();
      }
      if constexpr (!std::is_void_v<T>) {
        take(*std::move(part));
      }
    }
    return RUVO_OK;
  }

  template <typename Keys>
  static words keys_of(const Keys& keys) {
    static_assert(detail::is_list_of_texts<Keys>, "ruvo: keys are a range of texts");
    return words(keys);
  }
  template <typename Pairs>
  static words pairs_of(const Pairs& pairs) {
    static_assert(detail::is_list_of_pairs<Pairs>, "ruvo: what is set is a range of pairs");
    return words(pairs);
  }

  // Redis' upper bound for one command; hiredis counts in an int, whose bound is twice that.
  static constexpr std::size_t max_command = std::size_t{1} << 30U;

  // Why a command cannot be sent; RUVO_OK if it can.
  static failure check(words_view words) noexcept {
    std::size_t size = 0;
    for (const std::string_view word : words) {
      if (word.data() == nullptr) {
        return RUVO_ERR_NULL_ARGUMENT;
      }
      size += word.size();
    }
    if (size > max_command) {
      return {RUVO_ERR_FAILED, detail::cause::too_large};
    }
    return RUVO_OK;
  }

  template <std::size_t... position>
  result<reply> run(const detail::word* words, std::index_sequence<position...>) const {
    const std::string_view all[] = {words[position].text()...};
    if (((all[position].data() == nullptr) || ...)) {
      return failure(RUVO_ERR_NULL_ARGUMENT);
    }
    if ((all[position].size() + ...) > max_command) {
      return failure(RUVO_ERR_FAILED, detail::cause::too_large);
    }
    return Backend::command(pool_, all);
  }
  result<reply> run(const std::vector<std::string_view>& words) const {
    if (words.empty() || words.size() > words::most) {
      return failure(RUVO_ERR_NULL_ARGUMENT, detail::cause::number_of_words);
    }
    const words_view all(words);
    if (failure why = check(all); why.code() != RUVO_OK) {
      return why;
    }
    return Backend::command(pool_, all);
  }

  RedisServerType pool_;
};

/// A pool of the library's servers.
using pool = basic_pool<functions>;

#undef RUVO_FROM
#undef RUVO_TIME_TOO_SHORT

}  // namespace ruvo

#endif

/// @file
/// libruvo for hosts in C++17 and later: what ruvo.h declares, with owners, views and results that
/// cannot be mistaken for values. Header only; ruvo.h says what holds for pools, threads, blocking
/// and commands that run more than once.
///
///     #include <ruvo/ruvo.hpp>
///
///     const ruvo::library library("sruvo.conf");  // once, before everything else
///     if (!library) {
///       std::cerr << ruvo_result_text(library.code()) << '\n';
///     }
///     const ruvo::pool temp(eTempServer);  // from any thread
///
///     temp.set("user:7", "Ada", std::chrono::hours(1));
///
///     if (const auto name = temp.get("user:7")) {
///       std::cout << std::string_view(*name) << '\n';  // Ada
///     } else if (name.absent()) {
///       std::cout << "no such user\n";
///     } else {
///       std::cerr << name.error().message() << '\n';
///     }
///
/// What holds for all of it, and is not repeated below:
///
/// RESULTS. Every operation returns a ruvo::result. Nothing throws but value() of one that failed
/// (a std::system_error), and memory that runs out: in a container, and for the copy of a key of
/// more than 127 bytes (std::bad_alloc).
///
/// KEYS are texts: a literal, a `const char*`, a std::string, or what a std::string_view takes. The
/// functions want them zero-terminated; only one that need not be (a std::string_view, say) is
/// copied, without an allocation when it has at most 127 bytes. One that has a zero byte in it is
/// refused with RUVO_ERR_NULL_ARGUMENT, like a null pointer.
///
/// VALUES, fields, elements and members are std::string_view, hold any bytes and are not copied. At
/// log level DEBUG the library prints some of them as zero-terminated texts, whatever their length:
/// in a process that logs at DEBUG they must be terminated.
///
/// TIMES are whole seconds of std::chrono, from 1 (where it is said, from 0) to what the function
/// takes. Another one is refused with RUVO_ERR_NULL_ARGUMENT before anything is sent. One that is
/// too short and known to the compiler is an error at compile time: with Clang always, with GCC
/// from -O1 on.
///
/// OWNERS (bytes, reply) are moved, not copied; one that was moved from is empty. What they hand
/// out are views that end with them. Destroy them before the library: one that outlives it can
/// still be read, and then its memory is lost, and a line in the log tells.
#ifndef RUVO_RUVO_HPP
#define RUVO_RUVO_HPP

#if __cplusplus < 201703L
#error "ruvo.hpp needs C++17; hosts in C and in older C++ use ruvo.h"
#endif

#include <chrono>
#include <cstddef>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "arguments.hpp"
#include "results.hpp"
#include "ruvo.h"

/// libruvo for hosts in C++17 and later, see ruvo.hpp.
namespace ruvo {

/// Starts the library, and ends it with its own lifetime; make it before everything else that uses
/// the library, in `main` say. Several are counted, see RUVO_Init.
class [[nodiscard]] library {
 public:
  /// Reads the configuration and connects, see RUVO_Init.
  explicit library(const c_text& config) noexcept : code_(RUVO_Init(config.c_str())) {}
  library(const library&) = delete;
  library& operator=(const library&) = delete;
  ~library() {
    if (code_ == RUVO_OK || code_ == RUVO_INIT_TEMP_POOL_FAILED ||
        code_ == RUVO_INIT_PERSIST_POOL_FAILED) {
      RUVO_Fini();
    }
  }

  /// Is it ready, with all its pools?
  explicit operator bool() const noexcept { return code_ == RUVO_OK; }
  /// What RUVO_Init returned: after RUVO_INIT_TEMP_POOL_FAILED and RUVO_INIT_PERSIST_POOL_FAILED it
  /// is ready but for that pool, and a host may go on.
  int code() const noexcept { return code_; }

 private:
  int code_;
};

/// A pool of servers: all operations. A number that is copied and shared freely. Each function says
/// only what ruvo.h does not say of the one in brackets.
class pool {
 public:
  /// The pool of this type.
  explicit constexpr pool(RedisServerType type) noexcept : pool_(type) {}

  /// @name String keys
  ///
  ///     temp.set("motto", "per aspera", std::chrono::minutes(10));
  ///     temp.append("motto", " ad astra");
  ///     if (const ruvo::result<ruvo::bytes> motto = temp.get("motto")) {
  ///       std::cout << motto->size() << " bytes\n";  // 19 bytes
  ///     }
  ///     temp.expire("motto", std::chrono::hours(24));
  ///     if (const ruvo::result<void> gone = temp.remove("motto"); !gone) {
  ///       std::cerr << gone.error().message() << '\n';
  ///     }
  /// @{

  /// Stores a value that stays (RUVO_InsertKey).
  result<void> set(const c_text& key, std::string_view value) const noexcept {
    return insert(key, value, -1);
  }
  /// Stores a value for a time.
  [[gnu::always_inline]] result<void> set(const c_text& key, std::string_view value,
                                          std::chrono::seconds time) const noexcept
      RUVO_FROM(1, time) {
    return detail::fits<int>(time, 1) ? insert(key, value, static_cast<int>(time.count()))
                                      : RUVO_ERR_NULL_ARGUMENT;
  }
  /// Puts more bytes at the end of a value (RUVO_AppendKey).
  result<void> append(const c_text& key, std::string_view value) const noexcept {
    return RUVO_AppendKey(key.c_str(), detail::data_of(value), value.size(), pool_, nullptr);
  }
  /// Reads a value (RUVO_QueryKey).
  [[nodiscard]] result<bytes> get(const c_text& key) const noexcept {
    const char* data = nullptr;
    unsigned long size = 0;
    const int code = RUVO_QueryKey(key.c_str(), &data, &size, pool_, nullptr);
    return owned(code, data, size);
  }
  /// Adds 1 to a counter for the day (RUVO_IncreaseKey), and gives the sum.
  result<long long> increment(const c_text& key) const noexcept {
    // What no sum with 1 comes to: it stays where Redis answered with something that is no number.
    constexpr long long no_sum = std::numeric_limits<long long>::min();
    long long sum = no_sum;
    const int code = RUVO_IncreaseKey(key.c_str(), &sum, pool_, nullptr);
    return value_of(code == RUVO_OK && sum == no_sum ? RUVO_ERR_FAILED : code, sum);
  }
  /// Is the key there? (RUVO_ExistsKey)
  [[nodiscard]] result<bool> exists(const c_text& key) const noexcept {
    return yes_or_no(RUVO_ExistsKey(key.c_str(), pool_, nullptr), RUVO_ABSENT);
  }
  /// Deletes a key, of whatever type (RUVO_DeleteKey).
  result<void> remove(const c_text& key) const noexcept {
    return RUVO_DeleteKey(key.c_str(), pool_, nullptr);
  }
  /// Lets a key, of whatever type, go after a time; 0 deletes it (RUVO_ExpireKey).
  [[gnu::always_inline]] result<void> expire(const c_text& key,
                                             std::chrono::seconds time) const noexcept
      RUVO_FROM(0, time) {
    return detail::fits<unsigned>(time, 0)
               ? RUVO_ExpireKey(key.c_str(), static_cast<unsigned>(time.count()), pool_, nullptr)
               : RUVO_ERR_NULL_ARGUMENT;
  }
  /// Lets a key stay (RUVO_PersistKey).
  result<void> persist(const c_text& key) const noexcept {
    return RUVO_PersistKey(key.c_str(), pool_, nullptr);
  }

  /// @}

  /// @name Hashes
  ///
  ///     temp.hset("user:7:profile", "city", "London");
  ///     std::cout << temp.hincrby("user:7:profile", "logins", 2).value_or(0) << '\n';  // 2
  ///     if (const auto city = temp.hget("user:7:profile", "city")) {
  ///       std::cout << std::string_view(*city) << '\n';  // London
  ///     }
  /// @{

  /// Sets a field (RUVO_HashSet).
  result<void> hset(const c_text& key, std::string_view field,
                    std::string_view value) const noexcept {
    return set_field(key, field, value, -1);
  }
  /// Sets a field, and lets the whole hash go after a time.
  [[gnu::always_inline]] result<void> hset(const c_text& key, std::string_view field,
                                           std::string_view value,
                                           std::chrono::seconds time) const noexcept
      RUVO_FROM(1, time) {
    return detail::fits<int>(time, 1) ? set_field(key, field, value, static_cast<int>(time.count()))
                                      : RUVO_ERR_NULL_ARGUMENT;
  }
  /// Reads a field (RUVO_HashGet).
  [[nodiscard]] result<bytes> hget(const c_text& key, std::string_view field) const noexcept {
    const char* data = nullptr;
    unsigned long size = 0;
    const int code = RUVO_HashGet(key.c_str(), detail::data_of(field), field.size(), &data, &size,
                                  pool_, nullptr);
    return owned(code, data, size);
  }
  /// Is the field there? (RUVO_HashFieldExist)
  [[nodiscard]] result<bool> hexists(const c_text& key, std::string_view field) const noexcept {
    return yes_or_no(
        RUVO_HashFieldExist(key.c_str(), detail::data_of(field), field.size(), pool_, nullptr),
        RUVO_ABSENT);
  }
  /// Adds to the number in a field, and gives the sum (RUVO_HashIncrBy).
  result<long long> hincrby(const c_text& key, std::string_view field,
                            long long amount) const noexcept {
    long long sum = 0;
    const int code = RUVO_HashIncrBy(key.c_str(), detail::data_of(field), field.size(), amount,
                                     &sum, pool_, nullptr);
    return value_of(code, sum);
  }
  /// How many fields there are; 0 where there is no such hash (RUVO_HashFieldsNum).
  [[nodiscard]] result<long long> hlen(const c_text& key) const noexcept {
    long long fields = 0;
    const int code = RUVO_HashFieldsNum(key.c_str(), &fields, pool_, nullptr);
    return value_of(code, fields);
  }
  /// Deletes a field (RUVO_HashDelField).
  result<void> hdel(const c_text& key, std::string_view field) const noexcept {
    return RUVO_HashDelField(key.c_str(), detail::data_of(field), field.size(), pool_, nullptr);
  }

  /// @}

  /// @name Lists
  ///
  ///     temp.lpush("jobs", "first");
  ///     std::cout << temp.lpush("jobs", "second").value_or(0) << " jobs\n";  // 2 jobs
  ///     for (const std::string& job : temp.lrange("jobs", 0, -1).value()) {
  ///       std::cout << job << '\n';  // second, first
  ///     }
  ///     while (const ruvo::result<std::string> job = temp.rpop("jobs")) {
  ///       std::cout << *job << '\n';  // first, second
  ///     }
  /// @{

  /// Puts an element at the head, and gives the new length (RUVO_LPush).
  result<long long> lpush(const c_text& key, std::string_view value) const noexcept {
    return push(key, value, 0);
  }
  /// The same, and lets the whole list go after a time.
  [[gnu::always_inline]] result<long long> lpush(const c_text& key, std::string_view value,
                                                 std::chrono::seconds time) const noexcept
      RUVO_FROM(1, time) {
    return detail::fits<int>(time, 1) ? push(key, value, static_cast<int>(time.count()))
                                      : failure{RUVO_ERR_NULL_ARGUMENT};
  }
  /// Takes the element at the tail, which may be an empty one (RUVO_RPop).
  result<std::string> rpop(const c_text& key) const noexcept {
    std::string element;
    const int code = RUVO_RPop(key.c_str(), element, pool_, nullptr);
    return value_of(code == RUVO_NOTHING_DONE ? RUVO_OK : code, std::move(element));
  }
  /// Reads the elements from `first` to `last`, without empty ones (RUVO_LRange).
  [[nodiscard]] result<std::vector<std::string>> lrange(const c_text& key, int first,
                                                        int last) const noexcept {
    std::vector<std::string> elements;
    const int code = RUVO_LRange(key.c_str(), first, last, elements, pool_, nullptr);
    return value_of(code, std::move(elements));
  }
  /// Cuts a list down to the elements from `first` to `last` (RUVO_LTrim).
  result<void> ltrim(const c_text& key, int first, int last) const noexcept {
    return RUVO_LTrim(key.c_str(), first, last, pool_, nullptr);
  }
  /// Removes elements that equal `value`, which is refused like a key when it has a zero byte in
  /// it; absent() when there were none (RUVO_LRem).
  result<void> lrem(const c_text& key, int count, const c_text& value) const noexcept {
    return RUVO_LRem(key.c_str(), count, value.c_str(), pool_, nullptr);
  }

  /// @}

  /// @name Sets
  ///
  ///     const auto added = temp.sadd("online", "Ada");
  ///     std::cout << (added.value() ? "new" : "known") << '\n';  // new
  ///     const bool online = temp.sismember("online", "Bob").value_or(false);
  ///     std::cout << (online ? "here" : "gone") << '\n';  // gone
  ///     std::cout << temp.smembers("online")->front() << '\n';  // Ada
  /// @{

  /// Adds a member: is it new? (RUVO_SAdd)
  result<bool> sadd(const c_text& key, std::string_view member) const noexcept {
    return yes_or_no(RUVO_SAdd(key.c_str(), detail::data_of(member), member.size(), pool_, nullptr),
                     RUVO_NOTHING_DONE);
  }
  /// Is it a member? (RUVO_SIsmember)
  [[nodiscard]] result<bool> sismember(const c_text& key, std::string_view member) const noexcept {
    return yes_or_no(
        RUVO_SIsmember(key.c_str(), detail::data_of(member), member.size(), pool_, nullptr),
        RUVO_NOTHING_DONE);
  }
  /// Removes a member (RUVO_SRem).
  result<void> srem(const c_text& key, std::string_view member) const noexcept {
    return RUVO_SRem(key.c_str(), detail::data_of(member), member.size(), pool_, nullptr);
  }
  /// Reads all members but an empty one (RUVO_SMembers).
  [[nodiscard]] result<std::vector<std::string>> smembers(const c_text& key) const noexcept {
    std::vector<std::string> members;
    const int code = RUVO_SMembers(key.c_str(), members, pool_, nullptr);
    return value_of(code, std::move(members));
  }

  /// @}

  /// @name Any command
  ///
  ///     const auto range = temp.command("GETRANGE", "user:7", 0, 1);
  ///     if (range && !range->is_error()) {
  ///       std::cout << range->text() << '\n';  // Ad
  ///     }
  ///     const auto found = temp.command("MGET", "user:7", "user:8").value();
  ///     for (const ruvo::reply_view element : found) {
  ///       std::cout << (element.is_nil() ? "nobody" : element.text()) << '\n';  // Ada, nobody
  ///     }
  ///     std::cout << temp.command("INCR", "user:7")->is_error() << '\n';  // 1
  /// @{

  /// Runs a command and gives Redis' reply (RUVO_ExecRedisCmd, which says when it goes to another
  /// pool). A word is a text, taken whatever bytes it holds, or a whole number. A reply that is an
  /// error is a success of the call, see reply_view::is_error. More than 1 GiB is refused with
  /// RUVO_ERR_FAILED.
  template <typename... Words>
  result<reply> command(const Words&... words) const noexcept {
    constexpr bool is_command = sizeof...(Words) > 0;
    constexpr bool are_words = ((detail::is_text<Words> || detail::is_whole_number<Words>)&&...);
    static_assert(is_command, "ruvo: a command has at least one word");
    static_assert(are_words, "ruvo: a word of a command is a text or a whole number");
    if constexpr (is_command && are_words) {
      const detail::word all[] = {detail::word(words)...};
      return run(all, std::make_index_sequence<2 * sizeof...(Words)>());
    } else {
      return failure{RUVO_ERR_FAILED};
    }
  }

  /// @}

 private:
  template <typename T>
  static result<T> value_of(int code, T value) noexcept {
    if (code != RUVO_OK) {
      return failure{code};
    }
    return value;
  }
  static result<bool> yes_or_no(int code, int no) noexcept {
    return value_of(code == no ? RUVO_OK : code, code != no);
  }
  // A buffer is missing where Redis answered with something that is no text.
  static result<bytes> owned(int code, const char* data, std::size_t size) noexcept {
    return value_of(code == RUVO_OK && data == nullptr ? RUVO_ERR_FAILED : code, bytes(data, size));
  }

  int insert(const c_text& key, std::string_view value, int time_out) const noexcept {
    return RUVO_InsertKey(key.c_str(), detail::data_of(value), value.size(), time_out, pool_,
                          nullptr);
  }
  int set_field(const c_text& key, std::string_view field, std::string_view value,
                int time_out) const noexcept {
    return RUVO_HashSet(key.c_str(), detail::data_of(field), field.size(), detail::data_of(value),
                        value.size(), time_out, pool_, nullptr);
  }
  result<long long> push(const c_text& key, std::string_view value, int time_out) const noexcept {
    long long length = 0;
    const int code = RUVO_LPush(key.c_str(), detail::data_of(value), value.size(), time_out,
                                &length, pool_, nullptr);
    return value_of(code == RUVO_OK && length == 0 ? RUVO_ERR_FAILED : code, length);
  }

  // Redis reads no more of one command; hiredis counts in an int and has an end at twice that.
  static constexpr std::size_t max_command = std::size_t{1} << 30U;

  template <std::size_t... position>
  result<reply> run(const detail::word* words, std::index_sequence<position...>) const noexcept {
    std::size_t size = 0;
    for (std::size_t i = 0; i < sizeof...(position) / 2; ++i) {
      size += words[i].size();
    }
    if (size > max_command) {
      return failure{RUVO_ERR_FAILED};
    }
    void* raw = RUVO_ExecRedisCmd(pool_, detail::command_template<sizeof...(position) / 2>.data(),
                                  detail::argument<position>(words)...);
    if (raw == nullptr) {
      return failure{RUVO_ERR_FAILED};
    }
    return reply(raw);
  }

  RedisServerType pool_;
};

#undef RUVO_FROM
#undef RUVO_TIME_TOO_SHORT

}  // namespace ruvo

#endif

/// @file
/// What the operations of ruvo.hpp return: results, owners of the library's memory, and the types
/// that pool::ask makes of a reply.
#ifndef RUVO_RESULTS_HPP
#define RUVO_RESULTS_HPP

#include <hiredis/hiredis.h>

#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iosfwd>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "ruvo.h"

// The layout of a reply differs between major versions: a host that reads it with another header
// than the library's would read other fields.
// clang-format off
#if HIREDIS_MAJOR != @RUVO_HIREDIS_MAJOR@
#error "this libruvo was built with hiredis @RUVO_HIREDIS_MAJOR@.x: use the headers of that major version"
#endif
// clang-format on

/// @cond
// On a member function: its result must not outlive the object. On a parameter: the result must not
// outlive the argument.
#if defined(__clang__)
#define RUVO_LIFETIMEBOUND [[clang::lifetimebound]]
#else
#define RUVO_LIFETIMEBOUND
#endif
/// @endcond

/// @cond
// Codes of RuvoResult compare with std::error_code: `if (name.error() == RUVO_ERR_FAILED)`.
template <>
struct std::is_error_code_enum<RuvoResult> : std::true_type {};
/// @endcond

namespace ruvo {

namespace detail {

// Causes of failures. Each but of_code is one of several for its result code, and has a sentence of
// its own.
enum class cause : unsigned char {
  of_code,
  zero_byte,
  time_out_of_range,
  number_of_words,
  too_large,
  no_reply,
  other_shape
};

inline const char* text_of(cause why) noexcept {
  switch (why) {
    case cause::zero_byte:
      return "a key has a zero byte in it";
    case cause::time_out_of_range:
      return "a time is out of range";
    case cause::number_of_words:
      return "a command has no words, or more than 1024";
    case cause::too_large:
      return "a command is larger than 1 GiB";
    case cause::no_reply:
      return "no reply, see the log";
    case cause::other_shape:
      return "the reply has another shape than was asked for";
    default:
      return nullptr;
  }
}

class result_category final : public std::error_category {
 public:
  const char* name() const noexcept override { return "ruvo"; }
  std::string message(int code) const override {
    // One code for several causes, which only the result itself distinguishes.
    return code == RUVO_ERR_NULL_ARGUMENT ? "an argument is null or out of range"
                                          : ruvo_result_text(code);
  }
  std::error_condition default_error_condition(int code) const noexcept override {
    switch (code) {
      case RUVO_ERR_NO_CONFIG:
      case RUVO_ERR_NULL_ARGUMENT:
        return std::errc::invalid_argument;
      case RUVO_ERR_NO_MEMORY:
        return std::errc::not_enough_memory;
      case RUVO_ERR_CONFIG_FILE:
        return std::errc::no_such_file_or_directory;
      case RUVO_ERR_NO_CONNECTION:
        return std::errc::not_connected;
      default:
        return {code, *this};
    }
  }
};

}  // namespace detail

/// The category of the codes of RuvoResult, "ruvo". One object in the whole process, even if
/// several of its shared libraries use this header. Conditions: RUVO_ERR_NULL_ARGUMENT and
/// RUVO_ERR_NO_CONFIG are std::errc::invalid_argument, RUVO_ERR_NO_MEMORY is not_enough_memory,
/// RUVO_ERR_CONFIG_FILE is no_such_file_or_directory, RUVO_ERR_NO_CONNECTION is not_connected.
RUVO_API inline const std::error_category& category() noexcept {
  static const detail::result_category one;
  return one;
}

/// Why a call has no value. A host passes it on with `return name.why();`, and a backend of its own
/// creates one, see basic_pool.
class failure {
 public:
  /// From a code of RuvoResult, not RUVO_OK.
  failure(int code) noexcept : code_(code) {}
  /// From an error reply, with the text of Redis.
  failure(int code, std::string_view reply_text)
      : code_(code), reply_text_(std::make_shared<const std::string>(reply_text)) {}
  /// @cond
  failure(int code, detail::cause why) noexcept : code_(code), cause_(why) {}
  failure(int code, detail::cause why, std::string_view reply_text) : failure(code, reply_text) {
    cause_ = why;
  }
  /// @endcond

  /// A code of RuvoResult.
  int code() const noexcept { return code_; }
  /// What Redis said; empty if it said nothing.
  std::string reply_text() const { return reply_text_ ? *reply_text_ : std::string(); }
  /// The failure in a sentence.
  std::string message() const {
    std::string all = ruvo_result_text(code_);
    if (const char* text = detail::text_of(cause_)) {
      all = code_ == RUVO_ERR_NULL_ARGUMENT ? text : all + ": " + text;
    }
    return reply_text_ ? all + ": " + *reply_text_ : all;
  }

 private:
  int code_;
  detail::cause cause_ = detail::cause::of_code;
  std::shared_ptr<const std::string> reply_text_;
};

/// A std::error_code whose message says more than the code: which argument was refused, and what
/// Redis said. A copy as a plain std::error_code has the same code and the general message.
class error_code : public std::error_code {
 public:
  /// From a failure.
  explicit error_code(failure why) noexcept
      : std::error_code(why.code(), ruvo::category()), why_(std::move(why)) {}
  /// The error in a sentence.
  std::string message() const { return why_.message(); }

 private:
  failure why_;
};

/// How a call ended: common to all results, with a value or without.
class outcome {
 public:
  /// Did the call fail, or is there no value?
  bool failed() const noexcept { return code() != RUVO_OK; }
  /// A code of RuvoResult.
  int code() const noexcept { return why_.code(); }
  /// The code in category(). Null pointers, keys with a zero byte and times out of range are all
  /// RUVO_ERR_NULL_ARGUMENT; the message distinguishes them.
  ruvo::error_code error() const noexcept { return ruvo::error_code(why_); }
  /// What Redis said if pool::ask, or an operation that says "raw" in ruvo.hpp, failed with an
  /// error reply or a reply of another shape. Empty for all others: the log has it.
  std::string reply_text() const { return why_.reply_text(); }
  /// The failure, to be passed on. REQUIRES: failed().
  const failure& why() const noexcept RUVO_LIFETIMEBOUND { return why_; }
  /// Is there no such key or field, is the list or set empty, or was nothing removed? The call then
  /// succeeded, but has no value.
  bool absent() const noexcept {
    return code() == RUVO_ERR_NOT_FOUND || code() == RUVO_NOTHING_DONE;
  }

 protected:
  /// RUVO_OK or a failure.
  explicit outcome(failure why) noexcept : why_(std::move(why)) {}
  /// Throws unless the call succeeded; without exceptions it ends the program with the message.
  void require() const {
    if (failed()) {
#if defined(__cpp_exceptions)
      throw_it();
#else
      end_program();
#endif
    }
  }
  /// Ends the program with the message unless the call succeeded.
  void insist() const noexcept {
    if (failed()) {
      end_program();
    }
  }

 private:
#if defined(__cpp_exceptions)
  [[noreturn, gnu::cold, gnu::noinline]] void throw_it() const {
    throw std::system_error(error(), why_.message());
  }
#endif
  [[noreturn, gnu::cold, gnu::noinline]] void end_program() const noexcept {
    (void)std::fprintf(stderr, "ruvo: a result without a value was read: %s\n",
                       why_.message().c_str());
    std::abort();
  }

  failure why_;
};

/// What each result with a value has.
template <typename T>
class valued : public outcome {
 public:
  /// The value; throws a std::system_error if there is none.
  const T& value() const& RUVO_LIFETIMEBOUND {
    require();
    return *value_;
  }
  /// The same, mutable.
  T& value() & RUVO_LIFETIMEBOUND {
    require();
    return *value_;
  }
  /// The same for a temporary result: the value itself, so that it can be kept.
  T value() && {
    require();
    return *std::move(value_);
  }

  /// The value; ends the program with a message if there is none.
  const T& operator*() const& noexcept RUVO_LIFETIMEBOUND {
    insist();
    return *value_;
  }
  /// The same, mutable.
  T& operator*() & noexcept RUVO_LIFETIMEBOUND {
    insist();
    return *value_;
  }
  /// The same for a temporary result: the value itself.
  T operator*() && noexcept {
    insist();
    return *std::move(value_);
  }

  /// The value, or `other` if there is none; `value_or({})` gives an empty one.
  template <typename Other = T>
  T value_or(Other&& other) const& {
    return value_.value_or(std::forward<Other>(other));
  }
  /// The same for a temporary result.
  template <typename Other = T>
  T value_or(Other&& other) && {
    return std::move(value_).value_or(std::forward<Other>(other));
  }

 protected:
  /// A success.
  // cppcheck-suppress passedByValue
  explicit valued(T value) noexcept : outcome(RUVO_OK), value_(std::move(value)) {}
  /// A failure.
  explicit valued(failure why) noexcept : outcome(std::move(why)) {}

  std::optional<T> value_;  ///< empty if the call failed
};

/// A value, or why there is none. The compiler warns if a result is dropped.
///
///     const std::string who(temp.get("user:7").value());              // throws when there is none
///     const long long visit = temp.increment("visits").value_or(0);   // 0 when it failed
///     std::cout << who << ", visit " << visit << '\n';                // Ada, visit 1
template <typename T>
class [[nodiscard]] result : public valued<T> {
 public:
  /// A success.
  // cppcheck-suppress passedByValue
  result(T value) noexcept : valued<T>(std::move(value)) {}
  /// A failure.
  result(failure why) noexcept : valued<T>(std::move(why)) {}
  /// A failure, from a code that would otherwise convert to a value.
  template <typename Code, std::enable_if_t<std::is_same_v<Code, RuvoResult>, int> = 0>
  result(Code why) noexcept : result(failure(why)) {}

  /// Is there a value?
  explicit operator bool() const noexcept { return !this->failed(); }
  /// A member of the value; ends the program with a message if there is none.
  const T* operator->() const noexcept RUVO_LIFETIMEBOUND { return &**this; }
  /// The same, mutable.
  T* operator->() noexcept RUVO_LIFETIMEBOUND { return &**this; }
};

/// The answer to a question, or why there is none. It does not convert to bool, since that would be
/// read as the answer:
///
///     const auto known = temp.exists("user:8");
///     std::cout << known.yes() << known.no() << known.failed() << '\n';  // 010
template <>
class [[nodiscard]] result<bool> : public valued<bool> {
 public:
  /// A success.
  result(bool value) noexcept : valued(value) {}
  /// A failure.
  result(failure why) noexcept : valued(std::move(why)) {}
  /// A failure, from a code that would otherwise convert to a value.
  template <typename Code, std::enable_if_t<std::is_same_v<Code, RuvoResult>, int> = 0>
  result(Code why) noexcept : result(failure(why)) {}
  // Other types that convert to bool, such as numbers and pointers, are no answer.
  template <typename Other, typename = std::enable_if_t<
                                std::is_arithmetic_v<Other> || std::is_pointer_v<Other> ||
                                (std::is_enum_v<Other> && !std::is_same_v<Other, RuvoResult>)>>
  result(Other) = delete;

  /// Did the call succeed, and is the answer yes?
  bool yes() const noexcept { return !failed() && *value_; }
  /// Did the call succeed, and is the answer no?
  bool no() const noexcept { return !failed() && !*value_; }
  /// Ambiguous: use yes(), no() or failed().
  explicit operator bool() const = delete;
};

/// The result of a call without a value.
template <>
class [[nodiscard]] result<void> : public outcome {
 public:
  /// A success.
  result() noexcept : outcome(RUVO_OK) {}
  /// From a code of RuvoResult.
  result(int code) noexcept : outcome(code) {}
  /// A failure.
  result(failure why) noexcept : outcome(std::move(why)) {}

  /// Did the call succeed?
  explicit operator bool() const noexcept { return !failed(); }
  /// Throws a std::system_error if the call failed.
  void value() const { require(); }
};

/// Owns a value as the library has read it, without a copy. Compares and prints like a
/// std::string_view, and converts to one, which must not outlive it: a view of a temporary does not
/// compile.
///
///     const auto stored = temp.get("user:7");
///     std::cout << (stored && *stored == "Ada") << '\n';              // 1
class bytes {
 public:
  /// No bytes.
  bytes() noexcept = default;
  /// A copy of a text, for a backend of the host's own.
  static bytes of(std::string_view text) {
    char* copy = new char[text.size()];
    text.copy(copy, text.size());
    return {copy, text.size(), owner::this_header};
  }

  /// Not zero-terminated. Null if there is no buffer.
  const char* data() const& noexcept RUVO_LIFETIMEBOUND { return data_.get(); }
  const char* data() const&& = delete;
  /// The number of bytes.
  std::size_t size() const noexcept { return data_ ? size_ : 0; }
  /// Is the number of bytes 0?
  bool empty() const noexcept { return size() == 0; }
  /// All bytes.
  operator std::string_view() const& noexcept RUVO_LIFETIMEBOUND { return view(); }
  operator std::string_view() const&& = delete;

  /// Prints like a std::string_view.
  template <typename Traits>
  friend std::basic_ostream<char, Traits>& operator<<(std::basic_ostream<char, Traits>& out,
                                                      const bytes& all) {
    return out << all.view();
  }

 private:
  friend struct functions;
  enum class owner : bool { library, this_header };
  bytes(const char* data, std::size_t size, owner who = owner::library) noexcept
      : data_(data, release{who}), size_(size) {}
  std::string_view view() const noexcept { return {data_.get(), size()}; }

  struct release {
    owner who;
    void operator()(const char* data) const noexcept {
      if (who == owner::library) {
        (void)RUVO_FreeResult(data);
      } else {
        delete[] data;
      }
    }
  };
  std::unique_ptr<const char, release> data_{nullptr, release{owner::library}};
  std::size_t size_ = 0;
};

/// @cond
namespace detail {

template <typename A, typename B>
using if_one_is_bytes =
    std::enable_if_t<(std::is_same_v<A, bytes> || std::is_same_v<B, bytes>)&&  //
                     std::is_convertible_v<const A&, std::string_view> &&
                     std::is_convertible_v<const B&, std::string_view>>;

}  // namespace detail

template <typename A, typename B, typename = detail::if_one_is_bytes<A, B>>
bool operator==(const A& a, const B& b) noexcept {
  return std::string_view(a) == std::string_view(b);
}
template <typename A, typename B, typename = detail::if_one_is_bytes<A, B>>
bool operator!=(const A& a, const B& b) noexcept {
  return std::string_view(a) != std::string_view(b);
}
template <typename A, typename B, typename = detail::if_one_is_bytes<A, B>>
bool operator<(const A& a, const B& b) noexcept {
  return std::string_view(a) < std::string_view(b);
}
template <typename A, typename B, typename = detail::if_one_is_bytes<A, B>>
bool operator>(const A& a, const B& b) noexcept {
  return b < a;
}
template <typename A, typename B, typename = detail::if_one_is_bytes<A, B>>
bool operator<=(const A& a, const B& b) noexcept {
  return !(b < a);
}
template <typename A, typename B, typename = detail::if_one_is_bytes<A, B>>
bool operator>=(const A& a, const B& b) noexcept {
  return !(a < b);
}
/// @endcond

class reply;

/// What Redis replied, or an element of it; see reply for its owner. A missing element reads as
/// nil. It prints as in redis-cli:
///
///     std::cout << temp.command("LRANGE", "no list", 0, -1).value() << '\n';  // (empty array)
class reply_view {
 public:
  /// Iterates over the elements, forward only.
  class iterator;

  /// Nil.
  reply_view() noexcept = default;
  /// Of a hiredis reply that somebody else owns.
  explicit reply_view(const redisReply* raw RUVO_LIFETIMEBOUND) noexcept : raw_(raw) {}
  /// A view of a temporary would dangle: keep the reply.
  reply_view(const reply&&) = delete;
  reply_view& operator=(const reply&&) = delete;

  /// One of hiredis' REDIS_REPLY_ constants.
  int type() const noexcept { return raw_ != nullptr ? raw_->type : REDIS_REPLY_NIL; }
  /// Did Redis refuse the command? text() says why.
  bool is_error() const noexcept { return type() == REDIS_REPLY_ERROR; }
  /// Is the reply nil?
  bool is_nil() const noexcept { return type() == REDIS_REPLY_NIL; }
  /// The text of a string, a status or an error; empty for all others.
  std::string_view text() const noexcept {
    return raw_ != nullptr && raw_->str != nullptr ? std::string_view(raw_->str, raw_->len)
                                                   : std::string_view();
  }
  /// The number of an integer; 0 for all others.
  long long integer() const noexcept { return type() == REDIS_REPLY_INTEGER ? raw_->integer : 0; }
  /// How many elements an array has; 0 for all others.
  std::size_t size() const noexcept { return raw_ != nullptr ? raw_->elements : 0; }
  /// An element of an array.
  reply_view operator[](std::size_t index) const noexcept {
    return index < size() ? reply_view(raw_->element[index]) : reply_view();
  }
  /// The first element.
  iterator begin() const noexcept;
  /// Past the last one.
  iterator end() const noexcept;

 protected:
  const redisReply* raw_ = nullptr;  ///< null: nil
};

/// @cond
class reply_view::iterator {
 public:
  using iterator_concept = std::forward_iterator_tag;
  using iterator_category = std::input_iterator_tag;  // dereferencing returns a value
  using value_type = reply_view;
  using difference_type = std::ptrdiff_t;
  using pointer = void;
  using reference = reply_view;

  iterator() noexcept = default;
  iterator(const reply_view& array, std::size_t index) noexcept : array_(array), index_(index) {}
  reply_view operator*() const noexcept { return array_[index_]; }
  iterator& operator++() noexcept {
    ++index_;
    return *this;
  }
  iterator operator++(int) noexcept { return {array_, index_++}; }  // NOLINT(cert-dcl21-cpp)
  friend bool operator==(const iterator& a, const iterator& b) { return a.index_ == b.index_; }
  friend bool operator!=(const iterator& a, const iterator& b) { return a.index_ != b.index_; }

 private:
  reply_view array_;
  std::size_t index_ = 0;
};
/// @endcond

inline reply_view::iterator reply_view::begin() const noexcept { return {*this, 0}; }
inline reply_view::iterator reply_view::end() const noexcept { return {*this, size()}; }

/// Owns a reply of Redis, from pool::command. It hands out views of itself, which do not compile
/// for a temporary: keep the reply, then read it.
class reply : public reply_view {
 public:
  /// Nil.
  reply() noexcept = default;
  /// Leaves `other` nil.
  reply(reply&& other) noexcept
      : reply_view(std::exchange(other.raw_, nullptr)), made_(other.made_) {}
  /// Releases its old reply, and leaves `other` nil.
  reply& operator=(reply&& other) noexcept {
    reply taken(std::move(other));
    std::swap(raw_, taken.raw_);
    std::swap(made_, taken.made_);
    return *this;
  }
  ~reply() {
    if (raw_ != nullptr) {
      release();
    }
  }

  /// @name Replies for a backend of the host's own
  /// @{

  /// A text, as GET answers.
  static reply of_text(std::string_view text) { return made(REDIS_REPLY_STRING, text); }
  /// A status, as SET answers.
  static reply of_status(std::string_view text) { return made(REDIS_REPLY_STATUS, text); }
  /// An error reply in Redis' words.
  static reply of_error(std::string_view text) { return made(REDIS_REPLY_ERROR, text); }
  /// A whole number, as INCR answers.
  static reply of_integer(long long number) { return made(REDIS_REPLY_INTEGER, {}, number); }
  /// Nothing: the key or field is not there.
  static reply of_nil() { return {}; }
  /// Elements, which it owns.
  static reply of_array(std::vector<reply> elements) {
    return made(REDIS_REPLY_ARRAY, {}, 0, std::move(elements));
  }
  /// @}

  /// See reply_view.
  std::string_view text() const& noexcept RUVO_LIFETIMEBOUND { return reply_view::text(); }
  std::string_view text() const&& = delete;
  /// See reply_view.
  reply_view operator[](std::size_t index) const& noexcept RUVO_LIFETIMEBOUND {
    return reply_view::operator[](index);
  }
  reply_view operator[](std::size_t) const&& = delete;
  /// See reply_view.
  iterator begin() const& noexcept RUVO_LIFETIMEBOUND { return reply_view::begin(); }
  iterator begin() const&& = delete;
  /// See reply_view.
  iterator end() const& noexcept RUVO_LIFETIMEBOUND { return reply_view::end(); }
  iterator end() const&& = delete;

 private:
  friend struct functions;
  struct node;
  explicit reply(void* raw) noexcept : reply_view(static_cast<redisReply*>(raw)) {}
  static reply made(int type, std::string_view text, long long number = 0,
                    std::vector<reply> elements = {});
  void release() noexcept;

  bool made_ = false;  // by this header, not by the library
};

/// @cond
// A reply that this header has made, not hiredis.
struct reply::node : redisReply {
  node(int kind, std::string_view words, long long number, std::vector<reply> parts)
      : redisReply(), copy(words), owners(std::move(parts)) {
    type = kind;
    integer = number;
    if (kind != REDIS_REPLY_INTEGER && kind != REDIS_REPLY_ARRAY) {
      str = copy.data();
      len = copy.size();
    }
    for (const reply& part : owners) {
      pointers.push_back(const_cast<redisReply*>(part.raw_));
    }
    element = pointers.data();
    elements = pointers.size();
  }
  std::string copy;
  std::vector<reply> owners;
  std::vector<redisReply*> pointers;
};

inline reply reply::made(int type, std::string_view text, long long number,
                         std::vector<reply> elements) {
  reply all(static_cast<redisReply*>(new node(type, text, number, std::move(elements))));
  all.made_ = true;
  return all;
}
// NOLINTNEXTLINE(misc-no-recursion): as deep as the host has made it
inline void reply::release() noexcept {
  auto* raw = const_cast<redisReply*>(raw_);
  if (made_) {
    delete static_cast<node*>(raw);
  } else {
    RUVO_FreeReplyObject(raw);
  }
}

namespace detail {

// A text as redis-cli quotes it.
inline void print_quoted(std::string& out, std::string_view text) {
  constexpr std::string_view marked = "\\\"\n\r\t\a\b";
  constexpr std::string_view marks = "\\\"nrtab";
  constexpr const char* digits = "0123456789abcdef";
  out += '"';
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (const std::size_t place = marked.find(c); place != std::string_view::npos) {
      out += {'\\', marks[place]};
    } else if (byte >= ' ' && byte <= '~') {
      out += c;
    } else {
      out += {'\\', 'x', digits[byte / 16], digits[byte % 16]};
    }
  }
  out += '"';
}

// As redis-cli prints a reply; `indent` precedes all its lines but the first.
inline void print(std::string& out, const reply_view& reply,  // NOLINT(misc-no-recursion)
                  const std::string& indent = "\n") {
  switch (reply.type()) {
    case REDIS_REPLY_NIL:
      out += "(nil)";
      break;
    case REDIS_REPLY_INTEGER:
      out += "(integer) " + std::to_string(reply.integer());
      break;
    case REDIS_REPLY_ERROR:
      out.append("(error) ").append(reply.text());
      break;
    case REDIS_REPLY_STRING:
      print_quoted(out, reply.text());
      break;
    case REDIS_REPLY_ARRAY: {
      if (reply.size() == 0) {
        out += "(empty array)";
        break;
      }
      const std::size_t width = std::to_string(reply.size()).size();
      const std::string inner_indent = indent + std::string(width + 2, ' ');
      for (std::size_t i = 0; i < reply.size(); ++i) {
        const std::string number = std::to_string(i + 1);
        out += (i == 0 ? "" : indent) + std::string(width - number.size(), ' ') + number + ") ";
        print(out, reply[i], inner_indent);
      }
      break;
    }
    default:
      out += reply.text();
  }
}

}  // namespace detail
/// @endcond

/// Prints like redis-cli, without the last newline.
template <typename Traits>
std::basic_ostream<char, Traits>& operator<<(std::basic_ostream<char, Traits>& out,
                                             const reply_view& reply) {
  std::string text;
  detail::print(text, reply);
  return out << text;
}

/// @cond
namespace detail {

// What pool::ask makes of a reply. Each reader returns whether the reply has its shape. `plain`: it
// reads a single element, not an array.
template <typename T, typename = void>
struct reader {
  static constexpr bool known = false;
};

template <typename T>
inline constexpr bool is_plain = reader<T>::known&& reader<T>::plain;

template <typename Number>
bool read_number(std::string_view text, Number& to) noexcept {
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, to);
  return error == std::errc() && rest == end && !text.empty();
}

inline bool has_text(const reply_view& from) noexcept {
  return from.type() == REDIS_REPLY_STRING || from.type() == REDIS_REPLY_STATUS;
}

template <typename T>
inline constexpr bool is_readable_number = std::is_floating_point_v<T> ||
                                           (std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                            !std::is_same_v<T, char>);

template <typename T>
struct reader<T, std::enable_if_t<is_readable_number<T>>> {
  static constexpr bool known = true;
  static constexpr bool plain = true;
  static bool read(const reply_view& from, T& to) {
    return from.type() == REDIS_REPLY_INTEGER ? read_number(std::to_string(from.integer()), to)
                                              : has_text(from) && read_number(from.text(), to);
  }
};

template <>
struct reader<bool> {
  static constexpr bool known = true;
  static constexpr bool plain = true;
  static bool read(const reply_view& from, bool& to) {
    int number = 0;
    if (from.type() == REDIS_REPLY_STATUS && from.text() == "OK") {
      number = 1;
    } else if (!reader<int>::read(from, number) || number < 0 || number > 1) {
      return false;
    }
    to = number == 1;
    return true;
  }
};

template <>
struct reader<std::string> {
  static constexpr bool known = true;
  static constexpr bool plain = true;
  static bool read(const reply_view& from, std::string& to) {
    to = from.text();
    return has_text(from);
  }
};

template <>
struct reader<bytes> {
  static constexpr bool known = true;
  static constexpr bool plain = true;
  static bool read(const reply_view& from, bytes& to) {
    to = bytes::of(from.text());
    return has_text(from);
  }
};

template <typename T>
struct reader<std::optional<T>> {
  static constexpr bool known = reader<T>::known;
  static constexpr bool plain = is_plain<T>;
  static bool read(const reply_view& from, std::optional<T>& to) {
    return from.is_nil() || reader<T>::read(from, to.emplace());
  }
};

template <typename A, typename B>
struct reader<std::pair<A, B>> {
  static constexpr bool known = reader<A>::known && reader<B>::known;
  static constexpr bool plain = false;
  static bool read(const reply_view& from, std::pair<A, B>& to) {
    return from.size() == 2 && reader<A>::read(from[0], to.first) &&
           reader<B>::read(from[1], to.second);
  }
};

// Pairs in sequence, as HGETALL and WITHSCORES give them, or each as an array of its own, as XRANGE
// gives them.
template <typename A, typename B, typename Add>
bool read_pairs(const reply_view& from, Add add) {
  const bool nested = !is_plain<A> || from[0].type() == REDIS_REPLY_ARRAY;
  const std::size_t step = nested ? 1 : 2;
  for (std::size_t i = 0; i < from.size(); i += step) {
    std::pair<A, B> to{};
    if (!(nested ? reader<std::pair<A, B>>::read(from[i], to)
                 : i + 1 < from.size() && reader<A>::read(from[i], to.first) &&
                       reader<B>::read(from[i + 1], to.second))) {
      return false;
    }
    add(std::move(to));
  }
  return from.type() == REDIS_REPLY_ARRAY;
}

template <typename T>
struct reader<std::vector<T>> {
  static constexpr bool known = reader<T>::known;
  static constexpr bool plain = false;
  static bool read(const reply_view& from, std::vector<T>& to) {
    to.reserve(from.size());
    for (const reply_view element : from) {
      T one{};
      if (!reader<T>::read(element, one)) {
        return false;
      }
      to.push_back(std::move(one));
    }
    return from.type() == REDIS_REPLY_ARRAY;
  }
};

template <typename A, typename B>
struct reader<std::vector<std::pair<A, B>>> {
  static constexpr bool known = reader<A>::known && reader<B>::known;
  static constexpr bool plain = false;
  static bool read(const reply_view& from, std::vector<std::pair<A, B>>& to) {
    return read_pairs<A, B>(from, [&to](std::pair<A, B>&& one) { to.push_back(std::move(one)); });
  }
};

// std::map, std::unordered_map and similar types.
template <typename Map>
struct reader<Map, std::void_t<typename Map::key_type, typename Map::mapped_type>> {
  using key = typename Map::key_type;
  using mapped = typename Map::mapped_type;
  static constexpr bool known = reader<key>::known && reader<mapped>::known;
  static constexpr bool plain = false;
  static bool read(const reply_view& from, Map& to) {
    return read_pairs<key, mapped>(from, [&to](std::pair<key, mapped>&& one) {
      to.insert_or_assign(std::move(one.first), std::move(one.second));
    });
  }
};

template <>
struct reader<void> {
  static constexpr bool known = true;
};

template <typename T>
inline constexpr bool is_optional = false;
template <typename T>
inline constexpr bool is_optional<std::optional<T>> = true;

// The text of the first error in a reply, or the beginning of the reply's own text.
inline std::string reply_text_of(const reply_view& reply) {  // NOLINT(misc-no-recursion)
  constexpr std::size_t enough = 256;
  if (reply.type() == REDIS_REPLY_INTEGER) {
    return std::to_string(reply.integer());
  }
  if (reply.type() != REDIS_REPLY_ARRAY) {
    return std::string(reply.text().substr(0, enough));
  }
  for (const reply_view element : reply) {
    if (element.is_error() || element.type() == REDIS_REPLY_ARRAY) {
      if (std::string text = reply_text_of(element); !text.empty()) {
        return text;
      }
    }
  }
  return {};
}

template <typename T>
result<T> answer(const reply_view& from) {
  if (from.is_error()) {
    return failure(RUVO_ERR_FAILED, from.text());
  }
  if (from.is_nil() && !is_optional<T>) {
    return failure(RUVO_ERR_NOT_FOUND);
  }
  if constexpr (std::is_void_v<T>) {
    return {};
  } else {
    T to{};
    if (!reader<T>::read(from, to)) {
      return failure(RUVO_ERR_FAILED, cause::other_shape, reply_text_of(from));
    }
    return to;
  }
}

}  // namespace detail
/// @endcond

}  // namespace ruvo

/// Converts a RuvoResult to a std::error_code; comparisons of the two call it.
inline std::error_code make_error_code(RuvoResult code) noexcept {
  return {code, ruvo::category()};
}

/// @cond
// A view of a reply is also a view for the standard library.
#if defined(__cpp_lib_ranges)
template <>
inline constexpr bool std::ranges::enable_view<ruvo::reply_view> = true;
template <>
inline constexpr bool std::ranges::enable_borrowed_range<ruvo::reply_view> = true;
#endif
/// @endcond

#endif

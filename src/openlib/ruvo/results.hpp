/// @file
/// What the operations of ruvo.hpp return: results, and the owners of what the library hands out.
#ifndef RUVO_RESULTS_HPP
#define RUVO_RESULTS_HPP

#include <hiredis/hiredis.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "ruvo.h"

namespace ruvo {

class pool;

namespace detail {

class result_category final : public std::error_category {
 public:
  const char* name() const noexcept override { return "ruvo"; }
  std::string message(int code) const override { return ruvo_result_text(code); }
};

}  // namespace detail

/// The category of the codes of RuvoResult, "ruvo". One object in the whole process, also when
/// several of its shared libraries use this header.
RUVO_API inline const std::error_category& category() noexcept {
  static const detail::result_category one;
  return one;
}

/// Why a call has no value to give.
struct failure {
  int code;  ///< one of RuvoResult, not RUVO_OK
};

/// How a call went: what every result has, with a value or without.
class outcome {
 public:
  /// Did the call succeed?
  explicit operator bool() const noexcept { return code_ == RUVO_OK; }
  /// One of RuvoResult.
  int code() const noexcept { return code_; }
  /// The same in category().
  std::error_code error() const noexcept { return {code_, category()}; }
  /// Is there no such key or field, is the list or set empty, was nothing removed? The call went
  /// well then, but has no value.
  bool absent() const noexcept { return code_ == RUVO_ERR_NOT_FOUND || code_ == RUVO_NOTHING_DONE; }

 protected:
  /// Of one of RuvoResult.
  explicit outcome(int code) noexcept : code_(code) {}
  /// Throws unless the call succeeded.
  void require() const {
    if (code_ != RUVO_OK) {
      throw std::system_error(error());
    }
  }

 private:
  int code_;
};

/// A value, or why there is none.
///
///     const std::string who(temp.get("user:7").value());              // throws when there is none
///     const long long visit = temp.increment("visits").value_or(0);   // 0 when it failed
///     std::cout << who << ", visit " << visit << '\n';                // Ada, visit 1
///
/// A result<bool> answers two questions: `if (known)` asks whether the call succeeded, `if
/// (*known)` what it found.
///
///     if (const auto known = temp.exists("user:8")) {
///       std::cout << (*known ? "known" : "unknown") << '\n';          // unknown
///     }
template <typename T>
class result : public outcome {
 public:
  /// A success.
  // cppcheck-suppress passedByValue
  result(T value) noexcept : outcome(RUVO_OK), value_(std::move(value)) {}
  /// A failure.
  result(failure why) noexcept : outcome(why.code) {}

  /// The value; throws a std::system_error when there is none.
  const T& value() const& {
    require();
    return *value_;
  }
  /// The same, to be changed.
  T& value() & {
    require();
    return *value_;
  }
  /// The same of a result that goes: the value itself, so that it can be kept.
  T value() && {
    require();
    return *std::move(value_);
  }

  /// The value. REQUIRES: there is one.
  const T& operator*() const& noexcept { return *value_; }
  /// The same, to be changed.
  T& operator*() & noexcept { return *value_; }
  /// The same of a result that goes: the value itself.
  T operator*() && noexcept { return *std::move(value_); }
  /// A member of the value. REQUIRES: there is one.
  const T* operator->() const noexcept { return &*value_; }
  /// The same, to be changed.
  T* operator->() noexcept { return &*value_; }

  /// The value, or `other` where there is none.
  template <typename Other>
  T value_or(Other&& other) const& {
    return value_.value_or(std::forward<Other>(other));
  }
  /// The same of a result that goes.
  template <typename Other>
  T value_or(Other&& other) && {
    return std::move(value_).value_or(std::forward<Other>(other));
  }

 private:
  std::optional<T> value_;
};

/// The result of a call that has no value to give.
template <>
class result<void> : public outcome {
 public:
  /// Of one of RuvoResult.
  result(int code) noexcept : outcome(code) {}
  /// Throws a std::system_error when the call failed.
  void value() const { require(); }
};

/// Owns a value as the library has read it: no copy of it is made.
class bytes {
 public:
  /// No bytes.
  bytes() noexcept = default;

  /// Not zero-terminated. Null when there is no buffer.
  const char* data() const noexcept { return data_.get(); }
  /// How many there are.
  std::size_t size() const noexcept { return data_ ? size_ : 0; }
  /// All of them.
  operator std::string_view() const noexcept { return {data(), size()}; }

 private:
  friend class pool;
  bytes(const char* data, std::size_t size) noexcept : data_(data), size_(size) {}

  struct release {
    void operator()(const char* data) const noexcept { RUVO_FreeResult(data); }
  };
  std::unique_ptr<const char, release> data_;
  std::size_t size_ = 0;
};

/// What Redis replied, or an element of it; see reply for who owns it. An element that is not there
/// reads as nil.
class reply_view {
 public:
  /// Goes over the elements.
  class iterator;

  /// Nil.
  reply_view() noexcept = default;
  /// Of a reply of hiredis that somebody else owns.
  explicit reply_view(const redisReply* raw) noexcept : raw_(raw) {}

  /// One of hiredis' REDIS_REPLY_ constants.
  int type() const noexcept { return raw_ != nullptr ? raw_->type : REDIS_REPLY_NIL; }
  /// Did Redis refuse the command? text() says why.
  bool is_error() const noexcept { return type() == REDIS_REPLY_ERROR; }
  /// Is there nothing?
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
  using iterator_category = std::input_iterator_tag;
  using value_type = reply_view;
  using difference_type = std::ptrdiff_t;
  using pointer = void;
  using reference = reply_view;

  iterator(reply_view array, std::size_t index) noexcept : array_(array), index_(index) {}
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
  std::size_t index_;
};
/// @endcond

inline reply_view::iterator reply_view::begin() const noexcept { return {*this, 0}; }
inline reply_view::iterator reply_view::end() const noexcept { return {*this, size()}; }

/// Owns a reply of Redis, of pool::command.
class reply : public reply_view {
 public:
  /// Nil.
  reply() noexcept = default;
  /// Leaves `other` nil.
  reply(reply&& other) noexcept : reply_view(std::exchange(other.raw_, nullptr)) {}
  /// Releases what it held, and leaves `other` nil.
  reply& operator=(reply&& other) noexcept {
    reply taken(std::move(other));
    std::swap(raw_, taken.raw_);
    return *this;
  }
  ~reply() {
    if (raw_ != nullptr) {
      RUVO_FreeReplyObject(const_cast<redisReply*>(raw_));
    }
  }

 private:
  friend class pool;
  explicit reply(void* raw) noexcept : reply_view(static_cast<redisReply*>(raw)) {}
};

}  // namespace ruvo

#endif

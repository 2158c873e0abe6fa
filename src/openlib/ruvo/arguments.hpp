/// @file
/// How the arguments of ruvo.hpp's operations become those of the functions of ruvo.h.
#ifndef RUVO_ARGUMENTS_HPP
#define RUVO_ARGUMENTS_HPP

#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "ruvo.h"

namespace ruvo {

class bytes_view;
class c_bytes;

/// @cond
namespace detail {

template <typename T, typename... Others>
inline constexpr bool is_one_of = (std::is_same_v<T, Others> || ...);

// Whatever converts to a std::string_view, except a literal null.
template <typename Text>
inline constexpr bool is_text =
    std::is_convertible_v<const Text&, std::string_view> && !std::is_null_pointer_v<Text>;

// What the compiler or a reader may mistake for a text: 0, nullptr, 'c', true, 5.
template <typename T>
inline constexpr bool is_mistaken = std::is_arithmetic_v<T> || std::is_null_pointer_v<T>;

template <typename Text>
using if_text = std::enable_if_t<is_text<Text>, int>;
template <typename T>
using if_mistaken = std::enable_if_t<is_mistaken<T>, int>;

template <typename>
inline constexpr bool never = false;

// The bytes of a text. A null pointer keeps its null, which the functions refuse; an empty
// std::string_view is an empty text, whatever it points to.
template <typename Text>
std::string_view bytes_of(const Text& text) noexcept {
  if constexpr (std::is_convertible_v<const Text&, const char*>) {
    const char* const pointer = text;
    return pointer != nullptr ? std::string_view(pointer) : std::string_view();
  } else if constexpr (is_one_of<Text, bytes_view, c_bytes>) {
    return {text.data(), text.size()};
  } else {
    const std::string_view view = text;
    return view.data() != nullptr || !view.empty() ? view : std::string_view("");
  }
}

// Does its type guarantee a zero byte after it?
template <typename Text>
inline constexpr bool is_terminated =
    std::is_convertible_v<const Text&, const char*> || std::is_same_v<Text, std::string>;

// Room for a copy with a zero byte at its end.
class copy_of_text {
 public:
  copy_of_text() noexcept {}  // NOLINT: the room is written before it is read
  static constexpr std::size_t room = 128;

  const char* take(std::string_view text) {
    char* copy = short_.data();
    if (text.size() >= room) {
      long_.reset(new char[text.size() + 1]);
      copy = long_.get();
    }
    text.copy(copy, text.size());
    copy[text.size()] = '\0';
    return copy;
  }

 private:
  std::array<char, room> short_;
  std::unique_ptr<char[]> long_;
};

}  // namespace detail
/// @endcond

/// A text as the functions take it, zero-terminated. Made from any kind of text where one is
/// needed; see KEYS in ruvo.hpp.
class c_text {
 public:
  /// Copied unless it is zero-terminated.
  template <typename Text, detail::if_text<Text> = 0>
  c_text(const Text& text) noexcept(detail::is_terminated<Text>) {
    if constexpr (std::is_convertible_v<const Text&, const char*>) {
      text_ = text;
    } else if (const std::string_view view = detail::bytes_of(text);
               view.find('\0') != std::string_view::npos) {
      has_zero_byte_ = true;
    } else if constexpr (detail::is_terminated<Text>) {
      text_ = text.c_str();
    } else {
      text_ = view.data() != nullptr ? copy_.take(view) : nullptr;
    }
  }
  /// @cond
  template <typename T, detail::if_mistaken<T> = 0>
  c_text(T) {
    static_assert(detail::never<T>, "ruvo: a key is a text, and no number or null");
  }
  /// @endcond
  c_text(const c_text&) = delete;
  c_text& operator=(const c_text&) = delete;

  /// Null if it was given as a null pointer, or has a zero byte before its end.
  const char* c_str() const noexcept { return text_; }
  /// Empty if c_str() is null.
  operator std::string_view() const noexcept { return text_ != nullptr ? text_ : ""; }
  /// Is it refused for a zero byte before its end?
  bool has_zero_byte() const noexcept { return has_zero_byte_; }

 private:
  detail::copy_of_text copy_;
  const char* text_ = nullptr;
  bool has_zero_byte_ = false;
};

/// A value: any bytes, not copied. Made from any kind of text where one is needed.
class bytes_view {
 public:
  /// No bytes.
  bytes_view() noexcept : bytes_view("", 0) {}
  /// `size` bytes from `data` on.
  bytes_view(const char* data, std::size_t size) noexcept
      : view_(size == 0 && data == nullptr ? "" : data, size) {}
  /// All of a text.
  template <typename Text, detail::if_text<Text> = 0>
  bytes_view(const Text& text) noexcept : view_(detail::bytes_of(text)) {}
  /// @cond
  template <typename T, detail::if_mistaken<T> = 0>
  bytes_view(T) {
    static_assert(detail::never<T>,
                  "ruvo: a value is a text, and no number or null: use std::to_string");
  }
  /// @endcond

  /// Null if it was given as a null pointer.
  const char* data() const noexcept { return view_.data(); }
  /// The number of bytes.
  std::size_t size() const noexcept { return view_.size(); }
  /// All bytes; empty if data() is null.
  operator std::string_view() const noexcept { return view_; }

 private:
  std::string_view view_;
};

/// A value, field, element or member that the library may print: any bytes. Short ones are copied
/// unless their type guarantees a zero byte after them, so that no level of the log reads past
/// them.
class c_bytes {
 public:
  /// No bytes.
  c_bytes() noexcept = default;
  /// `size` bytes from `data` on.
  c_bytes(const char* data, std::size_t size) noexcept : view_(data, size) { terminate(); }
  /// All of a text.
  template <typename Text, detail::if_text<Text> = 0>
  c_bytes(const Text& text) noexcept : view_(text) {
    if constexpr (!detail::is_terminated<Text>) {
      terminate();
    }
  }
  /// @cond
  template <typename T, detail::if_mistaken<T> = 0>
  c_bytes(T value) : view_(value) {}
  /// @endcond
  c_bytes(const c_bytes&) = delete;
  c_bytes& operator=(const c_bytes&) = delete;

  /// Null if it was given as a null pointer.
  const char* data() const noexcept { return view_.data(); }
  /// The number of bytes.
  std::size_t size() const noexcept { return view_.size(); }
  /// All bytes; empty if data() is null.
  operator std::string_view() const noexcept { return view_; }

 private:
  void terminate() noexcept {
    if (data() != nullptr && size() < detail::copy_of_text::room) {
      view_ = {copy_.take(view_), size()};
    }
  }

  detail::copy_of_text copy_;
  bytes_view view_;
};

/// @cond
// A time that is too short does not compile: Clang checks the call (RUVO_FROM, after the
// parameters of a function that takes a time), GCC the inlined call (fits(), in its body). ruvo.hpp
// undefines the macros.
#define RUVO_TIME_TOO_SHORT \
  "ruvo: the time is too short: 1 or more of its unit, for expire 0 or more"
#ifdef __clang__
#define RUVO_FROM(least, time)                                                             \
  _Pragma("clang diagnostic push") _Pragma("clang diagnostic ignored \"-Wgcc-compat\"")    \
      __attribute__((diagnose_if((time).count() < (least), RUVO_TIME_TOO_SHORT, "error"))) \
      _Pragma("clang diagnostic pop")
#else
#define RUVO_FROM(least, time)
#endif

namespace detail {

#ifndef __clang__
[[gnu::error(RUVO_TIME_TOO_SHORT)]] void time_too_short();
#endif

// Does the function take this time: at least `least`, at most what its parameter holds?
template <typename Parameter, typename Period>
[[gnu::always_inline]] inline bool fits(std::chrono::duration<long, Period> time,
                                        int least) noexcept {
  const auto count = time.count();
#ifndef __clang__
  const bool too_short = count < least;
  if (__builtin_constant_p(too_short) && too_short) {
    time_too_short();
  }
#endif
  return count >= least && count <= std::numeric_limits<Parameter>::max();
}

// A time that is not whole seconds.
template <typename Time>
using if_milliseconds = std::enable_if_t<std::is_convertible_v<Time, std::chrono::milliseconds> &&
                                         !std::is_convertible_v<Time, std::chrono::seconds>>;

template <typename Word>
inline constexpr bool is_number =
    is_one_of<Word, signed char, unsigned char, short, unsigned short, int, unsigned int, long,
              unsigned long, long long, unsigned long long, float, double>;

template <typename Word>
inline constexpr bool is_single_word = is_text<Word> || is_number<Word>;

// A word of a command; a number is written out in place.
class word {
 public:
  template <typename Given>
  explicit word(const Given& given) noexcept {
    if constexpr (is_number<Given>) {
      const char* end = std::to_chars(digits_, digits_ + sizeof(digits_), given).ptr;
      text_ = {digits_, static_cast<std::size_t>(end - digits_)};
    } else {
      text_ = bytes_of(given);
    }
  }
  word(const word&) = delete;
  word& operator=(const word&) = delete;
  std::string_view text() const noexcept { return text_; }  // null if given as a null pointer

 private:
  char digits_[32];
  std::string_view text_;
};

}  // namespace detail
/// @endcond

/// The words of a command, as a backend of the host's own receives them.
class words_view {
 public:
  /// `size` words from `first` on.
  words_view(const std::string_view* first, std::size_t size) noexcept
      : first_(first), size_(size) {}
  /// All of an array.
  template <std::size_t count>
  words_view(const std::string_view (&all)[count]) noexcept : words_view(all, count) {}
  /// All of a vector.
  words_view(const std::vector<std::string_view>& all) noexcept
      : words_view(all.data(), all.size()) {}
  /// The first word.
  const std::string_view* begin() const noexcept { return first_; }
  /// Past the last one.
  const std::string_view* end() const noexcept { return first_ + size_; }
  /// The number of words.
  std::size_t size() const noexcept { return size_; }
  /// One of them. REQUIRES: index < size().
  std::string_view operator[](std::size_t index) const noexcept { return first_[index]; }

 private:
  const std::string_view* first_;
  std::size_t size_;
};

class words;

/// @cond
namespace detail {

template <typename T>
inline constexpr bool is_pair = false;
template <typename A, typename B>
inline constexpr bool is_pair<std::pair<A, B>> = true;

template <typename Range>
using element_of = std::decay_t<decltype(*std::begin(std::declval<const Range&>()))>;

// What words::add takes.
template <typename T, typename = void>
inline constexpr bool is_word = is_single_word<T> || std::is_same_v<T, words>;
template <typename A, typename B>
inline constexpr bool is_word<std::pair<A, B>, void> =
    is_word<std::decay_t<A>>&& is_word<std::decay_t<B>>;
template <typename Range>
inline constexpr bool
    is_word<Range, std::enable_if_t<!is_single_word<Range>, std::void_t<element_of<Range>>>> =
        is_word<element_of<Range>>;

template <typename T>
inline constexpr bool is_name_and_value = false;
template <typename A, typename B>
inline constexpr bool is_name_and_value<std::pair<A, B>> =
    is_text<std::decay_t<A>>&& is_single_word<std::decay_t<B>>;
template <typename T, typename = void>
inline constexpr bool is_list_of_pairs = false;
template <typename T>
inline constexpr bool is_list_of_pairs<T, std::void_t<element_of<T>>> =
    is_name_and_value<element_of<T>>;
template <typename T, typename = void>
inline constexpr bool is_list_of_texts = false;
template <typename T>
inline constexpr bool is_list_of_texts<T, std::void_t<element_of<T>>> = is_text<element_of<T>>;

}  // namespace detail
/// @endcond

/// The words of a command whose number is known only at run time. Keeps copies of them.
///
///     ruvo::words fill("RPUSH", "readings");
///     for (const double reading : {1.5, 20.0, -3e30}) {
///       fill.add(reading);
///     }
///     std::cout << temp.command(fill).value() << '\n';  // (integer) 3
class words {
 public:
  /// Upper bound of the words in a command.
  static constexpr std::size_t most = 1024;

  /// No words.
  words() = default;
  /// These words; see add.
  template <typename First, typename... More,
            typename = std::enable_if_t<(sizeof...(More) > 0) || !std::is_same_v<First, words>>>
  explicit words(const First& first, const More&... more) {
    add(first);
    (add(more), ...);
  }

  /// Adds a text (any bytes), a number (in its shortest form), a pair (both parts), a range of
  /// these (a map, say), or other words.
  template <typename Word>
  words& add(const Word& given) {  // NOLINT(misc-no-recursion): as deep as its type
    static_assert(detail::is_word<Word>,
                  "ruvo: a word of a command is a text or a number, or a range of them");
    if constexpr (std::is_same_v<Word, words>) {
      for (const std::string_view one : given.views()) {
        append(one);
      }
    } else if constexpr (detail::is_single_word<Word>) {
      append(detail::word(given).text());
    } else if constexpr (detail::is_pair<Word>) {
      add(given.first).add(given.second);
    } else if constexpr (detail::is_word<Word>) {
      for (const auto& element : given) {
        add<detail::element_of<Word>>(element);
      }
    }
    return *this;
  }

  /// The number of words.
  std::size_t size() const noexcept { return places_.size(); }
  /// Views of the words, valid until the next add() or the end of this object; null for a word
  /// given as a null pointer.
  std::vector<std::string_view> views() const {
    std::vector<std::string_view> all;
    all.reserve(size());
    for (const place& at : places_) {
      all.push_back(at.null ? std::string_view()
                            : std::string_view(text_.data() + at.begin, at.size));
    }
    return all;
  }

 private:
  struct place {
    std::size_t begin;
    std::size_t size;
    bool null;
  };

  void append(std::string_view text) {
    places_.push_back({text_.size(), text.size(), text.data() == nullptr});
    text_ += text;
  }

  std::string text_;
  std::vector<place> places_;
};

/// @cond
namespace detail {

// The template of a command of `words` words: "%b %b". A shorter command uses its end.
template <std::size_t words>
constexpr std::array<char, 3 * words> template_of() noexcept {
  std::array<char, 3 * words> text{};
  for (std::size_t i = 0; i < words; ++i) {
    text[3 * i] = '%';
    text[3 * i + 1] = 'b';
    text[3 * i + 2] = i + 1 < words ? ' ' : '\0';
  }
  return text;
}
template <std::size_t words>
inline constexpr std::array<char, 3 * words> command_template = template_of<words>();

// The arguments of a `%b`: the pointer of a word, then its length.
template <bool is_length>
auto part(std::string_view word) noexcept {
  if constexpr (is_length) {
    return word.size();
  } else {
    return word.data();
  }
}

// Runs a command of `count` words. More words may be passed: the function does not read what its
// template does not name.
template <std::size_t... position>
void* execute(RedisServerType pool, std::size_t count, const std::string_view* words,
              std::index_sequence<position...>) noexcept {
  constexpr std::size_t room = sizeof...(position) / 2;
  return RUVO_ExecRedisCmd(pool, command_template<room>.data() + 3 * (room - count),
                           part<position % 2 != 0>(words[position / 2])...);
}
template <std::size_t room>
[[gnu::noinline]] void* execute_in(RedisServerType pool, std::size_t count,
                                   std::vector<std::string_view>& words) {
  words.resize(room);
  return execute(pool, count, words.data(), std::make_index_sequence<2 * room>());
}
// The same for a number known at run time: with room for 16, 128 or the maximum number of words.
inline void* execute(RedisServerType pool, words_view given) {
  std::vector<std::string_view> words(given.begin(), given.end());
  const std::size_t count = words.size();
  return count <= 16    ? execute_in<16>(pool, count, words)
         : count <= 128 ? execute_in<128>(pool, count, words)
                        : execute_in<words::most>(pool, count, words);
}

}  // namespace detail
/// @endcond

}  // namespace ruvo

#endif

/// @file
/// How the arguments of the operations of ruvo.hpp become those of the functions of ruvo.h.
#ifndef RUVO_ARGUMENTS_HPP
#define RUVO_ARGUMENTS_HPP

#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

namespace ruvo {

/// A text as the functions take it, zero-terminated. Made where one is asked for, from any kind of
/// text; see KEYS.
class c_text {
 public:
  /// Taken as it is.
  c_text(const char* text) noexcept : text_(text) {}
  /// Taken as it is.
  c_text(const std::string& text) noexcept : text_(has_zero(text) ? nullptr : text.c_str()) {}
  /// Copied, for want of a zero byte at its end.
  c_text(std::string_view text) : text_(has_zero(text) ? nullptr : terminated(text)) {}
  /// What a std::string_view takes.
  template <typename Text,
            typename = std::enable_if_t<std::is_convertible_v<const Text&, std::string_view> &&
                                        !std::is_convertible_v<const Text&, const char*>>>
  c_text(const Text& text) : c_text(std::string_view(text)) {}
  c_text(std::nullptr_t) = delete;
  c_text(const c_text&) = delete;
  c_text& operator=(const c_text&) = delete;

  /// Null where there is a zero byte before the end.
  const char* c_str() const noexcept { return text_; }

 private:
  static bool has_zero(std::string_view text) noexcept {
    return text.find('\0') != std::string_view::npos;
  }
  const char* terminated(std::string_view text) {
    char* copy = short_.data();
    if (text.size() >= short_.size()) {
      long_.reset(new char[text.size() + 1]);
      copy = long_.get();
    }
    text.copy(copy, text.size());
    copy[text.size()] = '\0';
    return copy;
  }

  // The copy is made while text_ is initialised: it stands last.
  std::array<char, 128> short_;
  std::unique_ptr<char[]> long_;
  const char* text_;
};

/// @cond
// A time that is too short: Clang looks at the call, GCC at what is left of it when it is inlined.
// RUVO_FROM stands behind a function that takes a time, fits() in it; ruvo.hpp undefines them.
#define RUVO_TIME_TOO_SHORT "ruvo: the time is too short: 1 second or more, for expire 0 or more"
#ifdef __clang__
#define RUVO_FROM(least, time)                                                             \
  _Pragma("clang diagnostic push") _Pragma("clang diagnostic ignored \"-Wgcc-compat\"")    \
      __attribute__((diagnose_if((time).count() < (least), RUVO_TIME_TOO_SHORT, "error"))) \
      _Pragma("clang diagnostic pop")
#else
#define RUVO_FROM(least, time)
#endif
/// @endcond

namespace detail {

#ifndef __clang__
[[gnu::error(RUVO_TIME_TOO_SHORT)]] void time_too_short();
#endif

// Is a time one that the function takes, from `least` to what its parameter holds?
template <typename Parameter>
[[gnu::always_inline]] inline bool fits(std::chrono::seconds time, int least) noexcept {
  const auto count = time.count();
#ifndef __clang__
  const bool too_short = count < least;
  if (__builtin_constant_p(too_short) && too_short) {
    time_too_short();
  }
#endif
  return count >= least && count <= std::numeric_limits<Parameter>::max();
}

// A null pointer is no text for the functions.
inline const char* data_of(std::string_view value) noexcept {
  return value.data() != nullptr ? value.data() : "";
}

template <typename T, typename... Others>
inline constexpr bool is_one_of = (std::is_same_v<T, Others> || ...);

template <typename Word>
inline constexpr bool is_text =
    std::is_convertible_v<const Word&, std::string_view> && !std::is_null_pointer_v<Word>;

template <typename Word>
inline constexpr bool is_whole_number =
    is_one_of<Word, signed char, unsigned char, short, unsigned short, int, unsigned int, long,
              unsigned long, long long, unsigned long long>;

// A word of a command; a number is written out in place.
class word {
 public:
  template <typename Given>
  explicit word(const Given& given) noexcept {
    if constexpr (is_whole_number<Given>) {
      const char* end = std::to_chars(digits_, digits_ + sizeof(digits_), given).ptr;
      text_ = {digits_, static_cast<std::size_t>(end - digits_)};
    } else {
      text_ = given;
    }
  }
  word(const word&) = delete;
  word& operator=(const word&) = delete;

  const char* data() const noexcept { return data_of(text_); }
  std::size_t size() const noexcept { return text_.size(); }

 private:
  char digits_[20];
  std::string_view text_;
};

// The template of a command of so many words: "%b %b".
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

// What stands for a `%b`: the pointer of a word, then its length.
template <std::size_t position>
auto argument(const word* words) noexcept {
  if constexpr (position % 2 == 0) {
    return words[position / 2].data();
  } else {
    return words[position / 2].size();
  }
}

}  // namespace detail

}  // namespace ruvo

#endif

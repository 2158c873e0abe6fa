#include "key_format.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// The parts of one directive. Positions ("%2$d") and length modifiers ("%lld") are read and
// dropped: every argument is zero, which prints the same at any position and size.
struct directive {
  std::array<char, 8> flags{};  // each flag once
  int width = 0;
  int precision = -1;      // -1: none given
  char conversion = '\0';  // '\0': the key ends within the directive
};

// Reads digits, capped at the buffer.
int read_digits(const char*& at) {
  int number = 0;
  for (; *at >= '0' && *at <= '9'; ++at) {
    number = std::min(number * 10 + (*at - '0'), log_buffer_size);
  }
  return number;
}

// Skips the position of an argument, "2$", if there is one.
void skip_position(const char*& at) {
  const char* end = at;
  read_digits(end);
  if (end != at && *end == '$') {
    at = end + 1;
  }
}

// Reads a width or a precision: digits, or a "*", whose argument would be zero.
int read_size(const char*& at) {
  if (*at != '*') {
    return read_digits(at);
  }
  skip_position(++at);
  return 0;
}

// `at` is just after the "%", and is moved past the directive.
directive read_directive(const char*& at) {
  directive result;
  skip_position(at);
  for (std::size_t count = 0; *at != '\0' && std::strchr("-+ #0'I", *at) != nullptr; ++at) {
    if (std::strchr(result.flags.data(), *at) == nullptr) {
      result.flags[count++] = *at;
    }
  }
  result.width = read_size(at);
  if (*at == '.') {
    result.precision = read_size(++at);
  }
  while (*at != '\0' && std::strchr("hlLqjzZt", *at) != nullptr) {
    ++at;
  }
  result.conversion = *at;
  if (*at != '\0') {
    ++at;
  }
  return result;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

// Prints one directive with a zero argument. Returns the number of bytes that it needs, or -1 for
// an unknown conversion. `format` is made here and holds exactly one known directive.
int print_zero(const directive& what, char* out, std::size_t room) {
  std::array<char, 32> format{};
  int used = std::snprintf(format.data(), format.size(), "%%%s", what.flags.data());
  const auto add = [&](const char* piece, int number) {
    used += std::snprintf(format.data() + used, format.size() - static_cast<std::size_t>(used),
                          piece, number);
  };
  if (what.width > 0) {
    add("%d", what.width);
  }
  if (what.precision >= 0) {
    add(".%d", what.precision);
  }
  add("%c", what.conversion);
  switch (what.conversion) {
    case 'd':
    case 'i':
    case 'o':
    case 'u':
    case 'x':
    case 'X':
    case 'b':
    case 'B':
    case 'c':
    case 'C':
      return std::snprintf(out, room, format.data(), 0);
    case 'a':
    case 'A':
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
      return std::snprintf(out, room, format.data(), 0.0);
    case 's':
    case 'S':
    case 'p':
      return std::snprintf(out, room, format.data(), static_cast<const void*>(nullptr));
    case 'm':
      return std::snprintf(out, room, format.data());
    default:
      return -1;
  }
}

#pragma GCC diagnostic pop

}  // namespace

void expand_key_format(const char* key, std::array<char, log_buffer_size>& text) noexcept {
  std::size_t used = 0;
  const std::size_t room = text.size() - 1;
  const auto append = [&](const char* piece, std::size_t length) {
    length = std::min(length, room - used);
    std::memcpy(text.data() + used, piece, length);
    used += length;
  };
  int directives = 0;
  bool unknown_before = false;
  while (*key != '\0' && used < room && directives < log_buffer_size) {
    const std::size_t plain = std::strcspn(key, "%");
    append(key, plain);
    key += plain;
    if (*key == '\0') {
      break;
    }
    const char* const start = key++;
    const directive what = read_directive(key);
    ++directives;
    if (what.conversion == '\0') {
      // printf drops an incomplete directive, unless it has met an unknown one before.
      append(start, unknown_before ? static_cast<std::size_t>(key - start) : 0);
      break;
    }
    if (what.conversion == '%') {
      append("%", 1);
    } else if (what.conversion != 'n') {
      const int wanted = print_zero(what, text.data() + used, room - used + 1);
      if (wanted >= 0) {
        used = std::min(used + static_cast<std::size_t>(wanted), room);
      } else {
        append(start, static_cast<std::size_t>(key - start));
        unknown_before = true;
      }
    }
  }
  text[used] = '\0';
}

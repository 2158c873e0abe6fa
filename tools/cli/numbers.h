// Whole numbers as people write them: in base 10, with nothing after the digits.
#ifndef RUVO_TOOLS_CLI_NUMBERS_H
#define RUVO_TOOLS_CLI_NUMBERS_H

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

// Nothing if the text is not a number from `least` to `most`.
template <typename Number>
std::optional<Number> parse_number(std::string_view text, Number least, Number most) {
  Number number{};
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stopped != end || number < least || number > most) {
    return std::nullopt;
  }
  return number;
}

#endif

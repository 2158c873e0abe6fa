// Keys that the log uses as formats: whole numbers, texts and pointers are printed as printf prints
// them for zeros; for everything else the test only checks that it is safe.
#include <cstdint>
#include <cstring>
#include <regex>
#include <string>

#include "key_format.h"
#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string key(reinterpret_cast<const char*>(data), size);
  std::array<char, log_buffer_size> text{};
  expand_key_format(key.c_str(), text);
  require(std::memchr(text.data(), '\0', text.size()) != nullptr, "the text has an end");
  // Matches keys whose conversions read only the zeros below: no floating-point numbers, and no
  // more conversions than zeros. "%c" is missing, since printf would end the text at its zero.
  static const std::regex plain(
      "([^%]|%(%|[-+ "
      "#0]{0,3}[0-9]{0,3}([.][0-9]{0,3})?(hh|h|ll|l|j|z|t)?[diouxXp]|[0-9]{0,2}s)){0,12}");
  if (key.size() > 100 || key.find('\0') != std::string::npos || !std::regex_match(key, plain)) {
    return 0;
  }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::array<char, log_buffer_size> expected{};
  const void* zero = nullptr;
  std::snprintf(expected.data(), expected.size(), key.c_str(), zero, zero, zero, zero, zero, zero,
                zero, zero, zero, zero, zero, zero);
#pragma GCC diagnostic pop
  if (std::strcmp(text.data(), expected.data()) != 0) {
    std::fprintf(stderr, "expected: %s\nexpanded: %s\n", expected.data(), text.data());
    std::abort();
  }
  return 0;
}

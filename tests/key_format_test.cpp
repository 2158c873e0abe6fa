#include "key_format.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

TEST(KeyFormat, ExpandsAsPrintfWouldWithZeros) {
  const std::string full(1023, 'x');
  const std::string spaces(1022, ' ');
  std::string many_n;
  for (int i = 0; i < 5000; ++i) {
    many_n += "%n";
  }
  // clang-format off
  struct { std::string key; std::string text; } const cases[] = {
      {"plain", "plain"}, {"", ""}, {"100%%", "100%"}, {"%s|%d|%i|%u|%c", "(null)|0|0|0|"},
      {"a%nb%hhn%5lln", "ab"}, {"%5d|%-5d|%05d|%+d|%.3d|%#x", "    0|0    |00000|+0|000|0"},
      {"%lld %zu %jd %hhx", "0 0 0 0"}, {"%f %.1Lf %e %g", "0.000000 0.0 0.000000e+00 0"},
      {"%p|%10s|%.3s|%.6s|%ls", "(nil)|    (null)||(null)|(null)"},
      {"%2$d %1$s", "0 (null)"}, {"%*2$d|%.*1$d|", "0||"}, {"%-------+5d|", "+0   |"},
      {"%$d", "%$d"}, {"%td %Zd %qd", "0 0 0"}, {"%*d|%.*f|%-*d", "0|0|0"}, {"%y %w d", "%y %w d"},
      {"ends in %", "ends in "}, {":%49:%39", ":%49:%39"}, {"%99999999999d", spaces + " "},
      {"%.99999999999f", "0." + std::string(1021, '0')}, {full + "yyy", full},
      {full.substr(3) + "%s", full.substr(3) + "(nu"},
      {many_n, ""}, {"%-----------------------5d|", "0    |"}, {many_n + "x", ""},
      {"%o%X%b%B|%a|%A|%E|%F|%G|%S|% d|%'d|%Id|%.0f", "0000|0x0p+0|0X0P+0|0.000000E+00|0.000000|0|(null)| 0|0|0|0"},
      {"a%C", "a"}, {"%m", "Success"}, {"%y ends in %5", "%y ends in %5"},
  };
  // clang-format on
  for (const auto& one : cases) {
    std::array<char, log_buffer_size> text;
    text.fill('z');
    errno = 0;
    expand_key_format(one.key.c_str(), text);
    EXPECT_EQ(std::string(text.data()), one.text) << one.key.substr(0, 40);
  }
}

}  // namespace

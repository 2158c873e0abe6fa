#include "sutils.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

TEST(Split, CutsAndTrims) {
  // clang-format off
  struct { const char* text; const char* separators; sp::str_arr pieces; } const cases[] = {
      {"", ",", {}}, {"a", ",", {"a"}}, {" a , b ", ",", {"a", "b"}},
      {"host : 80", ":", {"host", "80"}}, {",a", ",", {"", "a"}},
      {"a,,b,", ",", {"a", "", "b", ""}}, {"x\r\ny", "\r\n", {"x", "", "y"}},
      {nullptr, ",", {}}, {"a,b", nullptr, {"a,b"}}, {"\t\r a\x01 b \n", ",", {"a\x01 b"}}, {"a\xA1", ",", {"a\xA1"}}, {"a,b", "", {"a,b"}},
  };
  // clang-format on
  for (const auto& one : cases) {
    sp::str_arr pieces;
    EXPECT_EQ(sp::split_str(one.text, pieces, one.separators), 0);
    EXPECT_EQ(pieces, one.pieces) << (one.text != nullptr ? one.text : "(null)");
  }
}

TEST(Split, AppendsAndLimitsAPieceBeforeItTrims) {
  const std::size_t limit = 2097151;
  sp::str_arr pieces{"before"};
  const std::string y(limit - 1, 'y');
  sp::split_str((std::string(3000000, 'x') + "," + y + " z,c").c_str(), pieces, ",");
  EXPECT_TRUE(pieces == (sp::str_arr{"before", std::string(limit, 'x'), y, "c"}));
}

TEST(Trim, RemovesItsCharacterAndKeepsHighBytes) {
  char buffer[] = "\t a \xFF\t";
  std::string text(buffer);
  sp::trim_str(buffer, '\t');
  sp::trim_str(text);
  char letters[] = "xax";
  sp::trim_str(letters, 'x');
  EXPECT_STREQ(letters, "a");
  EXPECT_STREQ(buffer, " a \xFF");
  EXPECT_EQ(text, "a \xFF");
}

TEST(Trim, IgnoresANullPointer) { sp::trim_str(static_cast<char*>(nullptr)); }

TEST(Characters, QuotesAndFullWidth) {
  EXPECT_TRUE(sp::is_quote('"') && sp::is_quote('\'') && !sp::is_quote('`'));
  EXPECT_TRUE(sp::is_quanjiao("\xA3\xA1"));
  for (const char* other :
       {"\xA3\xA0", "\xA2\xA1", "\xA3", "", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(sp::is_quanjiao(other));
  }
}

TEST(Paths, ParentAndBoundedCopy) {
  const std::string bin = sp::get_bin_path();
  EXPECT_EQ(bin, std::filesystem::read_symlink("/proc/self/exe").parent_path().string() + "/");
  const std::string above = std::filesystem::path(bin).parent_path().parent_path().string() + "/";
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {
      {"/opt/app/bin/", "/opt/app/"}, {"/", "/"}, {"a/", "a/"}, {"plain", "plain"},
      {"/usr/bin", "/usr/"}, {"/etc/passwd", "/"}, {R"(\\host\share\x)", "/host/"},
      {"//a///b/c", "//a/"}, {".", above}, {bin, above},
      {"/a/" + std::string(300, 'b') + "/c", "/"},  // cut at 260 bytes
  };
  // clang-format on
  for (const auto& [path, parent] : cases) {
    EXPECT_EQ(sp::parent_path(path.c_str()), parent) << path;
  }
  EXPECT_EQ(sp::parent_path(nullptr), above);
  char text[8] = "1234567";
  EXPECT_STREQ(sp::strsncpy(text, "abcdef", 4), "abc");
  EXPECT_STREQ(sp::strsncpy(text, text, 3), "ab");
  EXPECT_STREQ(sp::strsncpy(text, nullptr, 4), "");
  EXPECT_STREQ(sp::strsncpy(text + 1, "xyz", 0), "b");  // untouched
  EXPECT_EQ(sp::strsncpy(nullptr, "xyz", 4), nullptr);
}

}  // namespace

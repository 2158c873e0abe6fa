#include "sutils.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "host.h"

namespace {

sp::str_arr split(const std::string& text, const char* separators) {
  sp::str_arr pieces;
  EXPECT_EQ(sp::split_str(text.c_str(), pieces, separators), 0);
  return pieces;
}

TEST(Split, CutsAndTrims) {
  struct {
    const char* text;
    const char* separators;
    sp::str_arr pieces;
  } const cases[] = {
      {"", ",", {}},
      {"a", ",", {"a"}},
      {" a , b ", ",", {"a", "b"}},
      {"host : 80", ":", {"host", "80"}},
      {"host:80:1", ":", {"host", "80", "1"}},
      {",a", ",", {"", "a"}},
      {"a,,b", ",", {"a", "", "b"}},
      {"a,b,", ",", {"a", "b", ""}},
      {"x\r\ny", "\r\n", {"x", "", "y"}},
      {"\t\r a\x01 b \n", ",", {"a\x01 b"}},
      {"a\xA1", ",", {"a\xA1"}},
      {"a,b", "", {"a,b"}},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(split(one.text, one.separators), one.pieces) << one.text;
  }
}

TEST(Split, AppendsAndLimitsAPieceBeforeItTrims) {
  const std::size_t limit = 2097151;
  sp::str_arr pieces{"before"};
  const std::string text = std::string(3000000, 'x') + "," + std::string(limit - 1, 'y') + " z,c";
  sp::split_str(text.c_str(), pieces, ",");
  sp::split_str(nullptr, pieces, ",");
  EXPECT_TRUE(pieces ==
              (sp::str_arr{"before", std::string(limit, 'x'), std::string(limit - 1, 'y'), "c"}));
}

TEST(Trim, BothForms) {
  struct {
    std::string text;
    char trim_char;
    std::string trimmed;
  } const cases[] = {
      {"", ' ', ""},
      {" \t\r\n", ' ', ""},
      {" a b ", ' ', "a b"},
      {"\t a \t", '\t', " a "},
      {"\x80 \xFF", ' ', "\x80 \xFF"},
      {"xxaxx", 'x', "a"},
  };
  for (const auto& one : cases) {
    std::string text = one.text;
    sp::trim_str(text, one.trim_char);
    EXPECT_EQ(text, one.trimmed);
    std::string buffer = one.text;
    sp::trim_str(buffer.data(), one.trim_char);
    EXPECT_STREQ(buffer.c_str(), one.trimmed.c_str());
  }
}

TEST(Paths, Parent) {
  const TempDir dir;
  const std::string inner = dir.path("inner");
  std::filesystem::create_directory(inner);
  const std::string file = dir.write("inner/file", "");
  const std::string bin = sp::get_bin_path();
  const std::string above_bin =
      std::filesystem::path(bin).parent_path().parent_path().string() + "/";
  struct {
    std::string path;
    std::string parent;
  } const cases[] = {
      {"/opt/app/bin/", "/opt/app/"},
      {"/", "/"},
      {"a/", "a/"},
      {"plain", "plain"},
      {inner, dir.path("")},
      {inner + "/", dir.path("")},
      {file, dir.path("")},
      {R"(\\host\share\x)", "/host/"},
      {"//a///b/c", "//a/"},
      {".", above_bin},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(sp::parent_path(one.path.c_str()), one.parent) << one.path;
  }
  EXPECT_EQ(sp::parent_path(nullptr), above_bin);
  EXPECT_EQ(bin, std::filesystem::read_symlink("/proc/self/exe").parent_path().string() + "/");
}

TEST(BoundedCopy, AlwaysTerminates) {
  char text[8] = "1234567";
  EXPECT_STREQ(sp::strsncpy(text, "abcdef", 4), "abc");
  EXPECT_STREQ(sp::strsncpy(text, nullptr, 4), "");
  EXPECT_STREQ(sp::strsncpy(text, "abcdef", sizeof(text)), "abcdef");
  EXPECT_STREQ(sp::strsncpy(text, text, 3), "ab");
  EXPECT_EQ(sp::strsncpy(nullptr, "a", 3), nullptr);
}

}  // namespace

#include "busin_config.h"

#include <gtest/gtest.h>
#include <utime.h>

#include "host.h"

namespace {

using strings = std::vector<std::string>;

std::string text_of(const char* value) { return value != nullptr ? value : "(null)"; }

// The same text, loaded from a file and from memory.
class Reader : public testing::TestWithParam<bool> {
 protected:
  void load(const std::string& text) {
    ASSERT_EQ(GetParam() ? config_.open(text, true) : config_.open(dir_.write("c", text).c_str()),
              0);
  }
  std::string value(const char* section, const char* key) const {
    return text_of(config_.get_str_val(section, key));
  }

  TempDir dir_;
  vop_config config_;
};

INSTANTIATE_TEST_SUITE_P(FromFileAndText, Reader, testing::Bool());

TEST_P(Reader, FollowsEveryRuleOfTheForm) {
  // clang-format off
  load("dropped = 1\r\n[common]\r\n  port =  80 \r\na=1\nA=2\n# c=1\n ; d=1\nmode = fast # comment\nurl = a=b\n"
       "quoted = \" x \"\nempty =\n= none\nno equals\n[a]b]\n[redis] ; main\nafter = here\n[ db ]\nx=1\n"
       "[]\ny=2\n[a=b]\nz=3\n[COMMON]\nport = 81\nlate = 1\n\xEF\xBB\xBF[bom]\nin = a=b\n");
  struct { const char* section; const char* key; const char* value; } const cases[] = {
      {"common", "dropped", "(null)"}, {"common", "port", "80"}, {"Common", "PORT", "80"},
      {"common", "a", "1"}, {"common", "A", "1"}, {"common", "c", "(null)"},
      {"common", "d", "(null)"}, {"common", "# c", "(null)"}, {"common", "mode", "fast # comment"},
      {"common", "url", "a=b"}, {"common", "quoted", "\" x \""}, {"common", "empty", "(null)"},
      {"common", "after", "here"}, {"db", "x", "(null)"}, {" db ", "x", "1"}, {"", "y", "(null)"},
      {"a=b", "z", "3"}, {"common", "late", "(null)"}, {"bom", "in", "(null)"},
      {nullptr, "port", "(null)"}, {"common", nullptr, "(null)"},
  };
  // clang-format on
  for (const auto& one : cases) {
    EXPECT_EQ(value(one.section, one.key), one.value) << text_of(one.section) << one.key;
  }
  strings names{"old"};
  EXPECT_EQ(config_.enum_sec_name(names), 0);
  EXPECT_EQ(names, (strings{"common", " db ", "", "a=b", "COMMON"}));
  EXPECT_EQ(config_.enum_sec_key("COMMON", names), 0);
  EXPECT_EQ(names, (strings{"port", "a", "A", "mode", "url", "quoted", "empty", "after"}));
  EXPECT_EQ(config_.enum_sec_key("", names), 0);
  EXPECT_EQ(names, strings{"y"});
  EXPECT_EQ(config_.enum_sec_key(nullptr, names), -1);
  EXPECT_EQ(names, strings{"y"});
  EXPECT_EQ(config_.enum_sec_key("none", names), -1);
  EXPECT_TRUE(names.empty());
}

TEST_P(Reader, ConvertsNumbersAndFlags) {
  // clang-format off
  struct { const char* text; int number; int flag; } const cases[] = {
      {"1", 1, 1}, {"TRUE", 0, 1}, {"0", 0, 0}, {"False", 0, 0}, {"yes", 0, -1}, {"01", 1, -1}, {"", -7, -1},
      {"12ms", 12, -1}, {"0x10", 0, -1}, {"4294967298", 2, -1},
  };
  // clang-format on
  for (const auto& one : cases) {
    vop_config config;
    ASSERT_EQ(config.open(std::string("[s]\nk = ") + one.text, true), 0);
    EXPECT_EQ(config.get_int_val("s", "k", -7), one.number) << one.text;
    for (const bool fallback : {true, false}) {
      EXPECT_EQ(config.get_bool_val("s", "k", fallback), one.flag == -1 ? fallback : one.flag == 1)
          << one.text;
    }
  }
}

TEST(ReaderOfFiles, CutsLinesEvery2047Bytes) {
  const TempDir dir;
  // 2047 bytes, then "[next]" as if it were a line of its own.
  std::string line = "k=";
  line += std::string(2047 - line.size(), 'v') + "[next]\nx=1\n";
  vop_config config;
  ASSERT_EQ(config.open(dir.write("c", "[s]\n" + line).c_str()), 0);
  EXPECT_EQ(text_of(config.get_str_val("s", "k")), std::string(2045, 'v'));
  EXPECT_EQ(text_of(config.get_str_val("next", "x")), "1");
  ASSERT_EQ(config.open("[s]\n" + line, true), 0);
  EXPECT_EQ(text_of(config.get_str_val("s", "x")), "1");
  ASSERT_EQ(config.open("[s]\ra=1", true), 0);
  EXPECT_EQ(text_of(config.get_str_val("s", "a")), "1");
  using std::string_literals::operator""s;
  ASSERT_EQ(config.open(dir.write("nul", "[s]\na=1\0b\nc=2\n"s).c_str()), 0);
  EXPECT_EQ(text_of(config.get_str_val("s", "a")), "1");
  EXPECT_EQ(text_of(config.get_str_val("s", "c")), "2");
}

TEST(ReaderLifecycle, OpensReopensReloadsAndCloses) {
  const TempDir dir;
  const std::string path = dir.write("one", "[s]\nk=1\n");
  vop_config config;
  const auto k = [&](const char* section) { return text_of(config.get_str_val(section, "k")); };
  const auto shared_k = [] { return text_of(Busin_Conf_Instance()->get_str_val("s", "k")); };
  EXPECT_EQ(config.open(static_cast<const char*>(nullptr)), -1);
  ASSERT_EQ(config.open(path, false), 0);
  EXPECT_FALSE(config.cfg_changed());
  dir.write("one", "[s]\nk=2\n");
  const utimbuf long_ago{1, 1};
  ASSERT_EQ(utime(path.c_str(), &long_ago), 0);
  EXPECT_TRUE(config.cfg_changed());
  EXPECT_EQ(vop_config::file_mtime(path.c_str()), 1);
  EXPECT_EQ(vop_config::file_mtime(dir.path("missing").c_str()) + vop_config::file_mtime(nullptr),
            0);
  EXPECT_EQ(config.open(path.c_str()), 0);  // the loaded path: nothing is read
  EXPECT_EQ(config.open(dir.path("missing").c_str()), -1);
  EXPECT_EQ(k("s"), "1");
  // A text replaces the sections and keeps the path.
  ASSERT_EQ(config.open("[t]\nk=3", true), 0);
  EXPECT_EQ(config.open(path.c_str()), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(config.open("", true), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "vop_config::open get configure failed!\n");
  EXPECT_EQ(k("t") + k("s"), "3(null)");
  // Reloading works on the shared reader, whatever object it is called on.
  EXPECT_EQ(config.cfg_reload(path.c_str()), 0);
  EXPECT_EQ(shared_k() + k("s"), "2(null)");
  dir.write("one", "[s]\nk=4\n");
  EXPECT_EQ(config.cfg_reload(path.c_str()), 0);
  EXPECT_EQ(config.cfg_reload(dir.path("missing").c_str()), -1);
  EXPECT_EQ(shared_k(), "4");
  EXPECT_EQ(config.close(), 0);
  EXPECT_EQ(k("t"), "(null)");
  EXPECT_TRUE(config.cfg_changed());
  EXPECT_EQ(config.open(path.c_str()), 0);  // closed: read again
  EXPECT_EQ(k("s"), "4");
}

TEST(ReaderLifecycle, OpensAPathThatIsAValueOfItsOwn) {
  const TempDir dir;
  const std::string second = dir.write("second", "[s]\nk=2\n");
  vop_config config;
  ASSERT_EQ(config.open(dir.write("first", "[s]\nnext=" + second).c_str()), 0);
  ASSERT_EQ(config.open(config.get_str_val("s", "next")), 0);
  EXPECT_EQ(text_of(config.get_str_val("s", "k")), "2");
}

TEST(Section, KeepsPairsAsTheyAre) {
  cfg_section section(" name ");
  EXPECT_EQ(section.insert_attr_val(nullptr, "v") + section.insert_attr_val("k", nullptr), -2);
  EXPECT_EQ(section.insert_attr_val(" k ", " v ") + section.insert_attr_val(" K ", ""), 0);
  EXPECT_STREQ(section.get_str_val(" K "), " v ");
  EXPECT_EQ(section.get_str_val("k"), nullptr);
  EXPECT_EQ(section.insert_attr_val("", "v"), 0);
  EXPECT_EQ(section.get_str_val(""), nullptr);
  strings names{"old"};
  EXPECT_EQ(section.enum_key(names), 0);
  EXPECT_EQ(names, (strings{" k ", " K ", ""}));
  EXPECT_STREQ(cfg_section(nullptr).get_sec_name(), "");
}

}  // namespace

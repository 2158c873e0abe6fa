// A host of version 1.0: built with the headers beside it, run with the libraries of today.
#include <ruvo/busin_config.h>
#include <ruvo/ruvo.h>
#include <stream_log/logger.h>

#include <cstdio>

namespace {

using BaseLib::Logger;

constexpr int pool = ePersistServer;

int failed = 0;
int error_lines = 0;
int c_lines = 0;

void check(bool holds, const char* what) {
  if (!holds) {
    std::printf("host of version 1.0: not so: %s\n", what);
    ++failed;
  }
}
#define CHECK(condition) check(condition, #condition)

void* raw(const char* format, ...) {
  va_list words;
  va_start(words, format);
  void* reply = RUVO_ExecRedisvCmd(pool, format, words);
  va_end(words);
  return reply;
}

// The call fills what the references name.
std::string taken(int result, const char* const& data, const unsigned long& length) {
  std::string text = result == RUVO_OK ? std::string(data, length) : "";
  CHECK(RUVO_FreeResult(data) == RUVO_OK);
  return text;
}

void use_logger() {
  Logger::setOutput([](Logger::LogLevel level, const char*, std::size_t) {
    error_lines += level == Logger::ERROR ? 1 : 0;
  });
  Logger::setLogLevel(Logger::WARN);
  CHECK(Logger::logLevel() == Logger::WARN && stream_log_level() == STREAM_LOG_WARN);
  Logger("a/host.cpp", 1, Logger::ERROR).stream() << "one";
  CHECK(error_lines == 1);
  stream_log_set_output([](int level, const char*, size_t) { c_lines += level; });
  stream_log_set_level(STREAM_LOG_ERROR);
  Logger("a/host.cpp", 1, Logger::FATAL).stream() << "two";
  CHECK(c_lines == STREAM_LOG_FATAL);
}

void use_reader(const char* path) {
  vop_config own;
  std::vector<std::string> names;
  CHECK(own.open("[a]\nk = 7\nt = 1\n[b]\nx = y", true) == 0);
  CHECK(own.get_int_val("a", "k", 0) == 7 && own.get_bool_val("a", "t", false));
  CHECK(own.get_str_val("b", "none") == nullptr);
  CHECK(own.enum_sec_name(names) == 0 && names == (std::vector<std::string>{"a", "b"}));
  CHECK(own.enum_sec_key("b", names) == 0 && names == std::vector<std::string>{"x"});
  CHECK(own.open(path) == 0 && !own.cfg_changed() && vop_config::file_mtime(path) > 0);
  CHECK(own.cfg_reload(path) == 0 && Busin_Conf_Instance()->close() == 0);
  cfg_section section("s");
  CHECK(section.insert_attr_val("k", "v") == 0 && section.get_str_val("k") == std::string("v"));
  CHECK(section.get_sec_name() == std::string("s") && section.enum_key(names) == 0);
}

void use_library(const char* path) {
  const char* data = nullptr;
  unsigned long length = 0;
  long long number = 0;
  std::string text;
  std::vector<std::string> texts;
  CHECK(RUVO_Init(path) == RUVO_OK);
  CHECK(RUVO_InsertKey("k", "v", 1, -1, pool, nullptr) == RUVO_OK);
  CHECK(RUVO_AppendKey("k", "w", 1, pool, nullptr) == RUVO_OK);
  CHECK(taken(RUVO_QueryKey("k", &data, &length, pool, nullptr), data, length) == "vw");
  CHECK(RUVO_ExpireKey("k", 100, pool, nullptr) == RUVO_OK);
  CHECK(RUVO_PersistKey("k", pool, nullptr) == RUVO_OK);
  CHECK(RUVO_ExistsKey("k", pool, nullptr) == RUVO_OK);
  CHECK(RUVO_ExistsKey("k", eTempServer, nullptr) == RUVO_ABSENT);
  CHECK(RUVO_DeleteKey("k", pool, nullptr) == RUVO_OK);
  CHECK(RUVO_IncreaseKey("n", &number, pool, nullptr) == RUVO_OK && number == 1);
  CHECK(RUVO_HashSet("h", "f", 1, "v", 1, 100, pool, nullptr) == RUVO_OK);
  CHECK(taken(RUVO_HashGet("h", "f", 1, &data, &length, pool, nullptr), data, length) == "v");
  CHECK(RUVO_HashFieldExist("h", "f", 1, pool, nullptr) == RUVO_OK);
  CHECK(RUVO_HashIncrBy("h", "n", 1, 5000000000, &number, pool, nullptr) == RUVO_OK);
  CHECK(number == 5000000000 && RUVO_HashFieldsNum("h", &number, pool, nullptr) == RUVO_OK);
  CHECK(number == 2 && RUVO_HashDelField("h", "f", 1, pool, nullptr) == RUVO_OK);
  CHECK(RUVO_LPush("l", "a", 1, 0, nullptr, pool, nullptr) == RUVO_OK);
  CHECK(RUVO_LPush("l", "b", 1, 100, &number, pool, nullptr) == RUVO_OK && number == 2);
  CHECK(RUVO_LRange("l", 0, -1, texts, pool, nullptr) == RUVO_OK);
  CHECK(texts == (std::vector<std::string>{"b", "a"}));
  CHECK(RUVO_LTrim("l", 0, 1, pool, nullptr) == RUVO_OK);
  CHECK(RUVO_RPop("l", text, pool, nullptr) == RUVO_OK && text == "a");
  CHECK(RUVO_LRem("l", 1, "b", pool, nullptr) == RUVO_OK);
  CHECK(RUVO_SAdd("s", "m", 1, pool, nullptr) == RUVO_OK);
  CHECK(RUVO_SIsmember("s", "m", 1, pool, nullptr) == RUVO_OK);
  CHECK(RUVO_SMembers("s", texts, pool, nullptr) == RUVO_OK && texts.size() == 1);
  CHECK(RUVO_SRem("s", "m", 1, pool, nullptr) == RUVO_OK);
  for (void* reply : {RUVO_ExecRedisCmd(pool, "GET %s", "n"), raw("LLEN %b", "l", size_t{1})}) {
    CHECK(reply != nullptr);
    RUVO_FreeReplyObject(reply);
  }
  CHECK(RUVO_QueryKey("none", &data, &length, pool, nullptr) == RUVO_ERR_NOT_FOUND);
  CHECK(RUVO_Fini() == RUVO_OK);
}

}  // namespace

int main(int, char** argv) {
  use_logger();
  use_reader(argv[1]);
  use_library(argv[1]);
  return failed == 0 ? 0 : 1;
}

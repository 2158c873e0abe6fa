// Any command, from words that are only known at run time.
#include <ffi.h>
#include <ruvo/ruvo.h>

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <vector>

#include "commands.h"
#include "exit_status.h"
#include "operations.h"

namespace {

// The library takes a command as printf takes its arguments, so a call with as many of them as
// there are words is put together here.
void* execute(int pool, const std::string& format, const std::vector<std::string>& words) {
  const char* format_text = format.c_str();
  std::vector<const char*> data(words.size());
  std::vector<std::size_t> sizes(words.size());
  std::vector<ffi_type*> types{&ffi_type_sint, &ffi_type_pointer};
  std::vector<void*> arguments{&pool, &format_text};
  const auto fixed = static_cast<unsigned>(types.size());
  for (std::size_t i = 0; i < words.size(); ++i) {
    data[i] = words[i].data();
    sizes[i] = words[i].size();
    types.insert(types.end(), {&ffi_type_pointer, &ffi_type_ulong});
    arguments.insert(arguments.end(), {&data[i], &sizes[i]});
  }
  ffi_cif call;
  if (ffi_prep_cif_var(&call, FFI_DEFAULT_ABI, fixed, static_cast<unsigned>(types.size()),
                       &ffi_type_pointer, types.data()) != FFI_OK) {
    throw Failure(wrong_usage, "raw: too many words");
  }
  void* reply = nullptr;
  ffi_call(&call, reinterpret_cast<void (*)()>(RUVO_ExecRedisCmd), &reply, arguments.data());
  return reply;
}

// Commands after which a connection reads or answers otherwise, or that keep it waiting.
constexpr std::array mode_commands{
    "MULTI",  "WATCH", "SUBSCRIBE", "PSUBSCRIBE", "SSUBSCRIBE", "MONITOR",    "SELECT",   "HELLO",
    "AUTH",   "QUIT",  "RESET",     "SYNC",       "PSYNC",      "BLPOP",      "BRPOP",    "BLMOVE",
    "BLMPOP", "WAIT",  "BZPOPMIN",  "BZPOPMAX",   "BZMPOP",     "BRPOPLPUSH", "READONLY", "ASKING"};
constexpr std::array mode_words_of_client{"REPLY", "TRACKING", "PAUSE"};

template <std::size_t count>
bool is_one_of(const std::array<const char*, count>& names, const std::string& word) {
  return std::any_of(names.begin(), names.end(),
                     [&word](const char* name) { return strcasecmp(name, word.c_str()) == 0; });
}

}  // namespace

void warn_of_mode(const std::vector<std::string>& words) {
  const bool is_one = is_one_of(mode_commands, words.at(0)) ||
                      (words.size() > 1 && strcasecmp(words[0].c_str(), "CLIENT") == 0 &&
                       is_one_of(mode_words_of_client, words[1]));
  if (is_one) {
    std::fprintf(
        stderr,
        "ruvo_cli: raw: warning: %s changes or holds one connection of several: here that ends "
        "with the tool, in a host it meets the calls of other threads\n",
        words[0].c_str());
  }
}

Answer run_raw(const Arguments& arguments) {
  const std::vector<std::string>& words = arguments.words;
  std::string format;
  for (std::size_t i = 0; i < words.size(); ++i) {
    format += i == 0 ? "%b" : " %b";
  }
  const std::unique_ptr<redisReply, decltype(&RUVO_FreeReplyObject)> reply(
      static_cast<redisReply*>(execute(arguments.pool, format, words)), RUVO_FreeReplyObject);
  if (!reply) {
    return RUVO_ERR_FAILED;
  }
  const int result = reply->type == REDIS_REPLY_ERROR ? RUVO_ERR_FAILED
                     : reply->type == REDIS_REPLY_NIL ? RUVO_ERR_NOT_FOUND
                                                      : RUVO_OK;
  return {result, to_value(*reply)};
}

// Any command, from words that are only known at run time.
#include <ruvo/ruvo.hpp>

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "exit_status.h"
#include "operations.h"

namespace {

// Commands that change how a connection reads or answers, or that block it.
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
        "ruvo_cli: raw: warning: %s changes or blocks one connection of several: here this ends "
        "with the tool, but in a host it affects the calls of other threads\n",
        words[0].c_str());
  }
}

Answer run_raw(const Arguments& arguments) {
  if (arguments.words.size() > ruvo::words::most) {
    throw Failure(wrong_usage, "raw: too many words");
  }
  const ruvo::pool pool(static_cast<RedisServerType>(arguments.pool));
  const auto reply = pool.command(arguments.words);
  if (!reply) {
    return reply.code();
  }
  const int result = reply->is_error() ? RUVO_ERR_FAILED
                     : reply->is_nil() ? RUVO_ERR_NOT_FOUND
                                       : RUVO_OK;
  return {result, to_value(*reply)};
}

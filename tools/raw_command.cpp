// Any command, from words that are only known at run time.
#include <ruvo/ruvo.h>

#include <array>
#include <memory>
#include <tuple>
#include <utility>

#include "exit_status.h"
#include "operations.h"

namespace {

constexpr std::size_t most_words = 64;

struct Word {
  const char* data = "";
  std::size_t size = 0;
};

// The library takes its arguments as printf does, so the call is written for the most words that
// there may be; the template asks for as many as there are.
template <std::size_t... Index>
void* execute(int pool, const std::string& format, const std::array<Word, most_words>& words,
              std::index_sequence<Index...>) {
  const auto with_all = [&](auto... data_and_size) {
    return RUVO_ExecRedisCmd(pool, format.c_str(), data_and_size...);
  };
  return std::apply(with_all,
                    std::tuple_cat(std::make_tuple(words[Index].data, words[Index].size)...));
}

}  // namespace

Answer run_raw(int pool, const std::vector<std::string>& words) {
  if (words.size() > most_words) {
    throw Failure(wrong_usage, "raw: at most " + std::to_string(most_words) + " words");
  }
  std::string format;
  std::array<Word, most_words> all{};
  for (std::size_t i = 0; i < words.size(); ++i) {
    format += i == 0 ? "%b" : " %b";
    all[i] = {words[i].data(), words[i].size()};
  }
  const std::unique_ptr<redisReply, decltype(&RUVO_FreeReplyObject)> reply(
      static_cast<redisReply*>(
          execute(pool, format, all, std::make_index_sequence<most_words>())),
      RUVO_FreeReplyObject);
  if (!reply) {
    return RUVO_ERR_FAILED;
  }
  const int result = reply->type == REDIS_REPLY_ERROR ? RUVO_ERR_FAILED
                     : reply->type == REDIS_REPLY_NIL ? RUVO_ERR_NOT_FOUND
                                                      : RUVO_OK;
  return {result, to_value(*reply)};
}

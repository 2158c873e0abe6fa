// Any command, from words that are only known at run time.
#include <ffi.h>
#include <ruvo/ruvo.h>

#include <memory>
#include <vector>

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

}  // namespace

Answer run_raw(int pool, const std::vector<std::string>& words) {
  std::string format;
  for (std::size_t i = 0; i < words.size(); ++i) {
    format += i == 0 ? "%b" : " %b";
  }
  const std::unique_ptr<redisReply, decltype(&RUVO_FreeReplyObject)> reply(
      static_cast<redisReply*>(execute(pool, format, words)), RUVO_FreeReplyObject);
  if (!reply) {
    return RUVO_ERR_FAILED;
  }
  const int result = reply->type == REDIS_REPLY_ERROR ? RUVO_ERR_FAILED
                     : reply->type == REDIS_REPLY_NIL ? RUVO_ERR_NOT_FOUND
                                                      : RUVO_OK;
  return {result, to_value(*reply)};
}

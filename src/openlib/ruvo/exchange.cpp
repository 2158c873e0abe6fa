#include "exchange.h"

#include <csignal>
#include <ctime>

namespace {

// Keeps the SIGPIPE of a write to a closed socket away from the host: hiredis writes with write(2),
// which cannot be told not to raise it. The signal is blocked in this thread, and one that the
// exchange raised is consumed before the mask is put back. One that was pending before is the
// host's and stays.
class sigpipe_block {
 public:
  sigpipe_block() {
    sigemptyset(&sigpipe_);
    sigaddset(&sigpipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe_, &previous_);
    // An unblocked signal cannot be pending: only a host that blocks it itself can have one.
    if (sigismember(&previous_, SIGPIPE) == 1) {
      sigset_t pending;
      sigpending(&pending);
      host_has_one_ = sigismember(&pending, SIGPIPE) == 1;
    }
  }
  ~sigpipe_block() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  sigpipe_block(const sigpipe_block&) = delete;
  sigpipe_block& operator=(const sigpipe_block&) = delete;

  // Only a failed exchange can have raised the signal, so that the good ones save the call.
  void consume_raised() const {
    if (!host_has_one_) {
      const timespec at_once{};
      sigtimedwait(&sigpipe_, nullptr, &at_once);
    }
  }

 private:
  sigset_t sigpipe_{};
  sigset_t previous_{};
  bool host_has_one_ = false;
};

}  // namespace

reply_ptr send_vcommand(redisContext& context, const char* format, va_list args) {
  const sigpipe_block block;
  va_list copy;
  va_copy(copy, args);
  reply_ptr reply(static_cast<redisReply*>(redisvCommand(&context, format, copy)));
  va_end(copy);
  if (!reply) {
    block.consume_raised();
  }
  return reply;
}

reply_ptr send_command(redisContext& context, const char* format, ...) {
  va_list args;
  va_start(args, format);
  reply_ptr reply = send_vcommand(context, format, args);
  va_end(args);
  return reply;
}

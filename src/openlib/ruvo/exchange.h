// Commands as bytes, their exchange with a Redis server, and owners for hiredis' objects.
#ifndef RUVO_EXCHANGE_H
#define RUVO_EXCHANGE_H

#include <hiredis/hiredis.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <memory>
#include <span>

struct context_deleter {
  void operator()(redisContext* context) const {
    // hiredis 0.14 does not close descriptor 0, which a host without standard input may get for a
    // socket. If nothing was connected, the 0 is not a descriptor.
    const bool stays_open =
        HIREDIS_MAJOR == 0 && context->fd == 0 && (context->flags & REDIS_CONNECTED) != 0;
    redisFree(context);
    if (stays_open) {
      ::close(0);
    }
  }
};
struct reply_deleter {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using context_ptr = std::unique_ptr<redisContext, context_deleter>;
using reply_ptr = std::unique_ptr<redisReply, reply_deleter>;

using time_point = std::chrono::steady_clock::time_point;
constexpr time_point no_deadline = time_point::max();

// A command as it goes over the wire, or the reason why hiredis refused its template. Formatted
// once and sent as often as needed.
class wire_command {
 public:
  // Leaves the argument list unchanged.
  wire_command(const char* format, va_list args);

  bool refused() const { return length_ < 0; }
  char* bytes() const { return bytes_.get(); }
  std::size_t length() const { return refused() ? 0 : static_cast<std::size_t>(length_); }

  // Gives the context the error that hiredis gives it when it refuses a template.
  // REQUIRES: refused().
  void report_refusal(redisContext& context) const;

 private:
  struct bytes_deleter {
    void operator()(char* bytes) const { redisFreeCommand(bytes); }
  };
  std::unique_ptr<char, bytes_deleter> bytes_;
  int length_;
};

wire_command format_command(const char* format, ...);

// How long an exchange may take.
struct wait_limits {
  std::chrono::microseconds socket_timeout{0};  // of each wait for the peer; 0: none
  time_point deadline = no_deadline;            // of the whole call

  bool has_passed() const {
    return deadline != no_deadline && std::chrono::steady_clock::now() >= deadline;
  }
};

// Sends a command and reads its reply; null if the connection broke, the deadline has passed or
// hiredis has refused the template (the context then carries the error). Never raises SIGPIPE in
// the host.
// `sent`: whether a byte of the command may have reached the server.
reply_ptr exchange(redisContext& context, const wire_command& command,
                   const wait_limits& limits = {}, bool* sent = nullptr);

// ---- The parts of an exchange ----

// Sends what the socket takes at once. Returns the number of bytes; -1 and errno on failure.
ssize_t send_some(const redisContext& context, std::span<iovec> bytes);

enum class wait_end { ready, timed_out, broken };

// Waits until the socket can be read or written.
wait_end wait_for_peer(const redisContext& context, short events, time_point until);

// Receives what has arrived, or waits for it until `until`, and hands it to the context's reader.
// After `timed_out` the context is unchanged. `socket_timeout` is the one set on the socket, which
// also ends a wait.
wait_end receive_some(redisContext& context, std::chrono::microseconds socket_timeout,
                      time_point until);

// The next reply, if it has arrived completely; null if it has not or if its bytes are not a
// reply (the context then carries the error).
reply_ptr next_reply(redisContext& context);

// Why a connection is no longer usable, in hiredis' terms.
struct connection_error {
  int code = 0;                         // 0: no error
  decltype(redisContext::errstr) text;  // without an error, only its first byte is set

  connection_error() { text[0] = '\0'; }
  connection_error(int error_code, const char* error_text);
  explicit connection_error(const redisContext& context)
      : connection_error(context.err, context.errstr) {}
  bool operator==(const connection_error& other) const;
};
connection_error system_error(int error);
connection_error closed_error();    // by its server
connection_error timeout_error();   // a wait has timed out
connection_error deadline_error();  // the deadline has ended a wait
connection_error out_of_step_error();

// Checks, without waiting, a connection that awaits no reply: has its server closed it, or sent
// data that nobody asked for? The code is 0 if neither is true.
connection_error check_unused(const redisContext& context);

// Sets an error on the context as hiredis does: the connection then counts as broken.
void set_error(redisContext& context, const connection_error& error);
// Breaks the connection if bytes are left after the reply to the last command: with these stray
// bytes every later reply would go to the wrong caller.
void break_if_out_of_step(redisContext& context);

#endif

#include "connection.h"

#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "log_line.h"

namespace {

// Bytes of its read buffer that a connection keeps between replies. By default hiredis frees the
// buffer after every reply of more than 16 KiB and grows it again for the next one, which costs
// more than the reply itself.
constexpr std::size_t kept_reply_buffer = std::size_t{2} << 20U;

// Upper bound for the elements of one array. hiredis allocates as many as a reply announces and
// visits all of them when it frees the reply: the 13 bytes "*2147483647" of a faulty server would
// take 16 GiB of address space and block the caller for 20 seconds, nested ones for minutes.
constexpr int max_array_elements = 1 << 24;

// Makes the reader refuse larger arrays, as if there were no memory for them.
void limit_arrays(redisReader& reader) {
  static const redisReplyObjectFunctions standard = *reader.fn;
  static redisReplyObjectFunctions limited = [] {
    redisReplyObjectFunctions functions = standard;
    // The type of the number differs between versions of hiredis.
    functions.createArray = [](const redisReadTask* task, auto elements) -> void* {
      return std::cmp_less_equal(elements, max_array_elements)
                 ? standard.createArray(task, elements)
                 : nullptr;
    };
    return functions;
  }();
  reader.fn = &limited;
}

bool sets_limit(const timeval& timeout) { return limit_of(timeout).count() > 0; }

// The latest end of an attempt to connect that begins now.
time_point end_of_connect(const connection_settings& settings) {
  return sets_limit(settings.connect_timeout)
             ? std::min(settings.deadline,
                        std::chrono::steady_clock::now() + limit_of(settings.connect_timeout))
             : settings.deadline;
}

context_ptr connect_until(const server_addr& addr, time_point end) {
  if (end == no_deadline) {
    return context_ptr(redisConnect(ip_of(addr), port_of(addr)));
  }
  const auto left = std::max(std::chrono::microseconds(1000),
                             std::chrono::duration_cast<std::chrono::microseconds>(
                                 end - std::chrono::steady_clock::now()));
  const timeval timeout{static_cast<std::time_t>(left.count() / 1000000),
                        static_cast<suseconds_t>(left.count() % 1000000)};
  return context_ptr(redisConnectWithTimeout(ip_of(addr), port_of(addr), timeout));
}

// hiredis gives up if a signal handler has run meanwhile, which says nothing about the server.
bool was_interrupted(const redisContext* context) {
  return context != nullptr && context->err == REDIS_ERR_IO &&
         std::strstr(context->errstr, system_error(EINTR).text) != nullptr;
}

context_ptr connect_to(const server_addr& addr, const connection_settings& settings) {
  if (addr.port_ > std::numeric_limits<in_port_t>::max()) {
    return nullptr;  // the resolver would take it modulo 65536: another server
  }
  const time_point end = end_of_connect(settings);
  context_ptr context;
  do {
    context = connect_until(addr, end);
  } while (was_interrupted(context.get()) && std::chrono::steady_clock::now() < end);
  if (context && context->reader != nullptr) {
    context->reader->maxbuf = kept_reply_buffer;
    limit_arrays(*context->reader);
  }
  return context;
}

open_outcome authenticate(redisContext& context, const server_addr& addr,
                          const connection_settings& settings) {
  const std::string& password = settings.password;
  const reply_ptr reply = exchange(context, format_command("AUTH %s", password.c_str()),
                                   {limit_of(settings.socket_timeout), settings.deadline});
  if (!reply) {
    const connection_error error(context);
    const bool has_waited =
        error == timeout_error() || error == deadline_error() || error == system_error(ETIMEDOUT);
    return has_waited ? open_outcome::unanswered : open_outcome::closed;
  }
  if (reply->type != REDIS_REPLY_ERROR) {
    return open_outcome::ready;
  }
  // The line shows what was sent: operators need it to distinguish a wrong password from a wrong
  // server.
  RUVO_LOG(ERROR,
           "ruvo_redis::init_server_pool | failed to authenticate redis, error passwd, redis_ip = "
           "%s, redis_port = %d, passwd = %s",
           ip_of(addr), port_of(addr), password.c_str());
  return open_outcome::refused;
}

}  // namespace

// The socket timeout is set before the password is sent: a server may accept and never answer.
opened_connection open_connection(const server_addr& addr, const connection_settings& settings) {
  opened_connection opened{connect_to(addr, settings), open_outcome::ready, {}};
  if (is_broken(opened.context.get())) {
    opened.outcome = open_outcome::unreachable;
    return opened;
  }
  if (sets_limit(settings.socket_timeout)) {
    opened.timeout_result = redisSetTimeout(opened.context.get(), settings.socket_timeout);
  }
  if (!settings.password.empty()) {
    opened.outcome = authenticate(*opened.context, addr, settings);
    if (opened.outcome == open_outcome::ready && is_broken(opened.context.get())) {
      opened.outcome = open_outcome::unreachable;  // bytes after the reply have broken it
    }
  }
  return opened;
}

// Stores the new context before it closes the old one: a fork finds one or the other.
void replace_context(conn_node& slot, context_ptr context) {
  context_ptr old(std::exchange(slot.context_, context.release()));
  ++slot.rebuilds_;
  slot.awaits_first_reply_ = true;
  if (std::exchange(slot.was_used_at_fork_, false) && old) {
    ::close(old->fd);
    static_cast<void>(old.release());  // another thread was changing it when the process forked
  }
}

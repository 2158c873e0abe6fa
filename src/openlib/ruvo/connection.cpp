#include "connection.h"

#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <utility>

#include "log_line.h"

namespace {

// Bytes of its reading buffer that a connection keeps for its next reply. By default hiredis gives
// the buffer back after every reply of more than 16 KiB and grows it anew for the next one, which
// costs more than the reply itself.
constexpr std::size_t kept_reply_buffer = std::size_t{1} << 20U;

// Elements of one array that are believed. hiredis makes room for as many as a reply announces and
// walks over all of them when it gives the reply up: the 13 bytes "*2147483647" of a faulty server
// would take 16 GiB of addresses and hold the caller for 20 seconds, a nest of them for minutes.
constexpr int max_array_elements = 1 << 24;

// Lets the reader refuse larger arrays, as if there were no memory for them.
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

bool sets_limit(const timeval& timeout) { return timeout.tv_sec > 0 || timeout.tv_usec > 0; }

context_ptr connect_to(const server_addr& addr, const timeval& timeout) {
  if (addr.port_ > std::numeric_limits<in_port_t>::max()) {
    return nullptr;  // the resolver would take it modulo 65536, and connect to somebody else
  }
  context_ptr context(sets_limit(timeout)
                          ? redisConnectWithTimeout(ip_of(addr), port_of(addr), timeout)
                          : redisConnect(ip_of(addr), port_of(addr)));
  if (context && context->reader != nullptr) {
    context->reader->maxbuf = kept_reply_buffer;
    limit_arrays(*context->reader);
  }
  return context;
}

open_outcome authenticate(redisContext& context, const server_addr& addr,
                          const std::string& password) {
  errno = 0;
  const reply_ptr reply = exchange(context, format_command("AUTH %s", password.c_str()));
  if (!reply) {
    // hiredis has one code for all failures of a read; what the time-out sets apart is errno.
    return errno == EAGAIN || errno == ETIMEDOUT ? open_outcome::unanswered : open_outcome::closed;
  }
  if (reply->type != REDIS_REPLY_ERROR) {
    return open_outcome::ready;
  }
  // Operators tell a wrong password from a wrong server by this line, so it shows what was sent.
  RUVO_LOG(ERROR,
           "ruvo_redis::init_server_pool | failed to authenticate redis, error passwd, redis_ip = "
           "%s, redis_port = %d, passwd = %s",
           ip_of(addr), port_of(addr), password.c_str());
  return open_outcome::refused;
}

}  // namespace

// The socket time-out stands before the password is sent: a server may accept and never answer.
opened_connection open_connection(const server_addr& addr, const connection_settings& settings) {
  opened_connection opened{connect_to(addr, settings.connect_timeout), open_outcome::ready, {}};
  if (is_broken(opened.context.get())) {
    opened.outcome = open_outcome::unreachable;
    return opened;
  }
  if (sets_limit(settings.socket_timeout)) {
    opened.timeout_result = redisSetTimeout(opened.context.get(), settings.socket_timeout);
  }
  if (!settings.password.empty()) {
    opened.outcome = authenticate(*opened.context, addr, settings.password);
    if (opened.outcome == open_outcome::ready && is_broken(opened.context.get())) {
      opened.outcome = open_outcome::unreachable;  // what came behind the answer would be next
    }
  }
  return opened;
}

// The new one stands before the old one goes: a fork finds one or the other.
void replace_context(conn_node& slot, context_ptr context) {
  context_ptr old(std::exchange(slot.context_, context.release()));
  ++slot.rebuilds_;
  slot.is_unproven_ = true;
  if (std::exchange(slot.is_torn_, false) && old) {
    ::close(old->fd);
    static_cast<void>(old.release());  // what another thread was changing when the process forked
  }
}

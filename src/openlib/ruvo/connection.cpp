#include "connection.h"

#include <netinet/in.h>

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

}  // namespace

context_ptr open_connection(const server_addr& addr, const timeval& timeout) {
  if (addr.port_ > std::numeric_limits<in_port_t>::max()) {
    return nullptr;  // the resolver would take it modulo 65536, and connect to somebody else
  }
  const char* ip = addr.ip_.c_str();
  const int port = static_cast<int>(addr.port_);
  context_ptr context(sets_limit(timeout) ? redisConnectWithTimeout(ip, port, timeout)
                                          : redisConnect(ip, port));
  if (context && context->reader != nullptr) {
    context->reader->maxbuf = kept_reply_buffer;
    limit_arrays(*context->reader);
  }
  return context;
}

std::optional<int> set_socket_timeout(redisContext& context, const timeval& timeout) {
  if (!sets_limit(timeout)) {
    return std::nullopt;
  }
  return redisSetTimeout(&context, timeout);
}

bool authenticate(redisContext& context, const server_addr& addr, const std::string& password) {
  if (password.empty()) {
    return true;
  }
  const reply_ptr reply = send_command(context, "AUTH %s", password.c_str());
  if (!reply) {
    return false;
  }
  if (reply->type != REDIS_REPLY_ERROR) {
    return true;
  }
  // Operators tell a wrong password from a wrong server by this line, so it shows what was sent.
  RUVO_LOG(ERROR,
           "ruvo_redis::init_server_pool | failed to authenticate redis, error passwd, redis_ip = "
           "%s, redis_port = %d, passwd = %s",
           addr.ip_.c_str(), static_cast<int>(addr.port_), password.c_str());
  return false;
}

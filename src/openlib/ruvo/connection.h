// Opening a connection: connect, timeout, password. Shared by pool construction and rebuilding.
#ifndef RUVO_CONNECTION_H
#define RUVO_CONNECTION_H

#include <sys/time.h>

#include <optional>
#include <string>

#include "exchange.h"
#include "server_pool.h"

// How a connection is opened.
struct connection_settings {
  timeval connect_timeout;      // a limit if seconds or microseconds are above 0
  timeval socket_timeout;       // the same, for each read and write
  const std::string& password;  // empty: none
  time_point deadline = no_deadline;
};

// How far the opening of a connection got.
enum class open_outcome {
  ready,
  unreachable,  // there is no context, or it carries the error
  unanswered,   // the password was not answered in time; the context says so
  closed,       // the server closed the connection on the password
  refused       // the server refused the password; the log says so
};

struct opened_connection {
  context_ptr context;
  open_outcome outcome;
  std::optional<int> timeout_result;  // of hiredis, if a socket timeout was to be set
};

opened_connection open_connection(const server_addr& addr, const connection_settings& settings);

// A timeout as the upper bound of a wait; 0: no limit.
inline std::chrono::microseconds limit_of(const timeval& timeout) {
  return timeout.tv_sec > 0 || timeout.tv_usec > 0
             ? std::chrono::seconds(timeout.tv_sec) + std::chrono::microseconds(timeout.tv_usec)
             : std::chrono::microseconds(0);
}

// A slot may have no context at all; that counts as an error state, too.
inline bool is_broken(const redisContext* context) {
  return context == nullptr || context->err != 0;
}

// What a log line says about a connection that could not be opened.
inline const char* error_text(const redisContext* context) {
  return context != nullptr ? context->errstr : "null redisContext";
}

// Gives a slot another context, or none, and closes the one it had.
void replace_context(conn_node& slot, context_ptr context);

// An address as log lines show it.
inline const char* ip_of(const server_addr& addr) { return addr.ip_.c_str(); }
inline int port_of(const server_addr& addr) { return static_cast<int>(addr.port_); }

#endif

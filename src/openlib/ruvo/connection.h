// Opening a connection: connect, time-out, password. Shared by pool construction and rebuilding.
#ifndef RUVO_CONNECTION_H
#define RUVO_CONNECTION_H

#include <sys/time.h>

#include <optional>
#include <string>

#include "exchange.h"
#include "server_pool.h"

// A new connection, within `timeout` where that sets a limit. Null or in error state when it
// failed.
context_ptr open_connection(const server_addr& addr, const timeval& timeout);

// A slot's context may be missing altogether; that is treated like one in error state.
inline bool is_broken(const redisContext* context) {
  return context == nullptr || context->err != 0;
}

// What a log line says of a connection that could not be opened.
inline const char* error_text(const redisContext* context) {
  return context != nullptr ? context->errstr : "null redisContext";
}

// Limits each read and write on the socket; hiredis' result, or nothing when no limit is set.
std::optional<int> set_socket_timeout(redisContext& context, const timeval& timeout);

// Sends the password, if there is one. False when the connection is to be given up; the log says
// why if the server did. The socket time-out is to be set before: a server may accept and never
// answer.
bool authenticate(redisContext& context, const server_addr& addr, const std::string& password);

#endif

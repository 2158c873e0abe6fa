// The proxy with which other tests and ruvo_chaos inject faults: what a client sees of each.
#include "tcp_proxy.h"

#include <gtest/gtest.h>

#include "hiredis_owners.h"
#include "servers.h"

namespace {

using Mode = TcpProxy::Mode;

constexpr const char* timed_out = "Resource temporarily unavailable";
constexpr const char* closed = "Server closed the connection";
constexpr const char* reset = "Connection reset by peer";

Context connect_to(const TcpProxy& proxy) {
  return Context(redisConnect("127.0.0.1", proxy.port()));
}

// The text of the reply, or of the error.
std::string ask(const Context& context, int timeout_ms = 5000) {
  redisSetTimeout(context.get(), to_timeval(timeout_ms));
  const Reply reply(static_cast<redisReply*>(redisCommand(context.get(), "PING")));
  return reply ? reply->str : context->errstr;
}

TEST(TcpProxy, FailsInEveryModeAndForwardsAgain) {
  const ScriptedServer server{std::string("+PONG\r\n")};
  TcpProxy proxy(server.port());
  // What arrives over an old connection, a new one, and one that was opened before the fault ended.
  // clang-format off
  const struct { Mode mode; const char* old; const char* fresh; const char* before_end; } cases[] = {
      {Mode::refuse, closed, "Connection refused", ""},
      {Mode::hang, timed_out, timed_out, reset},
      {Mode::swallow, timed_out, timed_out, reset},
      {Mode::refuse, closed, "Connection refused", ""},
  };
  // clang-format on
  for (const auto& one : cases) {
    const Context old = connect_to(proxy);
    EXPECT_EQ(ask(old), "PONG");
    proxy.set_mode(one.mode);
    const int timeout_ms = one.old == timed_out ? 50 : 5000;
    EXPECT_EQ(ask(old, timeout_ms), one.old);
    EXPECT_EQ(ask(connect_to(proxy), timeout_ms), one.fresh);
    const Context before_end = connect_to(proxy);
    proxy.set_mode(Mode::forward);
    if (*one.before_end != '\0') {
      EXPECT_EQ(ask(before_end), one.before_end);
    }
    EXPECT_EQ(ask(connect_to(proxy)), "PONG");
  }
  const Context old = connect_to(proxy);
  EXPECT_EQ(ask(old), "PONG");
  proxy.reset_connections();
  EXPECT_EQ(ask(old), reset);
}

TEST(TcpProxy, FailsOneConnectionAndChangesItsTarget) {
  const ScriptedServer server{std::string("+PONG\r\n")};
  const ScriptedServer other{std::string("-LOADING\r\n")};
  TcpProxy proxy(server.port());
  proxy.stall_connection();  // there is none
  proxy.add_reply("+MORE\r\n");
  proxy.end_stall();
  const Context old = connect_to(proxy);
  const Context served_last = connect_to(proxy);
  EXPECT_EQ(ask(old), "PONG");
  EXPECT_EQ(ask(served_last), "PONG");
  proxy.add_reply("+MORE\r\n");
  EXPECT_EQ(ask(served_last), "MORE");
  void* own = nullptr;  // its own reply, after which the proxy serves it no more
  EXPECT_EQ(redisGetReply(served_last.get(), &own), REDIS_OK);
  const Reply pong(static_cast<redisReply*>(own));
  EXPECT_EQ(ask(old), "PONG");
  proxy.stall_connection();
  EXPECT_EQ(ask(old, 50), timed_out);
  EXPECT_EQ(ask(served_last), "PONG");
  const Context stalled = connect_to(proxy);
  EXPECT_EQ(ask(stalled), "PONG");
  proxy.stall_connection();
  proxy.end_stall();
  EXPECT_EQ(ask(stalled), reset);
  proxy.set_target(other.port());
  EXPECT_EQ(ask(served_last), reset);
  EXPECT_EQ(ask(connect_to(proxy)), "LOADING");
  proxy.set_target(server.port());
  EXPECT_EQ(ask(connect_to(proxy)), "PONG");
}

TEST(TcpProxy, DelaysEachWay) {
  const ScriptedServer server{std::string("+PONG\r\n")};
  constexpr std::chrono::milliseconds delay(10);
  const TcpProxy proxy(server.port(), delay);
  const Context context = connect_to(proxy);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(ask(context), "PONG");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 2 * delay);
}

}  // namespace

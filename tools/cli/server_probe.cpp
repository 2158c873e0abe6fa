#include "server_probe.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <optional>

#include "hiredis_owners.h"
#include "numbers.h"

namespace {

constexpr const char* probe_key = "ruvo_cli:check";
constexpr int longest_wait_ms = 5000;  // if the configuration sets no limit

int limit_of(int milliseconds) { return milliseconds < 1 ? longest_wait_ms : milliseconds; }

bool holds(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// A server may reply with any bytes; a terminal needs a line of text.
std::string printable(const redisReply& reply) {
  std::string text(reply.str, static_cast<std::size_t>(reply.len));
  std::replace_if(
      text.begin(), text.end(), [](unsigned char one) { return std::isprint(one) == 0; }, '?');
  return text;
}

Probe not_connected(const std::string& error, int limit_ms) {
  if (holds(error, "refused")) {
    return {"refused", "nothing listens at the address"};
  }
  if (holds(error, "timed out")) {
    return {"timed out", "no connection within " + std::to_string(limit_ms) + " ms"};
  }
  // The texts of the system's resolver.
  if (holds(error, "not known") || holds(error, "No address associated")) {
    return {"no such name", "the resolver does not know the name: " + error};
  }
  if (holds(error, "name resolution")) {
    return {"name not resolved", "the resolver has no answer: " + error};
  }
  return {"unreachable", error};
}

Probe not_a_redis() {
  return {"not a Redis", "something else answers at the address, or a Redis behind TLS"};
}

// REQUIRES: errno is as the exchange left it.
Probe no_reply(const redisContext& context, int limit_ms) {
  if (errno == EAGAIN || errno == ETIMEDOUT) {
    return {"hung",
            "accepts connections but does not answer within " + std::to_string(limit_ms) + " ms"};
  }
  return context.err == REDIS_ERR_PROTOCOL
             ? not_a_redis()
             : Probe{"closed", "closes the connection on the first command"};
}

// States that end without an operator, or that need not affect the pool's other servers.
const std::array temporary_states{
    Probe{"loading", "is loading its data, and answers no command until that is done", "LOADING"},
    Probe{"at its limit of clients", "closes every further connection: see its maxclients",
          "ERR max number of clients"},
    Probe{"replica without its primary",
          "its link to its primary is down, and it answers no command until the link is up",
          "MASTERDOWN"},
};

Probe refusal(const redisReply& error, const std::string& key) {
  const std::string text = printable(error);
  const auto* const temporary = std::ranges::find_if(temporary_states, [&text](const Probe& state) {
    return text.starts_with(state.error_reply);
  });
  if (temporary != temporary_states.end()) {
    return *temporary;
  }
  if (text.starts_with("NOAUTH")) {
    return {"no password given", "requires a password, and " + key + " is not set", "NOAUTH"};
  }
  if (holds(text, "no password is set") || holds(text, "without any password")) {
    return {"no password wanted", "has no password, and rejects the one in " + key};
  }
  if (text.starts_with("WRONGPASS") || holds(text, "invalid password")) {
    return {"wrong password", "rejects the value of " + key};
  }
  return {"error reply", text};
}

template <typename... Words>
Reply ask(redisContext& context, const char* format, Words... words) {
  errno = 0;
  return Reply(static_cast<redisReply*>(redisCommand(&context, format, words...)));
}

bool is_text(const redisReply& reply) { return reply.type == REDIS_REPLY_STRING; }

// A replica answers reads like any server; only its role differs. A proxy knows no role.
Probe up_or_replica(redisContext& context) {
  const Reply role = ask(context, "ROLE");
  if (!role || role->type != REDIS_REPLY_ARRAY || role->elements < 4 ||
      !is_text(*role->element[0]) || printable(*role->element[0]) != "slave" ||
      !is_text(*role->element[1]) || role->element[2]->type != REDIS_REPLY_INTEGER ||
      !is_text(*role->element[3])) {
    return {"up", ""};
  }
  const std::string primary =
      printable(*role->element[1]) + ":" + std::to_string(role->element[2]->integer);
  const std::string link = printable(*role->element[3]);
  Probe probe{"replica", "follows " + primary + ", and answers writes with READONLY", "READONLY"};
  if (link != "connected") {
    probe.state = "replica without its primary";
    probe.reason = "follows " + primary + ", but the link is down (" + link +
                   "): its data may be old, and it answers writes with READONLY";
  }
  probe.is_replica = true;
  return probe;
}

}  // namespace

Probe probe_server(const std::string& address, const site_settings& site, std::size_t pool) {
  const std::optional<server_addr> addr = parse_address(address);
  if (!addr || addr->port_ < 1 || addr->port_ > max_port) {
    return {"no such port", "a port is a number from 1 to 65535"};
  }
  const int connect_ms = limit_of(site.limits.connect_timeout);
  const int answer_ms = limit_of(site.limits.socket_timeout);
  const Context context(redisConnectWithTimeout(addr->ip_.c_str(), static_cast<int>(addr->port_),
                                                to_timeval(connect_ms)));
  if (!context || context->err != 0) {
    return not_connected(context ? context->errstr : "out of memory", connect_ms);
  }
  redisSetTimeout(context.get(), to_timeval(answer_ms));
  const std::string& password = site.pools.at(pool).password;
  const std::string& key = password_key(pool);
  if (!password.empty()) {
    const Reply reply = ask(*context, "AUTH %s", password.c_str());
    if (!reply) {
      return no_reply(*context, answer_ms);
    }
    if (reply->type == REDIS_REPLY_ERROR) {
      return refusal(*reply, key);
    }
  }
  const Reply reply = ask(*context, "EXISTS %s", probe_key);
  if (!reply) {
    return no_reply(*context, answer_ms);
  }
  if (reply->type == REDIS_REPLY_ERROR) {
    return refusal(*reply, key);
  }
  return reply->type == REDIS_REPLY_INTEGER ? up_or_replica(*context) : not_a_redis();
}

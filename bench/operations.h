// The operations that are measured, each in two forms: through the library, and as commands that a
// program without the library gives to hiredis. One of each kind of reply, not all of them.
#ifndef RUVO_BENCH_OPERATIONS_H
#define RUVO_BENCH_OPERATIONS_H

#include <hiredis/hiredis.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct ReplyDeleter {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

struct ContextDeleter {
  void operator()(redisContext* context) const { redisFree(context); }
};
using Context = std::unique_ptr<redisContext, ContextDeleter>;

// A read or write on the connection ends after this time; a loaded machine does not reach it.
constexpr int timeout_seconds = 10;
enum class Timeout { none, set };
Context connect_to(int port, Timeout timeout = Timeout::none);

// What a call promises its caller beside the result code: the library hands values out as copies.
enum class HandsOut { nothing, buffer, text, texts };

struct Command {
  std::function<void*(redisContext&)> send;
  int reply_type;
  HandsOut hands_out = HandsOut::nothing;
};

struct Operation {
  std::string name;
  std::size_t bytes;  // of each value, field value, element or member
  std::function<void()> through_library;
  std::vector<Command> commands;
  std::function<void()> through_cpp = nullptr;  // the same with ruvo.hpp, where that is measured
};

// All operations on values of this size. Elements of lists and members of sets are as long; there
// are elements_of(bytes) of them.
std::vector<Operation> operations_on(std::size_t bytes);
std::size_t elements_of(std::size_t bytes);

// Stores what the operations of this size expect to find.
void prepare(redisContext& context, std::size_t bytes);

// Runs the commands on one connection and leaves what they answer in the reply.
void run_bare(const Operation& operation, redisContext& context);

// Sends one command; throws std::runtime_error when the reply is not the one expected.
Reply run_command(const Command& command, redisContext& context);

// Copies what a reply holds as the library does for its caller, and lets the copy go again.
void hand_out(HandsOut what, const redisReply& reply);

// Throws std::runtime_error.
void require(bool succeeded);

#endif

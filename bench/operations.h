// The operations that are measured, each in two forms: through the library, and as commands that a
// program without the library gives to hiredis. One of each kind of reply, not all of them.
#ifndef RUVO_BENCH_OPERATIONS_H
#define RUVO_BENCH_OPERATIONS_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "hiredis_owners.h"

// The timeout of a read or write on the connection; a loaded machine does not reach it.
constexpr int timeout_seconds = 10;
enum class Timeout { none, set };
Context connect_to(int port, Timeout timeout = Timeout::none);

// What the library copies for its caller, beside the result code.
enum class Copied { nothing, buffer, text, texts };

struct Command {
  std::function<void*(redisContext&)> send;
  int reply_type;
  Copied copied = Copied::nothing;
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
void copy_result(Copied what, const redisReply& reply);

// Throws std::runtime_error.
void require(bool succeeded);

#endif

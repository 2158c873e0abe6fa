// The measured operations, each in two forms: through the library, and as commands that a program
// without the library gives to hiredis. They include every kind of reply, not every function.
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

// What the library copies for its caller besides the result code.
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
  std::function<void()> through_cpp = nullptr;  // the same with ruvo.hpp, if that is measured
};

// All operations on values of this size. Elements of lists and members of sets are as long; there
// are elements_of(bytes) of them.
std::vector<Operation> operations_on(std::size_t bytes);
std::size_t elements_of(std::size_t bytes);

// Stores what the operations of this size need.
void prepare(redisContext& context, std::size_t bytes);

// Runs the commands on one connection, without copying anything out of their replies.
void run_bare(const Operation& operation, redisContext& context);

// Sends one command; throws std::runtime_error if the reply is not the expected one.
Reply run_command(const Command& command, redisContext& context);

// Copies a reply's contents as the library does for its caller, and frees the copy.
void copy_result(Copied what, const redisReply& reply);

// Throws std::runtime_error if the condition does not hold.
void require(bool succeeded);

#endif

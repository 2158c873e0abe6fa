#include "operations.h"

#include <ruvo/ruvo.hpp>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

constexpr int pool = eTempServer;
constexpr ruvo::pool cpp_pool(eTempServer);

// Keeps the compiler from removing a result that only the measurement needs.
void keep(const void* pointer) { asm volatile("" : : "g"(pointer) : "memory"); }

void require_ok(int result) { require(result == RUVO_OK); }

template <typename... Args>
Command command(int reply_type, Copied copied, const char* format, Args... args) {
  return {[=](redisContext& context) { return redisCommand(&context, format, args...); },
          reply_type, copied};
}

template <typename... Args>
Command command(int reply_type, const char* format, Args... args) {
  return command(reply_type, Copied::nothing, format, args...);
}

// A value that the library has copied out.
struct Buffer {
  ~Buffer() { RUVO_FreeResult(data); }
  const char* data = nullptr;
  unsigned long len = 0;
};

// Each size has keys of its own.
std::string key_of(const char* name, std::size_t bytes) {
  return std::string("bench:") + name + ":" + std::to_string(bytes);
}

// Not freed: the operations, which are made once for each size, use these texts until the end.
const char* permanent(std::string text) { return (new std::string(std::move(text)))->c_str(); }

// A unique member or element of exactly `bytes` bytes.
std::string numbered(std::size_t number, std::size_t bytes) {
  std::string text = std::to_string(number);
  text.resize(bytes, 'e');
  return text;
}

}  // namespace

void require(bool succeeded) {
  if (!succeeded) {
    throw std::runtime_error("an operation failed");
  }
}

Context connect_to(int port, Timeout timeout) {
  Context context(redisConnect("127.0.0.1", port));
  require(context != nullptr && context->err == 0);
  if (timeout == Timeout::set) {
    require(redisSetTimeout(context.get(), {timeout_seconds, 0}) == REDIS_OK);
  }
  return context;
}

std::size_t elements_of(std::size_t bytes) {
  return std::clamp<std::size_t>(1000000 / bytes, 1, 100);
}

std::vector<Operation> operations_on(std::size_t bytes) {
  const char* const value = permanent(std::string(bytes, 'x'));
  const char* const member = permanent(numbered(0, bytes));
  const char* const text = permanent(key_of("text", bytes));
  const char* const hash = permanent(key_of("hash", bytes));
  const char* const queue = permanent(key_of("queue", bytes));
  const char* const list = permanent(key_of("list", bytes));
  const char* const set = permanent(key_of("set", bytes));
  const std::size_t elements = elements_of(bytes);
  const auto get = command(REDIS_REPLY_STRING, Copied::buffer, "GET %s", text);

  std::vector<Operation> all;
  const auto add = [&all, bytes](const char* name, std::function<void()> through_library,
                                 std::vector<Command> commands,
                                 std::function<void()> through_cpp = nullptr) {
    all.push_back(
        {name, bytes, std::move(through_library), std::move(commands), std::move(through_cpp)});
  };
  // Strings.
  add(
      "SET", [=] { require_ok(RUVO_InsertKey(text, value, bytes, -1, pool, nullptr)); },
      {command(REDIS_REPLY_STATUS, "SET %s %b", text, value, bytes)},
      [=] {
        require_ok(cpp_pool.set(text, {value, bytes}).code());
      });
  add(
      "GET",
      [=] {
        Buffer read;
        require_ok(RUVO_QueryKey(text, &read.data, &read.len, pool, nullptr));
        require(read.len == bytes);
      },
      {get},
      [=] {
        const auto read = cpp_pool.get(text);
        require(read && read->size() == bytes);
      });
  add("EXISTS", [=] { require_ok(RUVO_ExistsKey(text, pool, nullptr)); },
      {command(REDIS_REPLY_INTEGER, "EXISTS %s", text)});
  add("INCR",
      [] {
        long long count = 0;
        require_ok(RUVO_IncreaseKey("bench:count", &count, pool, nullptr));
      },
      {command(REDIS_REPLY_INTEGER, "INCR %s", "bench:count")});
  // Any command: the reply itself is the result, so there is no copy.
  add(
      "raw GET",
      [=] {
        auto* reply = static_cast<redisReply*>(RUVO_ExecRedisCmd(pool, "GET %s", text));
        require(reply != nullptr && reply->type == REDIS_REPLY_STRING);
        RUVO_FreeReplyObject(reply);
      },
      {command(REDIS_REPLY_STRING, "GET %s", text)},
      [=] {
        const auto reply = cpp_pool.command("GET", text);
        require(reply && reply->type() == REDIS_REPLY_STRING);
      });
  // Hashes.
  add("HSET", [=] { require_ok(RUVO_HashSet(hash, "field", 5, value, bytes, -1, pool, nullptr)); },
      {command(REDIS_REPLY_INTEGER, "HSET %s %b %b", hash, "field", std::size_t{5}, value, bytes)});
  add("HGET",
      [=] {
        Buffer read;
        require_ok(RUVO_HashGet(hash, "field", 5, &read.data, &read.len, pool, nullptr));
        require(read.len == bytes);
      },
      {command(REDIS_REPLY_STRING, Copied::buffer, "HGET %s %b", hash, "field", std::size_t{5})});
  add("HINCRBY",
      [=] {
        long long sum = 0;
        require_ok(RUVO_HashIncrBy(hash, "count", 5, 1, &sum, pool, nullptr));
      },
      {command(REDIS_REPLY_INTEGER, "HINCRBY %s %b %d", hash, "count", std::size_t{5}, 1)});
  // Lists. A push and a pop belong together, so that the list keeps its length.
  add("LPUSH+RPOP",
      [=] {
        long long count = 0;
        std::string popped;
        require_ok(RUVO_LPush(queue, value, bytes, 0, &count, pool, nullptr));
        require_ok(RUVO_RPop(queue, popped, pool, nullptr));
        require(popped.size() == bytes);
      },
      {command(REDIS_REPLY_INTEGER, "LPUSH %s %b", queue, value, bytes),
       command(REDIS_REPLY_STRING, Copied::text, "RPOP %s", queue)});
  add("LRANGE",
      [=] {
        std::vector<std::string> values;
        require_ok(RUVO_LRange(list, 0, -1, values, pool, nullptr));
        require(values.size() == elements);
      },
      {command(REDIS_REPLY_ARRAY, Copied::texts, "LRANGE %s %d %d", list, 0, -1)});
  // Sets.
  add("SADD", [=] { require(RUVO_SAdd(set, member, bytes, pool, nullptr) == RUVO_NOTHING_DONE); },
      {command(REDIS_REPLY_INTEGER, "SADD %s %b", set, member, bytes)});
  add("SISMEMBER", [=] { require_ok(RUVO_SIsmember(set, member, bytes, pool, nullptr)); },
      {command(REDIS_REPLY_INTEGER, "SISMEMBER %s %b", set, member, bytes)});
  add("SMEMBERS",
      [=] {
        std::vector<std::string> values;
        require_ok(RUVO_SMembers(set, values, pool, nullptr));
        require(values.size() == elements);
      },
      {command(REDIS_REPLY_ARRAY, Copied::texts, "SMEMBERS %s", set)});
  return all;
}

void prepare(redisContext& context, std::size_t bytes) {
  const std::string value(bytes, 'x');
  const auto run = [&context](const Command& one) { run_command(one, context); };
  run(command(REDIS_REPLY_STATUS, "SET %s %b", key_of("text", bytes).c_str(), value.data(), bytes));
  run(command(REDIS_REPLY_STATUS, "SET %s %d", "bench:count", 1000));
  run(command(REDIS_REPLY_INTEGER, "HSET %s field %b", key_of("hash", bytes).c_str(), value.data(),
              bytes));
  run(command(REDIS_REPLY_INTEGER, "HINCRBY %s count %d", key_of("hash", bytes).c_str(), 1000));
  for (std::size_t i = 0; i < elements_of(bytes); ++i) {
    const std::string element = numbered(i, bytes);
    for (const char* format : {"RPUSH %s %b", "SADD %s %b"}) {
      const std::string key = key_of(*format == 'R' ? "list" : "set", bytes);
      run(command(REDIS_REPLY_INTEGER, format, key.c_str(), element.data(), bytes));
    }
  }
}

Reply run_command(const Command& command, redisContext& context) {
  Reply reply(static_cast<redisReply*>(command.send(context)));
  require(reply != nullptr && reply->type == command.reply_type);
  keep(reply->str);
  return reply;
}

void run_bare(const Operation& operation, redisContext& context) {
  for (const Command& command : operation.commands) {
    run_command(command, context);
  }
}

void copy_result(Copied what, const redisReply& reply) {
  switch (what) {
    case Copied::nothing:
      break;
    case Copied::buffer: {
      const std::unique_ptr<char[]> copy(new char[reply.len]);  // NOLINT: not to be filled twice
      std::memcpy(copy.get(), reply.str, reply.len);
      keep(copy.get());
      break;
    }
    case Copied::text: {
      const std::string copy(reply.str, reply.len);
      keep(copy.data());
      break;
    }
    case Copied::texts: {
      std::vector<std::string> copies;
      copies.reserve(reply.elements);
      for (std::size_t i = 0; i < reply.elements; ++i) {
        copies.emplace_back(reply.element[i]->str, reply.element[i]->len);
      }
      keep(copies.data());
      break;
    }
  }
}

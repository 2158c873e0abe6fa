// Every operation of the library as a command: its name, its parameters and its call. `load` uses
// the same commands.
#ifndef RUVO_TOOLS_CLI_OPERATIONS_H
#define RUVO_TOOLS_CLI_OPERATIONS_H

#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "value.h"

// The arguments of a command line. Each operation uses some of them.
struct Arguments {
  int pool = 0;
  std::string key;
  std::string field;
  std::string value;
  std::optional<int> ttl;  // seconds
  unsigned int seconds = 0;
  long long increment = 0;
  int count = 0;
  int start = 0;
  int end = 0;
  std::vector<std::string> words;  // of any command
};

enum class Parameter { key, field, value, ttl, seconds, increment, count, start, end, words };

struct Answer {
  Answer(int code) : result(code) {}  // NOLINT(google-explicit-constructor): most are just a code
  Answer(int code, nlohmann::json answered) : result(code), value(std::move(answered)) {}

  int result = 0;                       // the library's result code
  std::optional<nlohmann::json> value;  // what it found, if anything
};

// Operations of one family can share a key.
enum class Family { string, counter, hash, list, set, any };
struct FamilyTraits {
  const char* name;
  const char* group;  // of the commands in --help
  const char* store;  // the operation that makes a key
};
const FamilyTraits& traits_of(Family family);

struct Operation {
  const char* name;
  const char* help;
  Family family;
  std::vector<Parameter> parameters;  // in the order of the command line
  // Throws Failure if the library could not take the arguments unchanged.
  Answer (*run)(const Arguments&);
  bool can_be_absent = false;          // results 1 and 10402
  const char* nothing_done = nullptr;  // meaning of result -2 here; null: it does not occur
};

// The meaning of a result of the operation.
const char* text_of(const Operation& operation, int result);

std::span<const Operation> all_operations();
const Operation* find_operation(const std::string& name);

// Any command, word by word.
Answer run_raw(const Arguments& arguments);

#endif

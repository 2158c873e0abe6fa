#include "operations.h"

#include <ruvo/ruvo.h>

#include <algorithm>
#include <array>

#include "exit_status.h"

namespace {

using P = Parameter;

// A buffer that the library hands out.
struct Buffer {
  ~Buffer() { RUVO_FreeResult(data); }
  Answer answer(int result) const {
    return data != nullptr ? Answer(result, std::string(data, len)) : Answer(result);
  }
  const char* data = nullptr;
  unsigned long len = 0;
};

Answer with_number(int result, long long number) {
  return result == RUVO_OK ? Answer(result, number) : Answer(result);
}

Answer with_texts(int result, const std::vector<std::string>& texts) {
  return result == RUVO_OK ? Answer(result, texts) : Answer(result);
}

const std::vector<Operation>& table() {
  static const std::vector<Operation> operations{
      {"set",
       "Store a value",
       Family::string,
       {P::key, P::value, P::ttl},
       [](const Arguments& a) -> Answer {
         return RUVO_InsertKey(a.key.c_str(), a.value.data(), a.value.size(), a.ttl.value_or(-1),
                               a.pool, nullptr);
       }},
      {"append",
       "Append to a value",
       Family::string,
       {P::key, P::value},
       [](const Arguments& a) -> Answer {
         return RUVO_AppendKey(a.key.c_str(), a.value.data(), a.value.size(), a.pool, nullptr);
       }},
      {"incr",
       "Add 1 to today's counter and print it",
       Family::counter,
       {P::key},
       [](const Arguments& a) -> Answer {
         long long number = 0;
         const int result = RUVO_IncreaseKey(a.key.c_str(), &number, a.pool, nullptr);
         return with_number(result, number);
       }},
      {"get",
       "Print a value",
       Family::string,
       {P::key},
       [](const Arguments& a) -> Answer {
         Buffer buffer;
         return buffer.answer(
             RUVO_QueryKey(a.key.c_str(), &buffer.data, &buffer.len, a.pool, nullptr));
       },
       true},
      {"exists",
       "Test whether a key exists",
       Family::string,
       {P::key},
       [](const Arguments& a) -> Answer { return RUVO_ExistsKey(a.key.c_str(), a.pool, nullptr); },
       true},
      {"del",
       "Delete a key",
       Family::string,
       {P::key},
       [](const Arguments& a) -> Answer { return RUVO_DeleteKey(a.key.c_str(), a.pool, nullptr); }},
      {"expire",
       "Set the expiry of a key",
       Family::string,
       {P::key, P::seconds},
       [](const Arguments& a) -> Answer {
         return RUVO_ExpireKey(a.key.c_str(), a.seconds, a.pool, nullptr);
       }},
      {"persist",
       "Remove a key's expiry",
       Family::string,
       {P::key},
       [](const Arguments& a) -> Answer {
         return RUVO_PersistKey(a.key.c_str(), a.pool, nullptr);
       }},

      {"hset",
       "Set a field of a hash",
       Family::hash,
       {P::key, P::field, P::value, P::ttl},
       [](const Arguments& a) -> Answer {
         return RUVO_HashSet(a.key.c_str(), a.field.data(), a.field.size(), a.value.data(),
                             a.value.size(), a.ttl.value_or(-1), a.pool, nullptr);
       }},
      {"hget",
       "Print the value of a field",
       Family::hash,
       {P::key, P::field},
       [](const Arguments& a) -> Answer {
         Buffer buffer;
         return buffer.answer(RUVO_HashGet(a.key.c_str(), a.field.data(), a.field.size(),
                                           &buffer.data, &buffer.len, a.pool, nullptr));
       },
       true},
      {"hexists",
       "Test whether a field exists",
       Family::hash,
       {P::key, P::field},
       [](const Arguments& a) -> Answer {
         return RUVO_HashFieldExist(a.key.c_str(), a.field.data(), a.field.size(), a.pool, nullptr);
       },
       true},
      {"hincrby",
       "Add to a field and print the sum",
       Family::hash,
       {P::key, P::field, P::increment},
       [](const Arguments& a) -> Answer {
         long long number = 0;
         const int result = RUVO_HashIncrBy(a.key.c_str(), a.field.data(), a.field.size(),
                                            a.increment, &number, a.pool, nullptr);
         return with_number(result, number);
       }},
      {"hlen",
       "Print the number of fields",
       Family::hash,
       {P::key},
       [](const Arguments& a) -> Answer {
         long long number = 0;
         const int result = RUVO_HashFieldsNum(a.key.c_str(), &number, a.pool, nullptr);
         return with_number(result, number);
       }},
      {"hdel",
       "Delete a field",
       Family::hash,
       {P::key, P::field},
       [](const Arguments& a) -> Answer {
         return RUVO_HashDelField(a.key.c_str(), a.field.data(), a.field.size(), a.pool, nullptr);
       }},

      {"lpush",
       "Insert an element at the head of a list and print the new length",
       Family::list,
       {P::key, P::value, P::ttl},
       [](const Arguments& a) -> Answer {
         long long number = 0;
         const int result = RUVO_LPush(a.key.c_str(), a.value.data(), a.value.size(),
                                       a.ttl.value_or(0), &number, a.pool, nullptr);
         return with_number(result, number);
       }},
      {"rpop",
       "Remove the element at the tail and print it",
       Family::list,
       {P::key},
       [](const Arguments& a) -> Answer {
         std::string text;
         const int result = RUVO_RPop(a.key.c_str(), text, a.pool, nullptr);
         return result == RUVO_OK ? Answer(result, text) : Answer(result);
       },
       true,
       "the element was the empty text; it has been removed"},
      {"lrange",
       "Print the elements from START to END",
       Family::list,
       {P::key, P::start, P::end},
       [](const Arguments& a) -> Answer {
         std::vector<std::string> texts;
         const int result = RUVO_LRange(a.key.c_str(), a.start, a.end, texts, a.pool, nullptr);
         return with_texts(result, texts);
       },
       false,
       "no elements in that range"},
      {"ltrim",
       "Trim a list to the elements from START to END",
       Family::list,
       {P::key, P::start, P::end},
       [](const Arguments& a) -> Answer {
         return RUVO_LTrim(a.key.c_str(), a.start, a.end, a.pool, nullptr);
       }},
      {"lrem",
       "Remove elements equal to a value",
       Family::list,
       {P::key, P::count, P::value},
       [](const Arguments& a) -> Answer {
         if (a.value.find('\0') != std::string::npos) {
           throw Failure(wrong_usage, "lrem: the value must not contain a zero byte");
         }
         return RUVO_LRem(a.key.c_str(), a.count, a.value.c_str(), a.pool, nullptr);
       },
       false,
       "no such element"},

      {"sadd",
       "Add a member to a set",
       Family::set,
       {P::key, P::value},
       [](const Arguments& a) -> Answer {
         return RUVO_SAdd(a.key.c_str(), a.value.data(), a.value.size(), a.pool, nullptr);
       },
       false,
       "already a member"},
      {"srem",
       "Remove a member from a set",
       Family::set,
       {P::key, P::value},
       [](const Arguments& a) -> Answer {
         return RUVO_SRem(a.key.c_str(), a.value.data(), a.value.size(), a.pool, nullptr);
       }},
      {"sismember",
       "Test whether a value is a member of a set",
       Family::set,
       {P::key, P::value},
       [](const Arguments& a) -> Answer {
         return RUVO_SIsmember(a.key.c_str(), a.value.data(), a.value.size(), a.pool, nullptr);
       },
       false,
       "not a member"},
      {"smembers",
       "Print all members of a set",
       Family::set,
       {P::key},
       [](const Arguments& a) -> Answer {
         std::vector<std::string> texts;
         const int result = RUVO_SMembers(a.key.c_str(), texts, a.pool, nullptr);
         return with_texts(result, texts);
       },
       false,
       "the set is empty"},

      {"raw",
       "Run any command, word by word, and print its reply",
       Family::any,
       {P::words},
       run_raw,
       true},
  };
  return operations;
}

constexpr std::array<FamilyTraits, 6> families{{{"string", "String keys", "set"},
                                                {"counter", "String keys", "incr"},
                                                {"hash", "Hashes", "hset"},
                                                {"list", "Lists", "lpush"},
                                                {"set", "Sets", "sadd"},
                                                {"any", "Any command", "set"}}};

}  // namespace

const FamilyTraits& traits_of(Family family) {
  return families.at(static_cast<std::size_t>(family));
}

std::span<const Operation> all_operations() { return table(); }

const Operation* find_operation(const std::string& name) {
  const auto found = std::find_if(table().begin(), table().end(),
                                  [&name](const Operation& one) { return name == one.name; });
  return found != table().end() ? &*found : nullptr;
}

const char* text_of(const Operation& operation, int result) {
  if (result == RUVO_NOTHING_DONE && operation.nothing_done != nullptr) {
    return operation.nothing_done;
  }
  return result == RUVO_ABSENT ? "absent" : ruvo_result_text(result);
}

// A value as Redis has them, and how the tool prints it.
#ifndef RUVO_TOOLS_VALUE_H
#define RUVO_TOOLS_VALUE_H

#include <hiredis/hiredis.h>

#include <nlohmann/json.hpp>
#include <string>
#include <variant>
#include <vector>

struct Value {
  using Array = std::vector<Value>;
  std::variant<std::nullptr_t, long long, std::string, Array> content = nullptr;
};

Value to_value(const redisReply& reply);
Value to_value(const std::vector<std::string>& texts);

// Text: numbers and texts as they are, nothing as "(nil)", the elements of an array one to a line,
// those of inner arrays too. Without a newline at the end.
std::string to_text(const Value& value);

// JSON: a text that is not UTF-8 becomes {"hex": "00ff..."}, so that no byte is lost.
nlohmann::json to_json(const Value& value);
nlohmann::json to_json(const std::string& text);

#endif

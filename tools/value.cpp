#include "value.h"

#include <array>
#include <cstdio>

namespace {

template <typename... Cases>
struct overloaded : Cases... {
  using Cases::operator()...;
};

std::string to_hex(const std::string& bytes) {
  std::string hex;
  for (const char byte : bytes) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(byte));
    hex += digits.data();
  }
  return hex;
}

}  // namespace

Value to_value(const redisReply& reply) {
  switch (reply.type) {
    case REDIS_REPLY_NIL:
      return {};
    case REDIS_REPLY_INTEGER:
      return {reply.integer};
    case REDIS_REPLY_ARRAY: {
      Value::Array elements;
      for (std::size_t i = 0; i < reply.elements; ++i) {
        elements.push_back(to_value(*reply.element[i]));
      }
      return {elements};
    }
    default:
      return {std::string(reply.str, reply.len)};
  }
}

Value to_value(const std::vector<std::string>& texts) {
  Value::Array elements;
  for (const std::string& text : texts) {
    elements.push_back({text});
  }
  return {elements};
}

std::string to_text(const Value& value) {
  return std::visit(overloaded{[](std::nullptr_t) { return std::string("(nil)"); },
                               [](long long number) { return std::to_string(number); },
                               [](const std::string& text) { return text; },
                               [](const Value::Array& elements) {
                                 std::string lines;
                                 for (const Value& element : elements) {
                                   lines += (&element == elements.data() ? "" : "\n") + to_text(element);
                                 }
                                 return lines;
                               }},
                    value.content);
}

nlohmann::json to_json(const std::string& text) {
  nlohmann::json json = text;
  try {
    static_cast<void>(json.dump());
  } catch (const nlohmann::json::type_error&) {
    json = {{"hex", to_hex(text)}};
  }
  return json;
}

nlohmann::json to_json(const Value& value) {
  return std::visit(overloaded{[](std::nullptr_t) { return nlohmann::json(); },
                               [](long long number) { return nlohmann::json(number); },
                               [](const std::string& text) { return to_json(text); },
                               [](const Value::Array& elements) {
                                 nlohmann::json json = nlohmann::json::array();
                                 for (const Value& element : elements) {
                                   json.push_back(to_json(element));
                                 }
                                 return json;
                               }},
                    value.content);
}

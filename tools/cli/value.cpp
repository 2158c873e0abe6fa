#include "value.h"

#include <array>
#include <cstdio>

namespace {

std::string to_hex(const std::string& bytes) {
  std::string hex;
  for (const char byte : bytes) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(byte));
    hex += digits.data();
  }
  return hex;
}

bool is_printable(const nlohmann::json& text) {
  try {
    static_cast<void>(text.dump());
    return true;
  } catch (const nlohmann::json::type_error&) {
    return false;
  }
}

}  // namespace

// Replies nest, and so does what is made of them; hiredis bounds how deep.
// NOLINTBEGIN(misc-no-recursion)

nlohmann::json to_value(const redisReply& reply) {
  switch (reply.type) {
    case REDIS_REPLY_NIL:
      return nullptr;
    case REDIS_REPLY_INTEGER:
      return reply.integer;
    case REDIS_REPLY_ARRAY: {
      auto elements = nlohmann::json::array();
      for (std::size_t i = 0; i < reply.elements; ++i) {
        elements.push_back(to_value(*reply.element[i]));
      }
      return elements;
    }
    default:
      return std::string(reply.str, static_cast<std::size_t>(reply.len));
  }
}

std::string to_text(const nlohmann::json& value) {
  if (value.is_null()) {
    return "(nil)";
  }
  if (value.is_string()) {
    return value.get<std::string>();
  }
  if (!value.is_array()) {
    return value.dump();
  }
  std::string lines;
  for (std::size_t i = 0; i < value.size(); ++i) {
    lines += (i > 0 ? "\n" : "") + to_text(value[i]);
  }
  return lines;
}

nlohmann::json to_printable(const nlohmann::json& value) {
  if (value.is_string() && !is_printable(value)) {
    return {{"hex", to_hex(value.get<std::string>())}};
  }
  if (!value.is_array()) {
    return value;
  }
  auto elements = nlohmann::json::array();
  for (const auto& element : value) {
    elements.push_back(to_printable(element));
  }
  return elements;
}

// NOLINTEND(misc-no-recursion)

#include "value.h"

#include <algorithm>
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

// Replies nest, and so do their values; hiredis bounds the depth.
// NOLINTBEGIN(misc-no-recursion)

nlohmann::json to_value(const ruvo::reply_view& reply) {
  switch (reply.type()) {
    case REDIS_REPLY_NIL:
      return nullptr;
    case REDIS_REPLY_INTEGER:
      return reply.integer();
    case REDIS_REPLY_ARRAY: {
      auto elements = nlohmann::json::array();
      for (const ruvo::reply_view element : reply) {
        elements.push_back(to_value(element));
      }
      return elements;
    }
    default:
      return std::string(reply.text());
  }
}

namespace {

std::string text_at(const nlohmann::json& value, std::size_t indent);

// "1) first" and so on; a nested element is indented to its parent's text.
std::string numbered(const nlohmann::json& array, std::size_t indent) {
  std::string lines;
  for (std::size_t i = 0; i < array.size(); ++i) {
    const std::string number = std::to_string(i + 1) + ") ";
    lines += (i > 0 ? "\n" + std::string(indent, ' ') : "") + number +
             text_at(array[i], indent + number.size());
  }
  return lines;
}

bool is_nested(const nlohmann::json& array) {
  return std::any_of(array.begin(), array.end(),
                     [](const nlohmann::json& one) { return one.is_array(); });
}

std::string text_at(const nlohmann::json& value, std::size_t indent) {
  if (value.is_null()) {
    return "(nil)";
  }
  if (value.is_string()) {
    return value.get<std::string>();
  }
  if (!value.is_array()) {
    return value.dump();
  }
  if (value.empty()) {
    return "(empty)";
  }
  if (indent > 0 || is_nested(value)) {
    return numbered(value, indent);
  }
  std::string lines;
  for (const nlohmann::json& element : value) {
    lines += (&element != &value.front() ? "\n" : "") + text_at(element, indent);
  }
  return lines;
}

}  // namespace

std::string to_text(const nlohmann::json& value) { return text_at(value, 0); }

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

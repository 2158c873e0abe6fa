// Values of Redis' replies, kept as JSON whose strings may contain any bytes, and how the tool
// prints them.
#ifndef RUVO_TOOLS_CLI_VALUE_H
#define RUVO_TOOLS_CLI_VALUE_H

#include <ruvo/ruvo.hpp>

#include <nlohmann/json.hpp>
#include <string>

nlohmann::json to_value(const ruvo::reply_view& reply);

// Numbers and texts as they are, nil as "(nil)", the elements of an array one to a line. An array
// of arrays is numbered as in redis-cli. Without a newline at the end.
std::string to_text(const nlohmann::json& value);

// Converts a value for printing as JSON: a text that is not UTF-8 becomes {"hex": "00ff..."}, so
// that no byte is lost.
nlohmann::json to_printable(const nlohmann::json& value);

#endif

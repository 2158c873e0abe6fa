// Standard output, for the tool alone: what the library prints there while it starts goes nowhere.
#ifndef RUVO_TOOLS_CONSOLE_H
#define RUVO_TOOLS_CONSOLE_H

#include <nlohmann/json_fwd.hpp>
#include <string>

// From now on standard output is the tool's. Call it before the library is started.
void take_output();

// As printf would print it.
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

// Print and flush. Throw Failure when the output does not take it.
void print(const std::string& text);
void print_json(const nlohmann::json& json);  // on a line of its own

// Does a person look at the output?
bool is_terminal();

// Waits for the next second, or less when somebody wants the tool to end (SIGINT or SIGTERM): true.
// block_end_signals() must have been called before any thread was started.
void block_end_signals();
bool wait_for_end(int milliseconds);

#endif

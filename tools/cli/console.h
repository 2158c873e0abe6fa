// Standard output, for the tool alone: what the library prints there while it starts goes nowhere.
#ifndef RUVO_TOOLS_CLI_CONSOLE_H
#define RUVO_TOOLS_CLI_CONSOLE_H

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

// Fills the places of standard streams that are closed, so that no connection gets one of their
// numbers and with it what is meant for them. To be called before anything is opened.
void hold_standard_streams();

// From now on standard output is the tool's.
void take_output();

// As printf would print it.
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

// Print and flush. Throw Failure when the output does not take it. A pipe that nobody reads any
// more asks the tool to end, as a signal does.
void print(const std::string& text);
void print_json(const nlohmann::json& json);  // on a line of its own

// Rows of cells in columns as wide as their widest cell. Numbers stand to the right: those of all
// columns behind the first so many.
constexpr std::size_t all_columns = SIZE_MAX;
std::string columns(const std::vector<std::vector<std::string>>& rows,
                    std::size_t left = all_columns);

// Is the output a terminal with more than so many lines?
bool is_terminal(std::size_t lines);

// SIGINT and SIGTERM ask the tool to end, and it does so in its own time; a second one ends it at
// once. Threads that they must not interrupt block them.
void catch_end_signals();
void block_end_signals();
bool is_end_wanted();
bool wait_for_end(int milliseconds);  // until then, or for so long; is it wanted?

#endif

// Standard output, which belongs to the tool: what the library prints at start-up is dropped.
#ifndef RUVO_TOOLS_CLI_CONSOLE_H
#define RUVO_TOOLS_CLI_CONSOLE_H

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

// Opens closed standard streams, so that no connection gets the number of one, and with it the data
// meant for that stream. Call it before anything else is opened.
void open_standard_streams();

// From now on standard output belongs to the tool.
void take_output();

// Formats like printf.
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

// Print and flush. Throw Failure if the output does not take it. A pipe without a reader asks the
// tool to end, as a signal does.
void print(const std::string& text);
void print_json(const nlohmann::json& json);  // on a line of its own

// Arranges rows of cells in columns as wide as their widest cell. The first `left` columns are
// left-aligned; the others hold numbers and are right-aligned.
constexpr std::size_t all_columns = SIZE_MAX;
std::string columns(const std::vector<std::vector<std::string>>& rows,
                    std::size_t left = all_columns);

// Is the output a terminal with more lines than this?
bool is_terminal(std::size_t lines);

// SIGINT and SIGTERM ask the tool to end when it is ready; a second signal ends it at once. Threads
// that these signals must not interrupt block them.
void catch_end_signals();
void block_end_signals();
bool is_end_wanted();
bool wait_for_end(int milliseconds);  // true if the tool is to end

#endif

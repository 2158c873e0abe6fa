// The tool's exit statuses. Scripts depend on these numbers; ruvo_cli(1) lists them.
#ifndef RUVO_TOOLS_CLI_EXIT_STATUS_H
#define RUVO_TOOLS_CLI_EXIT_STATUS_H

#include <map>
#include <stdexcept>
#include <string>

enum ExitStatus {
  succeeded = 0,
  absent = 1,
  nothing_done = 2,
  failed = 3,
  bad_configuration = 4,
  pools_down = 5,
  no_memory = 6,
  connections_down = 7,
  settings_misread = 8,
  // As in sysexits.h.
  wrong_usage = 64,
  unreadable_input = 66,
  internal_error = 70,
  unwritable_output = 74
};

// The status for the result of an operation, and for the result of RUVO_Init.
ExitStatus status_of_operation(int result);
ExitStatus status_of_start(int result);

// The lists for --help: of the tool, and of one command, which adds its own statuses to the common
// ones.
using StatusTexts = std::map<ExitStatus, std::string>;
std::string exit_status_help();
std::string exit_status_help(StatusTexts own);

// Ends the tool with a status and one line on standard error.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), status_(status) {}
  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

#endif

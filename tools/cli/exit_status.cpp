#include "exit_status.h"

#include <ruvo/ruvo.h>

#include <utility>

ExitStatus status_of_operation(int result) {
  switch (result) {
    case RUVO_OK:
      return succeeded;
    case RUVO_ABSENT:
    case RUVO_ERR_NOT_FOUND:
      return absent;
    case RUVO_NOTHING_DONE:
      return nothing_done;
    case RUVO_ERR_NO_MEMORY:
      return no_memory;
    default:
      return failed;
  }
}

ExitStatus status_of_start(int result) {
  switch (result) {
    case RUVO_OK:
      return succeeded;
    case RUVO_INIT_TEMP_POOL_FAILED:
    case RUVO_INIT_PERSIST_POOL_FAILED:
    case RUVO_INIT_BOTH_POOLS_FAILED:
      return pools_down;
    case RUVO_ERR_NO_MEMORY:
      return no_memory;
    default:
      return bad_configuration;
  }
}

std::string exit_status_help() {
  return exit_status_help(with_start(
      {{succeeded, "success; check, watch: every server is up"},
       {absent, "the key or field is absent (library results 1, 10402)"},
       {nothing_done, "nothing done or found (-2)"},
       {failed, "failed: no server, or an error reply (-1, 10112); load: some calls failed"},
       {pools_down,
        "neither the temporary nor the persistent pool is up (RUVO_Init: 3); check: some pool "
        "cannot be used; watch: no server is up"},
       {connections_down,
        "check: every pool can be used, but some servers or connections are not up; watch: some "
        "servers are not up"},
       {settings_misread, "check: all is up, but settings are not read as written"},
       {unreadable_input, "an input file cannot be read"}}));
}

StatusTexts with_start(StatusTexts own) {
  own.merge(StatusTexts{
      {bad_configuration, "the configuration cannot be used (RUVO_Init: 10102, 10106, 10115, -1)"},
      {pools_down, "neither the temporary nor the persistent pool is up (RUVO_Init: 3)"},
      {no_memory, "out of memory (10113)"}});
  return own;
}

std::string exit_status_help(StatusTexts own) {
  own.merge(StatusTexts{{no_memory, "out of memory"},
                        {wrong_usage, "wrong usage"},
                        {internal_error, "an error of the tool itself"},
                        {unwritable_output, "the output or the log cannot be written"}});
  std::string text = "Exit status:\n";
  for (const auto& [status, meaning] : own) {
    text += (status < 10 ? "   " : "  ") + std::to_string(status) + "  " + meaning + "\n";
  }
  return text;
}

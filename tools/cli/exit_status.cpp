#include "exit_status.h"

#include <ruvo/ruvo.h>

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
  return "Exit status:\n"
         "   0  success; check: everything is up\n"
         "   1  the key or field is absent (library results 1, 10402)\n"
         "   2  nothing done or found (-2)\n"
         "   3  failed: no server, or an error reply (-1, 10112); load: some operations failed\n"
         "   4  the configuration cannot be used (RUVO_Init: 10102, 10106, 10115, -1)\n"
         "   5  no main pool is up (RUVO_Init: 3); check: some pool is not (1, 2, 3)\n"
         "   6  out of memory (10113)\n"
         "   7  check: every pool is up, but some connections are not\n"
         "  64  wrong usage\n"
         "  66  an input file cannot be read\n"
         "  70  an error of the tool itself\n"
         "  74  the output or the log cannot be written\n";
}

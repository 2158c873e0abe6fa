// The main function of a small program: an exception ends it with one line and status 2.
#ifndef RUVO_TOOLS_COMMON_RUN_MAIN_H
#define RUVO_TOOLS_COMMON_RUN_MAIN_H

#include <cerrno>
#include <cstdio>
#include <exception>

inline int run_main(int (*run)(int argc, char** argv), int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, failure.what());
    return 2;
  }
}

#endif

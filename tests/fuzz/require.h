// How a fuzzer reports what must not be: it crashes.
#ifndef RUVO_TESTS_FUZZ_REQUIRE_H
#define RUVO_TESTS_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>

inline void require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "not true: %s\n", what);
    std::abort();
  }
}

#endif

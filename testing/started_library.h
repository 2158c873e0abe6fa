// The library, started for a test, a benchmark or ruvo_chaos.
#ifndef RUVO_TESTING_STARTED_LIBRARY_H
#define RUVO_TESTING_STARTED_LIBRARY_H

#include <ruvo/ruvo.hpp>

#include <stdexcept>
#include <string>

#include "fixtures.h"

// The library is ready while it exists, and prints nothing at start-up; throws std::runtime_error
// if a pool cannot be used.
class StartedLibrary : NoCopy {
 public:
  explicit StartedLibrary(const std::string& config) : library_(start(config)) {
    if (!library_) {
      throw std::runtime_error(std::string("RUVO_Init: ") + ruvo_result_text(library_.code()));
    }
  }

 private:
  static ruvo::library start(const std::string& config) {
    const QuietConsole quiet;
    return ruvo::library(config);
  }

  ruvo::library library_;
};

#endif

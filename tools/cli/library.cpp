#include "library.h"

// Two numbers mean something else here than from an operation.
const char* start_text(int result) {
  switch (result) {
    case RUVO_INIT_TEMP_POOL_FAILED:
      return "the temporary pool failed";
    case RUVO_ERR_FAILED:
      return "the file that redis_cfg_path names cannot be opened";
    default:
      return ruvo_result_text(result);
  }
}

Library::Library(const std::string& config) : result_(RUVO_Init(config.c_str())) {}

Library::~Library() {
  if (is_ready()) {
    RUVO_Fini();
  }
}

// One main pool is enough for the library to be ready.
bool Library::is_ready() const {
  return result_ == RUVO_OK || result_ == RUVO_INIT_TEMP_POOL_FAILED ||
         result_ == RUVO_INIT_PERSIST_POOL_FAILED;
}

void Library::require_ready() const {
  if (!is_ready()) {
    throw Failure(status_of_start(result_), std::string("start-up failed: ") + start_text(result_) +
                                                " (" + std::to_string(result_) + ")");
  }
}

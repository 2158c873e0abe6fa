#include "library.h"

#include <filesystem>

#include "configuration.h"

namespace {

// The file that a result of RUVO_Init concerns, and its fault; empty if the result concerns no
// file.
std::string file_error(const std::string& config, int result) {
  if (result == RUVO_ERR_CONFIG_FILE) {
    return "cannot open " + config + ": " + open_error(config);
  }
  if (result == RUVO_ERR_NO_REDIS_CONFIG) {
    const std::string error = open_error(config);
    return config + (error.empty() ? ": no redis_cfg_path in section [redis_cfg]" : ": " + error);
  }
  if (result != RUVO_ERR_FAILED) {
    return "";
  }
  const std::string path = redis_config_of(config);
  std::error_code none;
  return "cannot open " + path + ": " + open_error(path) + "; it is the redis_cfg_path of " +
         config +
         (path.starts_with('/') ? ""
                                : ", relative to the working directory " +
                                      std::filesystem::current_path(none).string());
}

}  // namespace

// Two result codes mean something else from RUVO_Init than from an operation.
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

Library::Library(const std::string& config) : config_(config), library_(config) {}

// The temporary or the persistent pool is enough for a start.
bool Library::is_ready() const {
  return library_ || result() == RUVO_INIT_TEMP_POOL_FAILED ||
         result() == RUVO_INIT_PERSIST_POOL_FAILED;
}

void Library::require_ready() const {
  if (is_ready()) {
    return;
  }
  const std::string file = file_error(config_, result());
  throw Failure(status_of_start(result()),
                "start-up failed: " + (file.empty() ? start_text(result()) : file) + " (" +
                    std::to_string(result()) + ")");
}

// The lines of the second configuration file that the library does not read as they are written: it
// skips them without a message, or takes another value.
#ifndef RUVO_TOOLS_CLI_SETTINGS_REVIEW_H
#define RUVO_TOOLS_CLI_SETTINGS_REVIEW_H

#include <string>
#include <vector>

struct Finding {
  int line;          // 0: the file as a whole
  std::string text;  // shows no password
};

std::vector<Finding> review_settings(const std::string& redis_config);

#endif

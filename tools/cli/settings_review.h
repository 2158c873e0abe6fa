// What in the second configuration file is not read as it is written: the library skips it without
// a word, or takes another value.
#ifndef RUVO_TOOLS_CLI_SETTINGS_REVIEW_H
#define RUVO_TOOLS_CLI_SETTINGS_REVIEW_H

#include <string>
#include <vector>

struct Finding {
  int line;          // of the file; 0: of the file as a whole
  std::string text;  // shows no password
};

std::vector<Finding> review_settings(const std::string& redis_config);

#endif

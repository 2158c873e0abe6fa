// The surroundings of the library in a host process: its log and its descriptors.
#ifndef RUVO_TESTING_HOST_H
#define RUVO_TESTING_HOST_H

#include <string>
#include <vector>

#include "fixtures.h"
#include "logger.h"

// Collects the log while it exists. REQUIRES: no other LogCapture exists.
class LogCapture : NoCopy {
 public:
  struct Line {
    BaseLib::Logger::LogLevel level;
    std::string text;  // without time, thread, level and place
    bool operator==(const Line&) const = default;
  };

  explicit LogCapture(BaseLib::Logger::LogLevel threshold = BaseLib::Logger::DEBUG);
  ~LogCapture();

  std::vector<Line> take();  // all lines since the last call
  int count(BaseLib::Logger::LogLevel level, const std::string& text) const;  // whole texts
  int count_containing(const std::string& part) const;
  void clear() { take(); }
};

std::ostream& operator<<(std::ostream& out, const LogCapture::Line& line);

int open_descriptors();

#endif

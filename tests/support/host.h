// What a host process has around the library: its log, its configuration files, its descriptors.
#ifndef RUVO_TESTS_HOST_H
#define RUVO_TESTS_HOST_H

#include <filesystem>
#include <string>
#include <vector>

#include "logger.h"
#include "no_copy.h"

// Collects the log while it lives; one at a time.
class LogCapture : NoCopy {
 public:
  struct Line {
    BaseLib::Logger::LogLevel level;
    std::string text;  // without time, thread, level and place
    bool operator==(const Line&) const = default;
  };

  explicit LogCapture(BaseLib::Logger::LogLevel threshold = BaseLib::Logger::DEBUG);
  ~LogCapture();

  std::vector<Line> take();                                                   // all lines since the last call
  int count(BaseLib::Logger::LogLevel level, const std::string& text) const;  // whole texts
  int count_containing(const std::string& part) const;
  void clear() { take(); }
};

std::ostream& operator<<(std::ostream& out, const LogCapture::Line& line);

// A folder that goes when the object does.
class TempDir : NoCopy {
 public:
  TempDir();
  ~TempDir();

  // Writes a file and returns its path.
  std::string write(const std::string& name, const std::string& content) const;
  std::string path(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// The two configuration files of a host. `common` and `server` are lines for those sections.
class HostConfig {
 public:
  explicit HostConfig(const std::string& common, const std::string& server = "");
  const char* path() const { return path_.c_str(); }

 private:
  TempDir dir_;
  std::string path_;
};

// Lines for section `common`: all three pools at the given servers, and short time-outs.
std::string all_pools_at(const std::string& addrs);

// Keeps the progress lines of start-up out of the output while it lives.
class QuietConsole : NoCopy {
 public:
  QuietConsole();
  ~QuietConsole();

 private:
  int console_;
};

int open_descriptors();

#endif

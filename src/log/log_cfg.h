/// @file
/// Configuration of log sinks. For hosts: the library itself creates none of these.
#ifndef RUVO_LOG_CFG_H
#define RUVO_LOG_CFG_H

#include <string>
#include <vector>

#include "log_mutex.h"  // LOG_HANDLE

/// A configuration that a sink can keep for its user. What it provides is up to the host.
class Log_Cfg {
 public:
  virtual ~Log_Cfg() = 0;
};

inline Log_Cfg::~Log_Cfg() {}

/// Base of the holders that keep their values in memory.
class Log_Cfg_Heap {
 public:
  virtual ~Log_Cfg_Heap() {}
};

/// A registry-like holder: a root, a file and named values. Its operations are only declared; a
/// host that needs them defines them.
class Log_Cfg_Heap_Reg : public Log_Cfg_Heap {
 public:
  /// Creates a holder without a root.
  Log_Cfg_Heap_Reg() : handle_(nullptr), ini_(false) {}
  /// Closes nothing: the handle belongs to its user.
  ~Log_Cfg_Heap_Reg() override { handle_ = nullptr; }

  int open(const char* root, const char* file);                ///< for the host to define
  int close();                                                 ///< for the host to define
  int get_string_value(const char* name, std::string& value);  ///< for the host to define
  int enum_values(std::vector<std::string>& names);            ///< for the host to define
  int get_string_arr(const char* name,
                     std::vector<std::string>& values);  ///< for the host to define

 protected:
  std::string root_;   ///< location of the values
  std::string file_;   ///< file that contains the values
  LOG_HANDLE handle_;  ///< system handle, or null
  bool ini_;           ///< are the values in the file?
};

#endif

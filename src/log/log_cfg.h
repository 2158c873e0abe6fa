/// @file
/// Configuration of log sinks. Parts for hosts: the library itself creates none of them.
#ifndef RUVO_LOG_CFG_H
#define RUVO_LOG_CFG_H

#include <string>
#include <vector>

#include "log_mutex.h"  // LOG_HANDLE

/// What a sink may be given to keep for its user. What a configuration offers is its own affair.
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

/// A holder in the manner of a registry: a root, a file, named values. Its operations are declared
/// only: a host that wants them defines them.
class Log_Cfg_Heap_Reg : public Log_Cfg_Heap {
 public:
  /// A holder without a root.
  Log_Cfg_Heap_Reg() : handle_(nullptr), ini_(false) {}
  /// Closes nothing: the handle is its user's.
  ~Log_Cfg_Heap_Reg() override { handle_ = nullptr; }

  int open(const char* root, const char* file);                ///< for the host to define
  int close();                                                 ///< for the host to define
  int get_string_value(const char* name, std::string& value);  ///< for the host to define
  int enum_values(std::vector<std::string>& names);            ///< for the host to define
  int get_string_arr(const char* name,
                     std::vector<std::string>& values);  ///< for the host to define

 protected:
  std::string root_;   ///< where the values are
  std::string file_;   ///< the file with the values
  LOG_HANDLE handle_;  ///< the system's object, or null
  bool ini_;           ///< does the file hold the values?
};

#endif

// The library's lifetime in the tool, and the options that every command gets.
#ifndef RUVO_TOOLS_CLI_LIBRARY_H
#define RUVO_TOOLS_CLI_LIBRARY_H

#include <ruvo/ruvo.hpp>

#include <array>
#include <string>

#include "exit_status.h"

// The options before the command.
struct Options {
  std::string config;
  int pool = eTempServer;
  bool json = false;
};

// By RedisServerType, from 1.
inline constexpr std::array pool_names{"temp", "persist", "personality"};
inline const char* pool_name(int pool) { return pool_names.at(static_cast<std::size_t>(pool - 1)); }

// A result of RUVO_Init in words.
const char* start_text(int result);

// Starts the library, and ends it with its own lifetime.
class Library {
 public:
  explicit Library(const std::string& config);

  int result() const { return library_.code(); }
  bool is_ready() const;
  void require_ready() const;  // throws Failure, which names a file that cannot be used

 private:
  std::string config_;
  ruvo::library library_;
};

#endif

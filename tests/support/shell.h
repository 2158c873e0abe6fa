// Programs, run as an operator runs them.
#ifndef RUVO_TESTS_SHELL_H
#define RUVO_TESTS_SHELL_H

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

struct ProgramResult {
  int status;
  std::string output;  // standard output, followed by standard error if requested
};

inline ProgramResult shell(const std::string& command) {
  // NOLINTNEXTLINE(cert-env33-c): the commands of the tests
  FILE* pipe = popen(command.c_str(), "re");
  std::string output;
  std::array<char, 4096> part{};
  for (std::size_t length = 1; length > 0; output.append(part.data(), length)) {
    length = fread(part.data(), 1, part.size(), pipe);
  }
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

#endif

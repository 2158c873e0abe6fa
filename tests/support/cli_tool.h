// ruvo_cli, run as an operator runs it.
#ifndef RUVO_TESTS_CLI_TOOL_H
#define RUVO_TESTS_CLI_TOOL_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fixtures.h"
#include "shell.h"

// The tool with a configuration of its own.
class Tool {
 public:
  explicit Tool(const std::string& common, const std::string& server = "")
      : config_(common, server) {}
  std::string command(const std::string& arguments) const {
    return std::string(RUVO_CLI) + " --config " + config_.path() + " " + arguments;
  }
  ProgramResult run(const std::string& arguments) const {
    return shell(command(arguments) + " 2>&1");
  }
  std::string path() const { return config_.path(); }

 private:
  HostConfig config_;
};

inline void expect_result(const ProgramResult& run, const std::string& arguments, int status,
                          const std::vector<std::string>& output_parts) {
  EXPECT_EQ(run.status, status) << arguments << "\n" << run.output;
  for (const std::string& part : output_parts) {
    EXPECT_NE(run.output.find(part), std::string::npos) << arguments << ": " << part << "\n"
                                                        << run.output;
  }
}

inline void expect_output(const Tool& tool, const std::string& arguments, int status,
                          const std::vector<std::string>& parts) {
  expect_result(tool.run(arguments), arguments, status, parts);
}

#endif

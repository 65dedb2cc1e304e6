#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vellum::testing {

// The project's process runner, shaped for assertions.
struct ProcessResult {
  int exitCode = -1;  // 128 + signal when killed by a signal
  std::string out;
  std::string err;
};

// Runs a program with the given text on its standard input; extraEnvironment
// holds "NAME=value" entries.
ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input = {},
                         const std::vector<std::string>& extraEnvironment = {});

// Runs a program on a pseudo-terminal (stdin, stdout and stderr all on it).
// onOutput sees everything printed so far and may write to the terminal or
// signal the child (it gets the child's pid); returns the exit code and the
// whole output.
ProcessResult runOnTerminal(
    const std::vector<std::string>& argv,
    const std::function<void(const std::string& output, int pid, int terminal)>& onOutput);

}  // namespace vellum::testing

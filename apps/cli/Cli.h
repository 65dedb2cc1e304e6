#pragma once

#include <string>
#include <vector>

namespace vellum::cli {

// Exit codes of vellum-check.
enum ExitCode : int {
  kGoodVerdict = 0,  // the check ran and its verdict is good
  kBadVerdict = 1,   // the check ran and its verdict is not good
  kUsage = 2,        // the command was called wrongly
  kCouldNotRun = 3,  // the check could not run (the error's text on stderr)
  kCancelled = 130,  // stopped by Ctrl-C or SIGTERM
};

// Runs one command line (without the program name); returns the exit code.
int run(const std::vector<std::string>& arguments);

}  // namespace vellum::cli

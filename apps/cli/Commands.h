#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Options.h"
#include "session/Session.h"
#include "summary/ResultSummary.h"

namespace vellum::cli {

// One subcommand: its name, a usage line for --help, and what runs it. run
// receives the words after the command name and returns the exit code; it may
// throw UsageError or any vellum::Error (reported by the dispatcher).
struct Command {
  std::string_view name;
  std::string_view usage;
  std::string_view summary;
  int (*run)(const std::vector<std::string>& words);
  // The options and their defaults, for COMMAND --help.
  std::string_view options = {};
};

int runQuick(const std::vector<std::string>& words);
int runFull(const std::vector<std::string>& words);
int runHealth(const std::vector<std::string>& words);
int runImage(const std::vector<std::string>& words);
int runList(const std::vector<std::string>& words);
int runFormat(const std::vector<std::string>& words);
int runWipe(const std::vector<std::string>& words);
int runCarve(const std::vector<std::string>& words);
int runExport(const std::vector<std::string>& words);
int runRestore(const std::vector<std::string>& words);

// Prints a JSON value as one line on stdout.
void printJson(const nlohmann::json& value);
// Prints a result as the application shows it; an image file (no card) gets
// an "Image file" row naming it.
void printSummary(ResultSummary summary, bool hasCard, const std::string& argument);

// Runs ACTION on TARGET through the session (--backup, --force, --confirm and
// --json as the command knows them; configure adds the rest), prints the
// outcome and returns the exit code of its verdict.
int runAction(CheckAction action, const std::string& argument, const Options& options,
              const std::function<void(RunRequest&)>& configure);

}  // namespace vellum::cli

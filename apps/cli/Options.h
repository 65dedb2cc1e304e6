#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "bytes/Error.h"

namespace vellum::cli {

// A mistake in how the command was called (exit code 2).
class UsageError final : public Error {
 public:
  explicit UsageError(std::string message) : Error(std::move(message)) {}
};

// The words after the command name: flags (--json), options with a value
// (--confirm erase or --confirm=erase) and positional arguments.
class Options {
 public:
  // Throws UsageError for an unknown option, a missing value, or a positional
  // count outside [minPositional, maxPositional].
  Options(const std::vector<std::string>& words, const std::set<std::string>& flags,
          const std::set<std::string>& valued, std::size_t minPositional,
          std::size_t maxPositional);

  bool has(const std::string& flag) const { return flags_.contains(flag); }
  std::optional<std::string> value(const std::string& option) const;
  const std::vector<std::string>& positional() const { return positional_; }

 private:
  std::set<std::string> flags_;
  std::map<std::string, std::string> values_;
  std::vector<std::string> positional_;
};

}  // namespace vellum::cli

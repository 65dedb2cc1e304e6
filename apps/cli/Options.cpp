#include "Options.h"

namespace vellum::cli {

Options::Options(const std::vector<std::string>& words, const std::set<std::string>& flags,
                 const std::set<std::string>& valued, std::size_t minPositional,
                 std::size_t maxPositional) {
  bool onlyPositional = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (onlyPositional || word.size() < 2 || word.rfind("--", 0) != 0) {
      if (!onlyPositional && word.size() > 1 && word[0] == '-' && word != "-") {
        throw UsageError("unknown option " + word + ".");
      }
      positional_.push_back(word);
      continue;
    }
    if (word == "--") {
      onlyPositional = true;
      continue;
    }
    const std::size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    if (flags.contains(name)) {
      if (equals != std::string::npos) throw UsageError(name + " takes no value.");
      flags_.insert(name);
    } else if (valued.contains(name)) {
      if (equals != std::string::npos) {
        values_[name] = word.substr(equals + 1);
      } else if (i + 1 < words.size()) {
        values_[name] = words[++i];
      } else {
        throw UsageError(name + " needs a value.");
      }
    } else {
      throw UsageError("unknown option " + name + ".");
    }
  }
  if (positional_.size() < minPositional) throw UsageError("missing arguments.");
  if (positional_.size() > maxPositional) {
    throw UsageError("unexpected argument " + positional_[maxPositional] + ".");
  }
}

std::optional<std::string> Options::value(const std::string& option) const {
  const auto it = values_.find(option);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

}  // namespace vellum::cli

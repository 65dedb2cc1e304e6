#include "summary/SummaryText.h"

#include <algorithm>

namespace vellum {

std::string renderText(const ResultSummary& summary) {
  std::string text = summary.headline + "\n";
  if (!summary.explanation.empty()) text += "\n" + summary.explanation + "\n";

  if (!summary.facts.empty()) {
    // Labels are fixed ASCII texts, so their byte length is their width.
    std::size_t width = 0;
    for (const ResultSummary::Fact& fact : summary.facts) {
      width = std::max(width, fact.label.size());
    }
    text += "\n";
    for (const ResultSummary::Fact& fact : summary.facts) {
      text +=
          fact.label + ":" + std::string(width - fact.label.size() + 1, ' ') + fact.value + "\n";
    }
  }

  if (!summary.advice.empty()) {
    text += "\n";
    for (const std::string& line : summary.advice)
      text += "- " + line + "\n";
  }
  return text;
}

}  // namespace vellum

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "summary/Card.h"
#include "summary/CheckAction.h"

namespace vellum {

// Everything the result screen and the saved report show about one finished
// action: a verdict headline with tone and symbol, one explanation, facts,
// advice, an optional speed chart and whether to offer formatting. All the
// wording of the verdicts lives here.
struct ResultSummary {
  enum class Tone { good, warning, bad };

  struct Fact {
    std::string label;
    std::string value;
    bool operator==(const Fact&) const = default;
  };

  Tone tone = Tone::good;
  std::string symbol = "checkmark.seal.fill";  // name of the icon beside the headline
  std::string headline;
  std::string explanation;
  std::vector<Fact> facts;
  std::vector<std::string> advice;
  std::vector<double> speedCurve;  // MB/s per slice of the run; empty for no chart
  std::string speedCurveTitle;
  bool suggestsFormat = false;

  // Pure: no input or output, never fails. The card, when given, adds a
  // "Card" or "Drive" row at the top of the facts and picks the noun.
  ResultSummary(const CheckOutcome& outcome, const std::optional<Card>& card);

  bool operator==(const ResultSummary&) const = default;
};

// "good", "warning" or "bad".
std::string_view rawValue(ResultSummary::Tone tone);

}  // namespace vellum

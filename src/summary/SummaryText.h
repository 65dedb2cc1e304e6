#pragma once

#include <string>

#include "summary/ResultSummary.h"

namespace vellum {

// The summary laid out for a terminal: the headline, a blank line, the
// explanation, then the facts as "Label: value" lines with the values
// aligned, then each advice line as a "- " bullet. Sections that are empty
// are left out with their blank line. Ends with a newline.
std::string renderText(const ResultSummary& summary);

}  // namespace vellum

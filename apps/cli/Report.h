#pragma once

#include <string>

#include "session/Session.h"

namespace vellum::cli {

// Saves the outcome as the one-page PDF the application saves: a report, or
// a certificate of erasure for a wipe. PATH may be a folder: the file then
// gets the name the application proposes. An existing file is never
// replaced. Says on stderr where it went. Throws RunError when it can't.
void saveReport(const std::string& path, const CheckOutcome& outcome, CheckAction action,
                const RunTarget& target);

}  // namespace vellum::cli

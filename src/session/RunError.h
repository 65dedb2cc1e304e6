#pragma once

#include <string>

#include "bytes/Error.h"

namespace vellum {

namespace run_error {
// The user stopped the run; whatItLeft says what that left on the card.
struct Cancelled {
  std::string whatItLeft;
  bool operator==(const Cancelled&) const = default;
};
// The user did not type the confirmation word: nothing was written.
struct NotConfirmed {
  bool operator==(const NotConfirmed&) const = default;
};
// The card may not be used as asked (the guard, the opener, a bad backup
// destination). Nothing was written.
struct Refused {
  std::string message;
  bool operator==(const Refused&) const = default;
};
// A disk over 4 TB that only a Quick Check proving it fake unlocks.
struct NeedsQuickCheck {
  std::string disk;
  std::string message;
  bool operator==(const NeedsQuickCheck&) const = default;
};
// The backup before erasing failed. Nothing was erased.
struct BackupFailed {
  std::string reason;
  bool operator==(const BackupFailed&) const = default;
};
// Reading or writing the card failed in a way a test cannot count (the card
// is failing, write-protected or was removed).
struct DeviceFailing {
  std::string message;
  bool operator==(const DeviceFailing&) const = default;
};
// Anything else that ended the run: a failed restore or format, a search for
// recoverable files that could not run.
struct Failed {
  std::string message;
  bool operator==(const Failed&) const = default;
};
}  // namespace run_error

// How a run ended when it gave no outcome. The description is the sentence
// the application shows; the case lets a front end tell the kinds apart.
class RunError final
    : public ErrorOf<run_error::Cancelled, run_error::NotConfirmed, run_error::Refused,
                     run_error::NeedsQuickCheck, run_error::BackupFailed, run_error::DeviceFailing,
                     run_error::Failed> {
 public:
  using Cancelled = run_error::Cancelled;
  using NotConfirmed = run_error::NotConfirmed;
  using Refused = run_error::Refused;
  using NeedsQuickCheck = run_error::NeedsQuickCheck;
  using BackupFailed = run_error::BackupFailed;
  using DeviceFailing = run_error::DeviceFailing;
  using Failed = run_error::Failed;

  explicit RunError(Case errorCase);
};

}  // namespace vellum

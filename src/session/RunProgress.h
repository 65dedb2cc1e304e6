#pragma once

#include <optional>
#include <vector>

#include "checks/CheckTypes.h"
#include "summary/CheckAction.h"

namespace vellum {

// One run's progress as a whole, from the progress records of its phases:
// which step of how many, one fraction of the whole run that never goes
// back, and an estimate of the time left. The phases follow from the action
// and whether a backup is read first. Times are seconds since the run began.
class RunProgress {
 public:
  RunProgress(CheckAction action, bool backupFirst);

  struct Overall {
    int step = 1;  // counted from 1
    int steps = 1;
    double fraction = 0;  // of the whole run
    std::optional<double> secondsLeft;
    bool operator==(const Overall&) const = default;
  };

  // Takes a record that arrived `seconds` into the run.
  void update(const CheckProgress& progress, double seconds);
  const Overall& overall() const { return overall_; }
  // The phase the current step belongs to; none before the first record.
  std::optional<CheckProgress::Phase> phase() const;

 private:
  struct Step {
    CheckProgress::Phase phase;
    double weight;  // its share of the run's time, about
  };
  std::vector<Step> steps_;
  std::optional<std::size_t> current_;
  Overall overall_;
  // The smoothed pace, in fractions of the run per second, and the point it
  // was last measured from.
  std::optional<double> pace_;
  double paceFraction_ = 0;
  double paceSeconds_ = 0;
};

}  // namespace vellum

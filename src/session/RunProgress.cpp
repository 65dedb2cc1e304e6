#include "session/RunProgress.h"

#include <algorithm>
#include <numeric>

namespace vellum {
namespace {

using Phase = CheckProgress::Phase;

// A pace measured over less than this is mostly noise.
constexpr double kPaceInterval = 1.0;
// Each new measurement's share of the smoothed pace.
constexpr double kPaceWeight = 0.3;
// No estimate before this far in: the first seconds' pace says little.
constexpr double kFirstEstimateSeconds = 3.0;

}  // namespace

RunProgress::RunProgress(CheckAction action, bool backupFirst) {
  // A backup reads the whole card once, like each pass of the erasing
  // actions; a Quick Check spends most of its minute on its test points.
  if (backupFirst && erases(action)) steps_.push_back({Phase::reading, 1});
  switch (action) {
    case CheckAction::quick:
      steps_.insert(steps_.end(),
                    {{Phase::probing, 0.75}, {Phase::restoring, 0.1}, {Phase::reading, 0.15}});
      break;
    case CheckAction::full:
      steps_.insert(steps_.end(), {{Phase::writing, 1}, {Phase::verifying, 1}});
      break;
    case CheckAction::health:
      steps_.push_back({Phase::reading, 1});
      break;
    case CheckAction::wipe:
      steps_.insert(steps_.end(),
                    {{Phase::wiping, 1}, {Phase::verifying, 1}, {Phase::scanningForFiles, 1}});
      break;
    case CheckAction::format:
      break;
  }
  overall_.steps = std::max<int>(1, static_cast<int>(steps_.size()));
}

std::optional<CheckProgress::Phase> RunProgress::phase() const {
  if (!current_) return std::nullopt;
  return steps_[*current_].phase;
}

void RunProgress::update(const CheckProgress& progress, double seconds) {
  // The step is the next one with this phase from the current one on, so a
  // phase that comes twice (reading for the backup, then for the check)
  // moves on, and a late record of an earlier phase never moves back.
  const std::size_t from = current_.value_or(0);
  const auto found = std::find_if(steps_.begin() + static_cast<std::ptrdiff_t>(from), steps_.end(),
                                  [&](const Step& step) { return step.phase == progress.phase; });
  if (found == steps_.end()) return;
  const auto index = static_cast<std::size_t>(found - steps_.begin());
  current_ = index;
  overall_.step = static_cast<int>(index) + 1;

  const double total =
      std::accumulate(steps_.begin(), steps_.end(), 0.0,
                      [](double sum, const Step& step) { return sum + step.weight; });
  const double before = std::accumulate(
      steps_.begin(), found, 0.0, [](double sum, const Step& step) { return sum + step.weight; });
  const double fraction = (before + found->weight * progress.fraction()) / total;
  overall_.fraction = std::clamp(std::max(overall_.fraction, fraction), 0.0, 1.0);

  // The time left is what remains of the run at its smoothed pace.
  if (seconds - paceSeconds_ >= kPaceInterval) {
    const double pace = (overall_.fraction - paceFraction_) / (seconds - paceSeconds_);
    pace_ = pace_ ? (1 - kPaceWeight) * *pace_ + kPaceWeight * pace : pace;
    paceFraction_ = overall_.fraction;
    paceSeconds_ = seconds;
  }
  overall_.secondsLeft.reset();
  if (pace_ && *pace_ > 0 && seconds >= kFirstEstimateSeconds) {
    overall_.secondsLeft = (1 - overall_.fraction) / *pace_;
  }
}

}  // namespace vellum

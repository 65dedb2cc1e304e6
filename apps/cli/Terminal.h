#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "checks/CheckTypes.h"

namespace vellum::cli {

// A live one-line progress display on stderr: phase, percent, speed and time
// left. Shows nothing when stderr is not a terminal.
class ProgressLine {
 public:
  ProgressLine();
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void update(const CheckProgress& progress);
  // Clears the line so that the next output starts on a clean line.
  void finish();
  // The callback to hand to a check.
  ProgressCallback callback() {
    return [this](const CheckProgress& progress) { update(progress); };
  }

  // The text shown for one progress record, given seconds left (if known).
  static std::string render(const CheckProgress& progress, std::optional<double> secondsLeft);

 private:
  using Clock = std::chrono::steady_clock;
  bool enabled_;
  bool shown_ = false;
  std::optional<CheckProgress::Phase> phase_;
  Clock::time_point phaseStart_{};
  std::uint64_t phaseStartCompleted_ = 0;
  Clock::time_point lastDraw_{};
};

// Routes SIGINT, SIGTERM, SIGHUP and SIGQUIT to a cancellation flag while
// alive, so Ctrl-C (or closing the terminal) stops a check at its next step
// (a Quick Check still puts the data back).
class SignalCancellation {
 public:
  explicit SignalCancellation(CancellationFlag& flag);
  ~SignalCancellation();
  SignalCancellation(const SignalCancellation&) = delete;
  SignalCancellation& operator=(const SignalCancellation&) = delete;
};

bool stdinIsTerminal();
bool stderrIsTerminal();

}  // namespace vellum::cli

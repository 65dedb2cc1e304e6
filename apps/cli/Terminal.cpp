#include "Terminal.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <iterator>

#include "summary/TextFormat.h"

namespace vellum::cli {
namespace {

std::atomic<CancellationFlag*> signalTarget{nullptr};
// Ctrl-C, kill, a closed terminal and Ctrl-\ all stop a check the same way.
constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
struct sigaction previous[std::size(kStopSignals)]{};

extern "C" void onSignal(int) {
  // CancellationFlag::cancel() is a lock-free atomic store: async-signal-safe.
  if (CancellationFlag* flag = signalTarget.load()) flag->cancel();
}

const char* phaseText(CheckProgress::Phase phase) {
  switch (phase) {
    case CheckProgress::Phase::probing:
      return "Testing points";
    case CheckProgress::Phase::restoring:
      return "Putting your data back";
    case CheckProgress::Phase::writing:
      return "Writing";
    case CheckProgress::Phase::verifying:
      return "Verifying";
    case CheckProgress::Phase::reading:
      return "Reading";
    case CheckProgress::Phase::wiping:
      return "Wiping";
    case CheckProgress::Phase::scanningForFiles:
      return "Scanning for files";
  }
  return "";
}

}  // namespace

bool stdinIsTerminal() {
  return ::isatty(STDIN_FILENO) == 1;
}
bool stderrIsTerminal() {
  return ::isatty(STDERR_FILENO) == 1;
}

ProgressLine::ProgressLine() : enabled_(stderrIsTerminal()) {}

ProgressLine::~ProgressLine() {
  finish();
}

std::string ProgressLine::render(const CheckProgress& progress, std::optional<double> secondsLeft) {
  std::string line = phaseText(progress.phase);
  char percent[16];
  std::snprintf(percent, sizeof percent, " %3d%%",
                static_cast<int>(std::floor(progress.fraction() * 100)));
  line += percent;
  if (progress.bytesPerSecond && *progress.bytesPerSecond > 0) {
    line += "  " + speedText(*progress.bytesPerSecond / 1e6);
  }
  if (secondsLeft) line += "  " + durationText(*secondsLeft) + " left";
  return line;
}

void ProgressLine::update(const CheckProgress& progress) {
  if (!enabled_) return;
  const Clock::time_point now = Clock::now();
  if (phase_ != progress.phase) {
    phase_ = progress.phase;
    phaseStart_ = now;
    phaseStartCompleted_ = progress.completed;
  }
  const bool last = progress.total > 0 && progress.completed >= progress.total;
  if (shown_ && !last && now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;

  // Time left from this phase's own pace, once there is enough of it to trust.
  std::optional<double> secondsLeft;
  const double elapsed = std::chrono::duration<double>(now - phaseStart_).count();
  const std::uint64_t done =
      progress.completed - std::min(progress.completed, phaseStartCompleted_);
  if (elapsed >= 1.0 && done > 0 && progress.total > progress.completed) {
    secondsLeft = static_cast<double>(progress.total - progress.completed) * elapsed /
                  static_cast<double>(done);
  }
  std::fprintf(stderr, "\r\033[K%s", render(progress, secondsLeft).c_str());
  std::fflush(stderr);
  shown_ = true;
}

void ProgressLine::finish() {
  if (!shown_) return;
  std::fprintf(stderr, "\r\033[K");
  std::fflush(stderr);
  shown_ = false;
  phase_.reset();
}

SignalCancellation::SignalCancellation(CancellationFlag& flag) {
  signalTarget.store(&flag);
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  // SA_RESTART: a blocking read or write resumes; the check notices the flag
  // at its next step instead of seeing a failed transfer.
  action.sa_flags = SA_RESTART;
  for (std::size_t i = 0; i < std::size(kStopSignals); ++i)
    sigaction(kStopSignals[i], &action, &previous[i]);
}

SignalCancellation::~SignalCancellation() {
  for (std::size_t i = 0; i < std::size(kStopSignals); ++i)
    sigaction(kStopSignals[i], &previous[i], nullptr);
  signalTarget.store(nullptr);
}

}  // namespace vellum::cli

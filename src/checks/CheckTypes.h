#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>
#include <vector>

#include "bytes/Error.h"

namespace vellum {

// One progress record of a running check.
struct CheckProgress {
  enum class Phase { probing, restoring, writing, verifying, reading, wiping, scanningForFiles };

  Phase phase = Phase::probing;
  std::uint64_t completed = 0;  // units done in this phase (bytes, or test points)
  std::uint64_t total = 0;
  std::optional<double> bytesPerSecond;

  // 0 when total is 0, else completed / total capped at 1.
  double fraction() const;
  bool operator==(const CheckProgress&) const = default;
};

std::string_view toString(CheckProgress::Phase phase);

// Called on the check's own thread; must be safe to call from there.
using ProgressCallback = std::function<void(const CheckProgress&)>;

namespace check_error {
struct RestoreFailed {
  std::uint64_t offset;
  bool operator==(const RestoreFailed&) const = default;
};
struct Cancelled {
  bool operator==(const Cancelled&) const = default;
};
struct DeviceTooSmall {
  bool operator==(const DeviceTooSmall&) const = default;
};
}  // namespace check_error

// The errors that end a check (medium failures are counted, not thrown).
class CheckError final : public ErrorOf<check_error::RestoreFailed, check_error::Cancelled,
                                        check_error::DeviceTooSmall> {
 public:
  using RestoreFailed = check_error::RestoreFailed;
  using Cancelled = check_error::Cancelled;
  using DeviceTooSmall = check_error::DeviceTooSmall;

  explicit CheckError(Case errorCase);

  static CheckError restoreFailed(std::uint64_t offset) {
    return CheckError(RestoreFailed{offset});
  }
  static CheckError cancelled() { return CheckError(Cancelled{}); }
  static CheckError deviceTooSmall() { return CheckError(DeviceTooSmall{}); }
};

// Set from another thread (or a signal handler) to stop a run at its next
// check. Never cleared: each run takes a new flag. Lock-free, so cancel() is
// safe to call from a signal handler.
class CancellationFlag {
 public:
  void cancel() noexcept { cancelled_.store(true, std::memory_order_relaxed); }
  bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_relaxed); }
  // Throws CheckError::cancelled() when set.
  void throwIfCancelled() const;

 private:
  std::atomic<bool> cancelled_{false};
  static_assert(std::atomic<bool>::is_always_lock_free);
};

// A series of speed samples (MB/s, 1 MB = 10^6 bytes) in time order.
struct SpeedSummary {
  double averageMBps = 0;
  double sustainedMBps = 0;  // reached or exceeded by 90% of samples
  double minimumMBps = 0;
  std::vector<double> curve;  // at most about 200 to 399 points, for charts

  SpeedSummary() = default;
  explicit SpeedSummary(const std::vector<double>& samplesMBps);
  bool operator==(const SpeedSummary&) const = default;
};

enum class SpeedClass { class2, class4, class6, class10, v30, v60, v90 };

inline constexpr SpeedClass kAllSpeedClasses[] = {
    SpeedClass::class2, SpeedClass::class4, SpeedClass::class6, SpeedClass::class10,
    SpeedClass::v30,    SpeedClass::v60,    SpeedClass::v90};

// The label, such as "Class 10 / U1 / V10".
std::string_view rawValue(SpeedClass speedClass);
double minimumMBps(SpeedClass speedClass);
std::string_view suitableFor(SpeedClass speedClass);
// The highest class whose minimum the speed reaches; none below 2 MB/s.
std::optional<SpeedClass> highestMet(double mbps);

// Seconds on a monotonic clock. Runs that time transfers take one of these so
// tests can control the speeds they measure; an empty one means
// monotonicSeconds().
using SecondsClock = std::function<double()>;
double monotonicSeconds();
// The clock's reading, or monotonicSeconds() when clock is empty.
double secondsNow(const SecondsClock& clock);

// Uniform in 1 ... 2^64 - 1 from the system's random source.
std::uint64_t randomNonZeroSeed();

void to_json(nlohmann::json& json, const CheckProgress& progress);
void to_json(nlohmann::json& json, const SpeedSummary& summary);
void to_json(nlohmann::json& json, SpeedClass speedClass);

}  // namespace vellum

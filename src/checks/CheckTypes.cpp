#include "checks/CheckTypes.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <nlohmann/json.hpp>
#include <numeric>
#include <type_traits>

#include "bytes/Precondition.h"

namespace vellum {

double CheckProgress::fraction() const {
  if (total == 0) return 0;
  return std::min(1.0, static_cast<double>(completed) / static_cast<double>(total));
}

std::string_view toString(CheckProgress::Phase phase) {
  switch (phase) {
    case CheckProgress::Phase::probing:
      return "probing";
    case CheckProgress::Phase::restoring:
      return "restoring";
    case CheckProgress::Phase::writing:
      return "writing";
    case CheckProgress::Phase::verifying:
      return "verifying";
    case CheckProgress::Phase::reading:
      return "reading";
    case CheckProgress::Phase::wiping:
      return "wiping";
    case CheckProgress::Phase::scanningForFiles:
      return "scanningForFiles";
  }
  VL_PRECONDITION(false);
}

namespace {

std::string describe(const CheckError::Case& errorCase) {
  return std::visit(
      [](const auto& c) -> std::string {
        using C = std::decay_t<decltype(c)>;
        if constexpr (std::is_same_v<C, CheckError::RestoreFailed>) {
          return "Couldn't put back the original data at offset " + std::to_string(c.offset) +
                 ". The card may be failing; copy anything important off it now.";
        } else if constexpr (std::is_same_v<C, CheckError::Cancelled>) {
          return "The test was stopped.";
        } else {
          return "The device is too small to test.";
        }
      },
      errorCase);
}

}  // namespace

CheckError::CheckError(Case errorCase) : ErrorOf(errorCase, describe(errorCase)) {}

void CancellationFlag::throwIfCancelled() const {
  if (isCancelled()) throw CheckError::cancelled();
}

SpeedSummary::SpeedSummary(const std::vector<double>& samples) {
  const std::size_t n = samples.size();
  if (n == 0) return;
  averageMBps = std::accumulate(samples.begin(), samples.end(), 0.0) / static_cast<double>(n);
  std::vector<double> sorted = samples;
  std::sort(sorted.begin(), sorted.end());
  minimumMBps = sorted.front();
  sustainedMBps = sorted[static_cast<std::size_t>(static_cast<double>(n - 1) * 0.1)];
  const std::size_t bucket = n < 200 ? 1 : n / 200;
  curve.reserve(n / bucket + 1);
  for (std::size_t start = 0; start < n; start += bucket) {
    const std::size_t end = std::min(n, start + bucket);
    const double sum = std::accumulate(samples.begin() + static_cast<std::ptrdiff_t>(start),
                                       samples.begin() + static_cast<std::ptrdiff_t>(end), 0.0);
    curve.push_back(sum / static_cast<double>(end - start));
  }
}

std::string_view rawValue(SpeedClass speedClass) {
  switch (speedClass) {
    case SpeedClass::class2:
      return "Class 2";
    case SpeedClass::class4:
      return "Class 4";
    case SpeedClass::class6:
      return "Class 6";
    case SpeedClass::class10:
      return "Class 10 / U1 / V10";
    case SpeedClass::v30:
      return "U3 / V30";
    case SpeedClass::v60:
      return "V60";
    case SpeedClass::v90:
      return "V90";
  }
  VL_PRECONDITION(false);
}

double minimumMBps(SpeedClass speedClass) {
  switch (speedClass) {
    case SpeedClass::class2:
      return 2;
    case SpeedClass::class4:
      return 4;
    case SpeedClass::class6:
      return 6;
    case SpeedClass::class10:
      return 10;
    case SpeedClass::v30:
      return 30;
    case SpeedClass::v60:
      return 60;
    case SpeedClass::v90:
      return 90;
  }
  VL_PRECONDITION(false);
}

std::string_view suitableFor(SpeedClass speedClass) {
  switch (speedClass) {
    case SpeedClass::class2:
    case SpeedClass::class4:
    case SpeedClass::class6:
      return "standard-definition video and photos";
    case SpeedClass::class10:
      return "Full HD video";
    case SpeedClass::v30:
      return "4K video at typical bitrates";
    case SpeedClass::v60:
      return "high-bitrate 4K and burst photography";
    case SpeedClass::v90:
      return "8K and high-bitrate professional video";
  }
  VL_PRECONDITION(false);
}

std::optional<SpeedClass> highestMet(double mbps) {
  for (auto it = std::rbegin(kAllSpeedClasses); it != std::rend(kAllSpeedClasses); ++it) {
    if (minimumMBps(*it) <= mbps) return *it;
  }
  return std::nullopt;
}

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double secondsNow(const SecondsClock& clock) {
  return clock ? clock() : monotonicSeconds();
}

std::uint64_t randomNonZeroSeed() {
  std::uint64_t value = 0;
  while (value == 0) {
    const ssize_t n = ::getrandom(&value, sizeof value, 0);
    if (n != static_cast<ssize_t>(sizeof value)) {
      // getrandom only fails when interrupted before the pool is ready.
      VL_PRECONDITION(n < 0 && errno == EINTR);
      value = 0;
    }
  }
  return value;
}

void to_json(nlohmann::json& json, const CheckProgress& progress) {
  json = {{"phase", toString(progress.phase)},
          {"completed", progress.completed},
          {"total", progress.total}};
  if (progress.bytesPerSecond) json["bytesPerSecond"] = *progress.bytesPerSecond;
}

void to_json(nlohmann::json& json, const SpeedSummary& summary) {
  json = {{"averageMBps", summary.averageMBps},
          {"sustainedMBps", summary.sustainedMBps},
          {"minimumMBps", summary.minimumMBps},
          {"curve", summary.curve}};
}

void to_json(nlohmann::json& json, SpeedClass speedClass) {
  json = rawValue(speedClass);
}

}  // namespace vellum

#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string_view>

#include "checks/CheckTypes.h"
#include "devices/BlockDevice.h"

namespace vellum {

// Erases a card and proves it: overwrites every whole block with zeros or
// pseudo-random data, reads everything back to confirm each chunk holds what
// was written, then runs the recovery engine over the card and counts the
// files it can still find.
struct Wipe {
  enum class Method { zeros, random };

  Method method = Method::zeros;
  // Bytes per write and read; rounded down to whole device blocks (at least
  // one). REQUIRES: > 0.
  std::int64_t chunkBytes = 8'388'608;
  // Times the writes; empty means the monotonic clock.
  SecondsClock clock;

  struct Result {
    Method method = Method::zeros;
    std::uint64_t bytesOverwritten = 0;
    std::int64_t writeErrors = 0;
    std::uint64_t blocksNotErased = 0;
    std::int64_t recoverableFilesFound = 0;
    SpeedSummary write;
    std::chrono::system_clock::time_point startedAt;
    double duration = 0;  // seconds for the whole run
    bool operator==(const Result&) const = default;

    // Anything left that might hold the old data.
    bool isComplete() const noexcept {
      return writeErrors == 0 && blocksNotErased == 0 && recoverableFilesFound == 0;
    }
  };

  // Runs on the calling thread; progress is reported there too. Failed
  // writes, failed reads and mismatches are counted. Throws CheckError
  // (cancelled, also during the carving pass), WriteError from synchronize(),
  // and what the recovery engine throws (CarveError, DeviceError,
  // std::filesystem::filesystem_error). The scratch folder for carved files
  // is gone when run() returns or throws.
  Result run(BlockDevice& device, const CancellationFlag& cancel,
             const ProgressCallback& progress = {}) const;
};

// "zeros" or "random".
std::string_view rawValue(Wipe::Method method);
std::optional<Wipe::Method> wipeMethodFromRawValue(std::string_view text);
// "One pass of zeros" or "One pass of random data".
std::string_view displayName(Wipe::Method method);

// Field names as keys, the method as its raw value and startedAt as ISO 8601
// UTC text ("2026-03-01T12:00:05Z").
void to_json(nlohmann::json& json, const Wipe::Result& result);

}  // namespace vellum

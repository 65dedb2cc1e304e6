#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string_view>
#include <vector>

#include "bytes/ByteSource.h"
#include "checks/CheckTypes.h"

namespace vellum {

// A read-only pass over the whole source that maps unreadable and unusually
// slow areas.
struct HealthScan {
  std::int64_t chunkBytes = 8'388'608;
  double slowThreshold = 0.2;  // fraction of the median chunk speed
  // Times the chunk reads; empty means the monotonic clock.
  SecondsClock clock;

  struct Result {
    enum class Verdict { healthy, slowAreas, unreadableAreas };
    struct Region {
      std::uint64_t offset = 0;
      std::int64_t length = 0;
      bool operator==(const Region&) const = default;
    };
    Verdict verdict = Verdict::healthy;
    std::uint64_t scannedBytes = 0;
    std::vector<Region> unreadable;
    std::vector<Region> slow;
    SpeedSummary read;
    double duration = 0;
    bool operator==(const Result&) const = default;
  };

  // sectorSize is the granularity at which a failed chunk is re-read. Throws
  // only CheckError::cancelled.
  Result run(ByteSource& source, std::int64_t sectorSize, const CancellationFlag& cancel,
             const ProgressCallback& progress = {}) const;
};

std::string_view toString(HealthScan::Result::Verdict verdict);
void to_json(nlohmann::json& json, const HealthScan::Result::Region& region);
void to_json(nlohmann::json& json, const HealthScan::Result& result);

}  // namespace vellum

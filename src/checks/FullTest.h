#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>

#include "checks/CheckTypes.h"
#include "devices/BlockDevice.h"

namespace vellum {

// The destructive full test: fills every whole 4096-byte block with test
// blocks, reads them all back and classifies each. Pattern generation and
// verification run beside the transfers so the disk never waits for them.
struct FullTest {
  std::int64_t chunkBytes = 8'388'608;
  // Times the transfers; empty means the monotonic clock.
  SecondsClock clock;

  struct Result {
    enum class Verdict { genuine, counterfeit, failing };
    Verdict verdict = Verdict::genuine;
    std::uint64_t claimedBytes = 0;
    std::uint64_t usableBytes = 0;
    std::uint64_t holdsBytes = 0;
    std::int64_t goodBlocks = 0;
    std::int64_t aliasedBlocks = 0;
    std::int64_t corruptBlocks = 0;
    std::int64_t writeErrors = 0;
    std::optional<std::uint64_t> firstBadOffset;
    SpeedSummary write;
    SpeedSummary read;
    std::optional<SpeedClass> speedClass;
    double duration = 0;
    bool operator==(const Result&) const = default;
  };

  // Throws CheckError (cancelled, deviceTooSmall) or WriteError from
  // synchronize(); write and read failures of the medium are counted.
  Result run(BlockDevice& device, const CancellationFlag& cancel,
             const ProgressCallback& progress = {}) const;
};

std::string_view toString(FullTest::Result::Verdict verdict);
void to_json(nlohmann::json& json, const FullTest::Result& result);

}  // namespace vellum

#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>

#include "checks/CheckTypes.h"
#include "checks/UndoJournal.h"
#include "devices/BlockDevice.h"

namespace vellum {

// The non-destructive fake-capacity test: writes test blocks at about a
// thousand points across the claimed capacity, reads them back, puts the
// original data back, and refines the boundary of a fake card.
struct QuickCheck {
  std::int64_t points = 1024;
  std::int64_t refinementPoints = 128;
  std::int64_t readSampleBytes = 256'000'000;
  // Rewritten between writing and reading back the test blocks of each round,
  // to push them out of a write cache of up to 64 MiB.
  std::int64_t cacheFlushBytes = 80 * 1'048'576;
  // Times the read sample and the run; empty means the monotonic clock.
  SecondsClock clock;

  // Where the undo journal of a real card goes.
  struct JournalPlace {
    std::filesystem::path folder;
    JournalCard card;
  };

  struct Result {
    enum class Verdict { genuine, counterfeit, unreliable };
    Verdict verdict = Verdict::genuine;
    std::uint64_t claimedBytes = 0;
    std::uint64_t verifiedBytes = 0;
    std::int64_t pointsTested = 0;
    std::int64_t pointsIntact = 0;
    std::int64_t pointsAliased = 0;
    std::int64_t pointsCorrupt = 0;
    double readMBps = 0;
    // Pieces of the read sample that could not be read.
    std::int64_t unreadableSamples = 0;
    double duration = 0;
    bool operator==(const Result&) const = default;
  };

  // Throws CheckError (cancelled, deviceTooSmall, restoreFailed), the
  // device's WriteError/DeviceError, or JournalError before anything was
  // written. Whenever the first test block has been written, every probed
  // point is restored before any error is thrown; if that fails (or the card
  // was removed), the journal stays for restoreFromJournal().
  Result run(BlockDevice& device, const CancellationFlag& cancel,
             const ProgressCallback& progress = {},
             const std::optional<JournalPlace>& journal = std::nullopt) const;
};

std::string_view toString(QuickCheck::Result::Verdict verdict);
void to_json(nlohmann::json& json, const QuickCheck::Result& result);

}  // namespace vellum

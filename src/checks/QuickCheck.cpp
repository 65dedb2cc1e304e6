#include "checks/QuickCheck.h"

#include <algorithm>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "bytes/AlignedBuffer.h"
#include "bytes/Checked.h"
#include "checks/TestPattern.h"

namespace vellum {

namespace {

using Verdicts = std::map<std::uint64_t, TestPattern::Verdict>;

constexpr std::uint64_t kSampleReadBytes = 4'194'304;
constexpr std::uint64_t kProgressStep = 32;

std::optional<std::uint64_t> firstBad(const Verdicts& verdicts) {
  for (const auto& [index, verdict] : verdicts) {
    if (!isIntact(verdict)) return index;
  }
  return std::nullopt;
}

// The largest probed index below index, if any.
std::optional<std::uint64_t> probedBelow(const Verdicts& verdicts, std::uint64_t index) {
  auto it = verdicts.lower_bound(index);
  if (it == verdicts.begin()) return std::nullopt;
  return std::prev(it)->first;
}

// Writes test blocks at a sorted list of unit indices, reads them back and
// puts the original data back. Once the originals are saved, every later
// failure (including cancellation) is held until the restore has run.
class Probe {
 public:
  Probe(BlockDevice& device, std::uint64_t unit, const TestPattern& pattern,
        const CancellationFlag& cancel, const ProgressCallback& progress)
      : device_(device), unit_(unit), pattern_(pattern), cancel_(cancel), progress_(progress) {}

  Verdicts run(const std::vector<std::uint64_t>& points) {
    const std::uint64_t n = points.size();
    std::uint64_t done = 0;
    const auto step = [&] {
      ++done;
      if (progress_ && (done % kProgressStep == 0 || done == 3 * n)) {
        progress_(CheckProgress{CheckProgress::Phase::probing, done, 3 * n, std::nullopt});
      }
    };

    // Save. Nothing has been written yet, so errors leave at once.
    std::map<std::uint64_t, Bytes> originals;
    for (const std::uint64_t p : points) {
      cancel_.throwIfCancelled();
      originals.emplace(p, device_.read(offsetOf(p), toSigned(unit_)));
      step();
    }

    Verdicts verdicts;
    std::exception_ptr pending;
    try {
      Bytes block(static_cast<std::size_t>(unit_), 0);
      // Descending, so on a card that wraps the low (real) addresses are
      // written last and keep their own blocks.
      for (auto it = points.rbegin(); it != points.rend(); ++it) {
        cancel_.throwIfCancelled();
        pattern_.fill(*it, std::span(block).first(TestPattern::blockSize));
        device_.write(offsetOf(*it), block);
        step();
      }
      device_.synchronize();
      // No cancellation check here: the restore follows anyway.
      for (const std::uint64_t p : points) {
        const Bytes back = device_.read(offsetOf(p), TestPattern::blockSize);
        verdicts.insert_or_assign(p, pattern_.verify(back, p));
        step();
      }
    } catch (...) {
      pending = std::current_exception();
    }

    restore(originals);
    if (pending) std::rethrow_exception(pending);
    return verdicts;
  }

 private:
  std::uint64_t offsetOf(std::uint64_t point) const { return checkedMul(point, unit_); }

  void restore(const std::map<std::uint64_t, Bytes>& originals) {
    if (progress_) {
      progress_(CheckProgress{CheckProgress::Phase::restoring, 0, originals.size(), std::nullopt});
    }
    for (auto it = originals.rbegin(); it != originals.rend(); ++it) {
      try {
        device_.write(offsetOf(it->first), it->second);
      } catch (...) {
        throw CheckError::restoreFailed(offsetOf(it->first));
      }
    }
    device_.synchronize();
  }

  BlockDevice& device_;
  std::uint64_t unit_;
  const TestPattern& pattern_;
  const CancellationFlag& cancel_;
  const ProgressCallback& progress_;
};

std::vector<std::uint64_t> firstPassPoints(std::int64_t points, std::uint64_t units) {
  VL_PRECONDITION(points >= 0);
  std::set<std::uint64_t> chosen;
  for (std::int64_t i = 0; i < points; ++i) {
    chosen.insert(static_cast<std::uint64_t>(static_cast<double>(i) / static_cast<double>(points) *
                                             static_cast<double>(units)));
  }
  chosen.insert(units - 1);
  return {chosen.begin(), chosen.end()};
}

// One round of extra points, evenly spread in the gap between the last good
// and the first bad point.
std::vector<std::uint64_t> gapPoints(const Verdicts& verdicts, std::int64_t count) {
  const auto bad = firstBad(verdicts);
  if (!bad || *bad == 0) return {};
  const std::uint64_t good = probedBelow(verdicts, *bad).value_or(0);
  const std::uint64_t gap = *bad - good;
  if (gap < 2) return {};
  VL_PRECONDITION(count >= 1);
  std::set<std::uint64_t> chosen;
  for (std::int64_t k = 1; k <= count; ++k) {
    const std::uint64_t p =
        good + static_cast<std::uint64_t>(static_cast<double>(k) / static_cast<double>(count + 1) *
                                          static_cast<double>(gap));
    if (!verdicts.contains(p)) chosen.insert(p);
  }
  return {chosen.begin(), chosen.end()};
}

double readSample(ByteSource& device, std::int64_t sampleBytes, const CancellationFlag& cancel,
                  const ProgressCallback& progress) {
  const std::uint64_t limit =
      std::min(device.size() / kSampleReadBytes * kSampleReadBytes, toUnsigned(sampleBytes));
  if (limit == 0) return 0;
  AlignedBuffer buffer(kSampleReadBytes);
  const double start = monotonicSeconds();
  std::uint64_t done = 0;
  while (done < limit) {
    cancel.throwIfCancelled();
    const std::size_t n = device.readInto(done, buffer.span());
    if (n == 0) break;
    done += n;
    if (progress) {
      const double elapsed = std::max(monotonicSeconds() - start, 0.001);
      progress(CheckProgress{CheckProgress::Phase::reading, done, limit,
                             static_cast<double>(done) / elapsed});
    }
  }
  const double elapsed = monotonicSeconds() - start;
  return elapsed > 0 ? static_cast<double>(limit) / elapsed / 1e6 : 0;
}

}  // namespace

QuickCheck::Result QuickCheck::run(BlockDevice& device, const CancellationFlag& cancel,
                                   const ProgressCallback& progress) const {
  const double start = monotonicSeconds();
  const std::uint64_t unit =
      std::max<std::uint64_t>(toUnsigned(device.blockSize()), TestPattern::blockSize);
  const std::uint64_t units = device.size() / unit;
  if (units < 16) throw CheckError::deviceTooSmall();

  const TestPattern pattern(randomNonZeroSeed());
  Probe probe(device, unit, pattern, cancel, progress);
  Verdicts verdicts = probe.run(firstPassPoints(points, units));
  const std::vector<std::uint64_t> extra = gapPoints(verdicts, refinementPoints);
  if (!extra.empty()) {
    for (auto& [index, verdict] : probe.run(extra))
      verdicts.insert_or_assign(index, verdict);
  }

  Result result;
  result.readMBps = readSample(device, readSampleBytes, cancel, progress);
  for (const auto& [index, verdict] : verdicts) {
    if (isIntact(verdict)) {
      ++result.pointsIntact;
    } else if (isAliased(verdict)) {
      ++result.pointsAliased;
    }
  }
  result.pointsTested = static_cast<std::int64_t>(verdicts.size());
  result.pointsCorrupt = result.pointsTested - result.pointsIntact - result.pointsAliased;

  if (const auto bad = firstBad(verdicts)) {
    const auto good = probedBelow(verdicts, *bad);
    result.verifiedBytes = good ? (*good + 1) * unit : 0;
    const bool intactAbove = std::any_of(verdicts.upper_bound(*bad), verdicts.end(),
                                         [](const auto& entry) { return isIntact(entry.second); });
    if (result.pointsAliased > 0 || !intactAbove) {
      result.verdict = Result::Verdict::counterfeit;
    } else {
      result.verdict = Result::Verdict::unreliable;
    }
  } else {
    result.verdict = Result::Verdict::genuine;
    result.verifiedBytes = units * unit;
  }
  result.claimedBytes = device.size();
  result.duration = monotonicSeconds() - start;
  return result;
}

std::string_view toString(QuickCheck::Result::Verdict verdict) {
  switch (verdict) {
    case QuickCheck::Result::Verdict::genuine:
      return "genuine";
    case QuickCheck::Result::Verdict::counterfeit:
      return "counterfeit";
    case QuickCheck::Result::Verdict::unreliable:
      return "unreliable";
  }
  VL_PRECONDITION(false);
}

void to_json(nlohmann::json& json, const QuickCheck::Result& result) {
  json = {{"verdict", toString(result.verdict)},
          {"claimedBytes", result.claimedBytes},
          {"verifiedBytes", result.verifiedBytes},
          {"pointsTested", result.pointsTested},
          {"pointsIntact", result.pointsIntact},
          {"pointsAliased", result.pointsAliased},
          {"pointsCorrupt", result.pointsCorrupt},
          {"readMBps", result.readMBps},
          {"duration", result.duration}};
}

}  // namespace vellum

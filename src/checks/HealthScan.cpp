#include "checks/HealthScan.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "bytes/AlignedBuffer.h"
#include "bytes/Checked.h"
#include "bytes/DeviceError.h"

namespace vellum {

namespace {

using Region = HealthScan::Result::Region;

struct Sample {
  std::uint64_t offset;
  std::int64_t length;
  double mbps;
};

// Sorts by offset and joins regions that overlap or touch.
std::vector<Region> merge(std::vector<Region> regions) {
  std::sort(regions.begin(), regions.end(),
            [](const Region& a, const Region& b) { return a.offset < b.offset; });
  std::vector<Region> merged;
  for (const Region& region : regions) {
    if (!merged.empty()) {
      Region& kept = merged.back();
      const std::uint64_t keptEnd = kept.offset + toUnsigned(kept.length);
      if (region.offset <= keptEnd) {
        const std::uint64_t end = region.offset + toUnsigned(region.length);
        kept.length = std::max(toSigned(end - kept.offset), kept.length);
        continue;
      }
    }
    merged.push_back(region);
  }
  return merged;
}

// Re-reads a failed chunk one sector at a time and lists the sectors that
// still fail.
void findUnreadable(ByteSource& source, std::uint64_t offset, std::uint64_t length,
                    std::uint64_t sector, std::span<std::uint8_t> buffer,
                    std::vector<Region>& unreadable) {
  for (std::uint64_t done = 0; done < length;) {
    const std::uint64_t piece = std::min(sector, length - done);
    bool readable = false;
    try {
      const std::int64_t badBefore = source.badReads();
      readable =
          source.readInto(offset + done, buffer.first(static_cast<std::size_t>(piece))) > 0 &&
          source.badReads() == badBefore;
    } catch (const DeviceError&) {
    }
    if (!readable) unreadable.push_back(Region{offset + done, toSigned(piece)});
    done += piece;
  }
}

}  // namespace

HealthScan::Result HealthScan::run(ByteSource& source, std::int64_t sectorSize,
                                   const CancellationFlag& cancel,
                                   const ProgressCallback& progress) const {
  const double start = secondsNow(clock);
  VL_PRECONDITION(chunkBytes >= 1 && sectorSize >= 1);
  const std::uint64_t size = source.size();
  const std::uint64_t chunk = toUnsigned(chunkBytes);
  const std::uint64_t sector = toUnsigned(sectorSize);

  // One buffer for every read, so memory does not grow with the card.
  AlignedBuffer buffer(static_cast<std::size_t>(std::min(chunk, size)));
  std::vector<Sample> samples;
  std::vector<Region> unreadable;
  for (std::uint64_t offset = 0; offset < size;) {
    cancel.throwIfCancelled();
    const std::uint64_t n = std::min(size - offset, chunk);
    const double before = secondsNow(clock);
    bool readOk = true;
    try {
      // Disk sources read unreadable sectors as zeros and count them instead
      // of failing, so a rise in the count is a failed read too.
      const std::int64_t badBefore = source.badReads();
      source.readInto(offset, buffer.span().first(static_cast<std::size_t>(n)));
      readOk = source.badReads() == badBefore;
    } catch (const DeviceError&) {
      readOk = false;
    }
    if (readOk) {
      const double elapsed = secondsNow(clock) - before;
      samples.push_back(
          Sample{offset, toSigned(n), elapsed > 0 ? static_cast<double>(n) / elapsed / 1e6 : 0});
    } else {
      findUnreadable(source, offset, n, sector, buffer.span(), unreadable);
    }
    offset += n;
    if (progress) {
      progress(
          CheckProgress{CheckProgress::Phase::reading, offset, size,
                        samples.empty() ? std::nullopt : std::optional(samples.back().mbps * 1e6)});
    }
  }

  std::vector<double> speeds;
  speeds.reserve(samples.size());
  for (const Sample& sample : samples)
    speeds.push_back(sample.mbps);
  std::vector<double> sorted = speeds;
  std::sort(sorted.begin(), sorted.end());
  const double median = sorted.empty() ? 0 : sorted[sorted.size() / 2];

  // A chunk that read slowly is read once more (past any cache) and is a
  // slow area only when that read is slow too: on a busy machine a
  // millisecond's scheduling hiccup makes a fast chunk look slow.
  std::vector<Region> slow;
  if (median > 0) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
      Sample& sample = samples[i];
      if (sample.mbps >= slowThreshold * median) continue;
      cancel.throwIfCancelled();
      const auto n = static_cast<std::size_t>(sample.length);
      source.dropCache(sample.offset, n);
      const double before = secondsNow(clock);
      try {
        const std::int64_t badBefore = source.badReads();
        source.readInto(sample.offset, buffer.span().first(n));
        const double elapsed = secondsNow(clock) - before;
        const double again = elapsed > 0 ? static_cast<double>(n) / elapsed / 1e6 : 0;
        if (source.badReads() == badBefore && again >= slowThreshold * median) {
          sample.mbps = again;
          speeds[i] = again;
          continue;
        }
      } catch (const DeviceError&) {
      }
      slow.push_back(Region{sample.offset, sample.length});
    }
  }

  Result result;
  result.unreadable = merge(std::move(unreadable));
  result.slow = merge(std::move(slow));
  if (!result.unreadable.empty()) {
    result.verdict = Result::Verdict::unreadableAreas;
  } else if (!result.slow.empty()) {
    result.verdict = Result::Verdict::slowAreas;
  } else {
    result.verdict = Result::Verdict::healthy;
  }
  result.read = SpeedSummary(speeds);
  result.scannedBytes = size;
  result.duration = secondsNow(clock) - start;
  return result;
}

std::string_view toString(HealthScan::Result::Verdict verdict) {
  switch (verdict) {
    case HealthScan::Result::Verdict::healthy:
      return "healthy";
    case HealthScan::Result::Verdict::slowAreas:
      return "slowAreas";
    case HealthScan::Result::Verdict::unreadableAreas:
      return "unreadableAreas";
  }
  VL_PRECONDITION(false);
}

void to_json(nlohmann::json& json, const HealthScan::Result::Region& region) {
  json = {{"offset", region.offset}, {"length", region.length}};
}

void to_json(nlohmann::json& json, const HealthScan::Result& result) {
  json = {{"verdict", toString(result.verdict)},
          {"scannedBytes", result.scannedBytes},
          {"unreadable", result.unreadable},
          {"slow", result.slow},
          {"read", result.read},
          {"duration", result.duration}};
}

}  // namespace vellum

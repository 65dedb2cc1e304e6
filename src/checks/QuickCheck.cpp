#include "checks/QuickCheck.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "bytes/AlignedBuffer.h"
#include "bytes/Checked.h"
#include "bytes/DeviceError.h"
#include "checks/TestPattern.h"
#include "devices/WriteError.h"

namespace vellum {

namespace {

using Verdicts = std::map<std::uint64_t, TestPattern::Verdict>;

constexpr std::uint64_t kSampleReadBytes = 4'194'304;
constexpr std::uint64_t kProgressStep = 32;
// The cache flush reads and writes in pieces of this size, and counts one
// progress step for every kFlushStepBytes.
constexpr std::uint64_t kFlushPieceBytes = 4'194'304;
constexpr std::uint64_t kFlushStepBytes = 32'768;
// Refinement stops once the boundary is known to 0.1% of the verified size,
// or after this many rounds (each narrows the gap about 129-fold).
constexpr int kMaxRefinementRounds = 6;

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

bool isPowerOfTwo(std::uint64_t value) {
  return value != 0 && (value & (value - 1)) == 0;
}

// Counterfeit controllers decode only the low address bits: a unit p past the
// real flash lands on p mod M for some power of two M (the real size, or the
// next power of two above it), or is lost. A lost write reads back corrupt,
// and a wrapped write that another probe overwrote reads back aliased, but a
// wrapped write that landed on an unprobed unit reads back intact from its own
// address; evenly spaced probes only collide when the claimed size is a
// power-of-two multiple of the real one. So after each round's writes the
// highest intact point is looked up at p mod m for every power of two m <= p:
// on a genuine card its block exists only at p, on a wrapping card it is also
// found at p mod M. One point cannot tell M from the other powers m for
// which p mod m happens to equal p mod M; those remain candidates until a
// point that is intact and not found at q mod m rules m out. Every intact
// point at or above a candidate is then looked up at its aliases and, when
// found there, counted as aliased: the card does not store it at its address.
class WrapFinder {
 public:
  // Reads only; call while this round's test blocks are on the card.
  void classify(ByteSource& device, std::uint64_t unit, const TestPattern& pattern,
                const std::vector<std::uint64_t>& points, Verdicts& verdicts) {
    if (!isPowerOfTwo(unit)) return;  // the address model needs power-of-two units
    const auto holdsBlockOf = [&](std::uint64_t at, std::uint64_t point) {
      try {
        const Bytes back = device.read(checkedMul(at, unit), TestPattern::blockSize);
        return pattern.verify(back, at) == TestPattern::Verdict{TestPattern::Aliased{point}};
      } catch (const DeviceError&) {
        return false;  // an unreadable alias proves nothing
      }
    };
    if (candidates_.empty()) findCandidates(points, verdicts, holdsBlockOf);
    for (const std::uint64_t p : points) {
      if (candidates_.empty() || p < *candidates_.begin()) continue;
      if (!isIntact(verdicts.at(p))) continue;
      for (auto it = candidates_.begin(); it != candidates_.end() && *it <= p;) {
        if (holdsBlockOf(p % *it, p)) {
          verdicts.insert_or_assign(p, TestPattern::Aliased{p % *it});
          break;
        }
        it = candidates_.erase(it);  // p is intact and stored elsewhere: not this modulus
      }
    }
  }

  // Powers of two (in units) that may be where the card wraps; empty until a
  // wrapped point was found.
  const std::set<std::uint64_t>& candidates() const { return candidates_; }

 private:
  template <class Lookup>
  void findCandidates(const std::vector<std::uint64_t>& points, const Verdicts& verdicts,
                      const Lookup& holdsBlockOf) {
    const auto highest = std::find_if(points.rbegin(), points.rend(),
                                      [&](std::uint64_t p) { return isIntact(verdicts.at(p)); });
    if (highest == points.rend()) return;
    const std::uint64_t p = *highest;
    std::optional<std::uint64_t> smallest;
    for (std::uint64_t m = 1; m <= p && m != 0; m <<= 1) {
      if (holdsBlockOf(p % m, p)) {
        smallest = m;
        break;
      }
    }
    if (!smallest) return;
    // p's block sits at a = p mod M. Every M with p mod M = a divides p - a,
    // so the candidates run from the smallest hit up to the largest power of
    // two dividing p - a.
    const std::uint64_t rest = p - p % *smallest;
    const std::uint64_t largest = rest & (~rest + 1);
    for (std::uint64_t m = *smallest; m <= largest && m != 0; m <<= 1)
      candidates_.insert(m);
  }

  std::set<std::uint64_t> candidates_;
};

// Writes test blocks at a sorted list of unit indices, reads them back and
// puts the original data back. Once the originals are saved, every later
// failure (including cancellation) is held until the restore has run. With a
// journal, the originals are on stable storage before the first write.
class Probe {
 public:
  Probe(BlockDevice& device, std::uint64_t unit, const TestPattern& pattern,
        std::uint64_t flushBytes, UndoJournal* journal, const CancellationFlag& cancel,
        const ProgressCallback& progress)
      : device_(device),
        unit_(unit),
        pattern_(pattern),
        flushBytes_(flushBytes),
        journal_(journal),
        cancel_(cancel),
        progress_(progress) {}

  Verdicts run(const std::vector<std::uint64_t>& points) {
    const std::uint64_t n = points.size();
    // Only a card with a journal gets the cache flush: its bytes are saved
    // there. Devices held in memory have no cache to defeat.
    const std::vector<Extent> area =
        journal_ ? flushArea(points, rounds_++ % 2 == 1) : std::vector<Extent>{};
    std::uint64_t areaSteps = 0;
    for (const Extent& extent : area)
      areaSteps += 2 * (extent.length / kFlushStepBytes);  // saved, then rewritten
    const std::uint64_t total = 3 * n + areaSteps;
    std::uint64_t done = 0;
    const auto step = [&](std::uint64_t count = 1) {
      const std::uint64_t before = done;
      done += count;
      if (progress_ && (done / kProgressStep != before / kProgressStep || done == total)) {
        progress_(CheckProgress{CheckProgress::Phase::probing, done, total, std::nullopt});
      }
    };

    // Save. Nothing has been written yet, so errors leave at once. A point
    // whose data cannot be read is not written (its data could not be put
    // back) and counts as corrupt.
    Verdicts verdicts;
    std::map<std::uint64_t, Bytes> originals;
    std::vector<std::uint64_t> written;
    try {
      for (const std::uint64_t p : points) {
        cancel_.throwIfCancelled();
        try {
          Bytes original = device_.read(offsetOf(p), toSigned(unit_));
          if (journal_) journal_->saveOriginal(offsetOf(p), original);
          originals.emplace(p, std::move(original));
          written.push_back(p);
        } catch (const DeviceError& error) {
          if (!error.isMediumFailure()) throw;  // the card is gone
          verdicts.insert_or_assign(p, TestPattern::Corrupt{});
        }
        step();
      }
      if (journal_) journal_->commit();
    } catch (...) {
      // Nothing was written, so nothing needs undoing. Should emptying the
      // journal fail, restoring later finds every place as it was.
      try {
        if (journal_) journal_->startOver();
      } catch (const JournalError&) {
      }
      throw;
    }

    std::exception_ptr pending;
    try {
      Bytes block(static_cast<std::size_t>(unit_), 0);
      // Descending, so on a card that wraps the low (real) addresses are
      // written last and keep their own blocks.
      for (auto it = written.rbegin(); it != written.rend(); ++it) {
        cancel_.throwIfCancelled();
        pattern_.fill(*it, std::span(block).first(TestPattern::blockSize));
        device_.write(offsetOf(*it), block);
        step();
      }
      device_.synchronize();
      flushWriteCache(area, step);
      // No cancellation check here: the restore follows anyway.
      for (const std::uint64_t p : written) {
        try {
          const Bytes back = device_.read(offsetOf(p), TestPattern::blockSize);
          verdicts.insert_or_assign(p, pattern_.verify(back, p));
        } catch (const DeviceError& error) {
          if (!error.isMediumFailure()) throw;  // the card is gone
          verdicts.insert_or_assign(p, TestPattern::Corrupt{});
        }
        step();
      }
      wraps_.classify(device_, unit_, pattern_, written, verdicts);
    } catch (...) {
      pending = std::current_exception();
    }

    restore(originals);
    if (pending) std::rethrow_exception(pending);
    return verdicts;
  }

  const std::set<std::uint64_t>& wrapCandidates() const { return wraps_.candidates(); }

 private:
  struct Extent {
    std::uint64_t offset;
    std::uint64_t length;
  };

  std::uint64_t offsetOf(std::uint64_t point) const { return checkedMul(point, unit_); }

  // The cache flush: whole units from the start of the card that are not
  // test points of this round, in pieces of at most kFlushPieceBytes, until
  // flushBytes_ are covered or the card ends.
  // Rounds take turns between two disjoint windows: the last pieces a round
  // rewrote may still sit in a cache, and on a card that wraps such a copy
  // can be older than the flash behind it once the test points are put
  // back, so the next round must not read them.
  std::vector<Extent> flushArea(const std::vector<std::uint64_t>& points, bool second) const {
    const std::uint64_t units = device_.size() / unit_;
    const std::uint64_t wanted = (flushBytes_ + unit_ - 1) / unit_ + points.size();
    const std::uint64_t window = std::min(wanted, units / 2);
    return areaIn(points, second ? window : 0, second ? units : window);
  }

  std::vector<Extent> areaIn(const std::vector<std::uint64_t>& points, std::uint64_t from,
                             std::uint64_t to) const {
    std::vector<Extent> area;
    const std::set<std::uint64_t> probed(points.begin(), points.end());
    std::uint64_t covered = 0;
    for (std::uint64_t u = from; u < to && covered < flushBytes_; ++u) {
      if (probed.contains(u)) continue;
      if (!area.empty() && area.back().offset + area.back().length == offsetOf(u) &&
          area.back().length + unit_ <= kFlushPieceBytes) {
        area.back().length += unit_;
      } else {
        area.push_back({offsetOf(u), unit_});
      }
      covered += unit_;
    }
    return area;
  }

  // Some counterfeit cards answer reads of recently written blocks from a
  // cache (up to tens of megabytes), so test blocks read back straight after
  // writing look stored even where the flash does not exist. Rewriting more
  // than any such cache holds between the writes and the read-back pushes
  // the test blocks out: the reads then reach the flash. The area gets the
  // very bytes it holds (read after the test blocks were written, so a block
  // that wrapped onto it stays where it landed), which changes nothing on
  // the card; the journal keeps them first all the same, because a card that
  // loses power in the middle of a write may damage what it was rewriting.
  template <class Step>
  void flushWriteCache(const std::vector<Extent>& area, const Step& step) {
    if (area.empty()) return;
    AlignedBuffer first(static_cast<std::size_t>(kFlushPieceBytes));
    AlignedBuffer second(static_cast<std::size_t>(kFlushPieceBytes));
    for (const Extent& extent : area) {
      const auto length = static_cast<std::size_t>(extent.length);
      // Rewritten only when two reads agree, so bytes a flaky card returned
      // wrongly once never become its data; an unreadable piece is skipped.
      bool saved = false;
      try {
        device_.readInto(extent.offset, first.span().first(length));
        device_.readInto(extent.offset, second.span().first(length));
        saved = std::memcmp(first.data(), second.data(), length) == 0;
        if (saved) journal_->saveRegion(extent.offset, first.span().first(length));
      } catch (const DeviceError& error) {
        if (!error.isMediumFailure()) throw;
      }
      step((saved ? 1 : 2) * (extent.length / kFlushStepBytes));
    }
    journal_->commit();
    // Each group of pieces is noted done once it is on the card, so after a
    // crash only the group being written is ever put back.
    std::uint64_t group = 0;
    for (std::size_t i = 0; i < journal_->regionCount(); ++i) {
      const auto piece = first.span().first(static_cast<std::size_t>(journal_->regionSize(i)));
      device_.write(journal_->readRegion(i, piece), piece);
      step(piece.size() / kFlushStepBytes);
      group += piece.size();
      if (group >= UndoJournal::kRewriteGroupBytes && i + 1 < journal_->regionCount()) {
        device_.synchronize();
        journal_->regionsRewritten(i + 1);
        group = 0;
      }
    }
    device_.synchronize();
    journal_->regionRewritten();
  }

  void restore(const std::map<std::uint64_t, Bytes>& originals) {
    if (progress_) {
      progress_(CheckProgress{CheckProgress::Phase::restoring, 0, originals.size(), std::nullopt});
    }
    for (auto it = originals.rbegin(); it != originals.rend(); ++it) {
      try {
        device_.write(offsetOf(it->first), it->second);
      } catch (const WriteError& error) {
        if (error.is<WriteError::Removed>()) throw;  // the journal has the rest
        throw CheckError::restoreFailed(offsetOf(it->first));
      } catch (...) {
        throw CheckError::restoreFailed(offsetOf(it->first));
      }
    }
    device_.synchronize();
    if (journal_) journal_->startOver();
  }

  BlockDevice& device_;
  std::uint64_t unit_;
  const TestPattern& pattern_;
  std::uint64_t flushBytes_;
  UndoJournal* journal_;
  const CancellationFlag& cancel_;
  const ProgressCallback& progress_;
  WrapFinder wraps_;
  int rounds_ = 0;
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

// Extra points evenly spread in the gap between the last good and the first
// bad point, plus the units on either side of a possible wrap boundary. The
// first round always runs; later ones only while the gap is wider than 0.1%
// of what was verified, which matters when the real flash is tiny next to
// the claimed size and the first gap alone would be far wider than it.
std::vector<std::uint64_t> gapPoints(const Verdicts& verdicts, std::int64_t count, int round,
                                     const std::set<std::uint64_t>& wrapCandidates) {
  const auto bad = firstBad(verdicts);
  if (!bad || *bad == 0) return {};
  const std::uint64_t good = probedBelow(verdicts, *bad).value_or(0);
  const std::uint64_t gap = *bad - good;
  if (gap < 2) return {};
  if (round > 0 && (gap - 1) * 1000 <= good + 1) return {};
  VL_PRECONDITION(count >= 1);
  std::set<std::uint64_t> chosen;
  for (std::int64_t k = 1; k <= count; ++k) {
    const std::uint64_t p =
        good + static_cast<std::uint64_t>(static_cast<double>(k) / static_cast<double>(count + 1) *
                                          static_cast<double>(gap));
    chosen.insert(p);
  }
  for (const std::uint64_t m : wrapCandidates) {
    chosen.insert(m);
    chosen.insert(m - 1);
  }
  std::vector<std::uint64_t> fresh;
  for (const std::uint64_t p : chosen) {
    if (p > good && p < *bad && !verdicts.contains(p)) fresh.push_back(p);
  }
  return fresh;
}

struct SampleRead {
  double mbps = 0;
  std::int64_t unreadable = 0;  // pieces
};

// Reads from the start in 4 MiB pieces; a piece that cannot be read is
// counted and skipped, and the speed is that of the pieces that were read.
SampleRead readSample(ByteSource& device, std::int64_t sampleBytes, const SecondsClock& clock,
                      const CancellationFlag& cancel, const ProgressCallback& progress) {
  const std::uint64_t limit =
      std::min(device.size() / kSampleReadBytes * kSampleReadBytes, toUnsigned(sampleBytes));
  if (limit == 0) return {};
  std::int64_t unreadable = 0;
  AlignedBuffer buffer(kSampleReadBytes);
  const double start = secondsNow(clock);
  double failedSeconds = 0;
  std::uint64_t offset = 0;
  std::uint64_t readBytes = 0;
  while (offset < limit) {
    cancel.throwIfCancelled();
    const double before = secondsNow(clock);
    std::size_t n = 0;
    try {
      n = device.readInto(offset, buffer.span());
      if (n == 0) break;
      readBytes += std::min<std::uint64_t>(n, limit - offset);
    } catch (const DeviceError& error) {
      if (!error.isMediumFailure()) throw;  // the card is gone
      failedSeconds += secondsNow(clock) - before;
      ++unreadable;
      n = kSampleReadBytes;
    }
    offset += n;
    if (progress) {
      const double elapsed = std::max(secondsNow(clock) - start - failedSeconds, 0.001);
      progress(CheckProgress{CheckProgress::Phase::reading, std::min(offset, limit), limit,
                             static_cast<double>(readBytes) / elapsed});
    }
  }
  const double elapsed = secondsNow(clock) - start - failedSeconds;
  return {elapsed > 0 ? static_cast<double>(readBytes) / elapsed / 1e6 : 0, unreadable};
}

}  // namespace

QuickCheck::Result QuickCheck::run(BlockDevice& device, const CancellationFlag& cancel,
                                   const ProgressCallback& progress,
                                   const std::optional<JournalPlace>& journalPlace) const {
  const double start = secondsNow(clock);
  const std::uint64_t unit =
      std::max<std::uint64_t>(toUnsigned(device.blockSize()), TestPattern::blockSize);
  const std::uint64_t units = device.size() / unit;
  if (units < 16) throw CheckError::deviceTooSmall();

  VL_PRECONDITION(cacheFlushBytes >= 0);
  const TestPattern pattern(randomNonZeroSeed());
  const std::vector<std::uint64_t> firstPass = firstPassPoints(points, units);
  std::unique_ptr<UndoJournal> journal;
  if (journalPlace) {
    // Room for the largest round: the first pass's originals and the flush,
    // each record with its framing.
    const std::uint64_t records = firstPass.size() + toUnsigned(cacheFlushBytes) / unit + 2;
    journal = UndoJournal::create(
        journalPlace->folder, journalPlace->card, pattern.nonce(), unit,
        checkedAdd(checkedMul(records, unit + 64), toUnsigned(cacheFlushBytes)));
  }
  Verdicts verdicts;
  try {
    Probe probe(device, unit, pattern, toUnsigned(cacheFlushBytes), journal.get(), cancel,
                progress);
    verdicts = probe.run(firstPass);
    for (int round = 0; round < kMaxRefinementRounds; ++round) {
      const std::vector<std::uint64_t> extra =
          gapPoints(verdicts, refinementPoints, round, probe.wrapCandidates());
      if (extra.empty()) break;
      for (auto& [index, verdict] : probe.run(extra))
        verdicts.insert_or_assign(index, verdict);
    }
  } catch (...) {
    // Kept while it holds bytes that may not be back on the card.
    if (journal && !journal->holdsRecords()) journal->remove();
    throw;
  }
  if (journal) journal->remove();

  Result result;
  const SampleRead sample = readSample(device, readSampleBytes, clock, cancel, progress);
  result.readMBps = sample.mbps;
  result.unreadableSamples = sample.unreadable;
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
  result.duration = secondsNow(clock) - start;
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
  json = {{"verdict", toString(result.verdict)},           {"claimedBytes", result.claimedBytes},
          {"verifiedBytes", result.verifiedBytes},         {"pointsTested", result.pointsTested},
          {"pointsIntact", result.pointsIntact},           {"pointsAliased", result.pointsAliased},
          {"pointsCorrupt", result.pointsCorrupt},         {"readMBps", result.readMBps},
          {"unreadableSamples", result.unreadableSamples}, {"duration", result.duration}};
}

}  // namespace vellum

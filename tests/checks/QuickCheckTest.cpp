#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "bytes/DeviceError.h"
#include "checks/CheckTestSupport.h"
#include "checks/QuickCheck.h"
#include "devices/WriteError.h"

namespace vellum {
namespace {

using namespace testing;
using Verdict = QuickCheck::Result::Verdict;

constexpr std::uint64_t kUnit = 4096;
constexpr int kPoints = 1025;  // first-pass points of a 16 MiB card: every 4th unit and the last

TEST(QuickCheck, VerdictsAndVerifiedCapacity) {
  struct Case {
    std::string name;
    std::uint64_t size, real;
    Overflow overflow;
    std::int64_t points;
    std::set<std::uint64_t> corruptUnits;  // damaged when read back after the writes
    Verdict verdict;
    std::uint64_t verifiedUnits;
    std::int64_t tested, aliased, corrupt;
  };
  // clang-format off
  const Case cases[] = {
      {"genuine", 16 * kMiB, 16 * kMiB, Overflow::wrap, 1024, {}, Verdict::genuine, 4096, kPoints, 0, 0},
      // Points 16 units apart; the boundary at 4096 is probed and the
      // refinement closes the gap below it. Unit 16383 lands on unprobed 4095.
      {"wraps after a quarter", 64 * kMiB, 16 * kMiB, Overflow::wrap, 1024, {},
       Verdict::counterfeit, 4096, 1025 + 15, 768, 0},
      // 17 points 1024 units apart, real end at 4100; the first refined
      // point past it is 4096 + 1024/129 = 4103, one step (7.9 units) away.
      {"loses writes past 4100 units", 64 * kMiB, 4100 * kUnit, Overflow::discard, 16, {},
       Verdict::counterfeit, 4097, 17 + 128, 0, 12 + 128},
      // Refinement adds 1997..1999 between the good 1996 and the bad 2000.
      {"scattered failures", 16 * kMiB, 16 * kMiB, Overflow::wrap, 1024, {2000, 3000},
       Verdict::unreliable, 2000, kPoints + 3, 0, 2},
      {"unit 0 bad", 16 * kMiB, 16 * kMiB, Overflow::wrap, 1024, {0}, Verdict::unreliable, 0, kPoints, 0, 1},
  };
  // clang-format on
  for (const Case& c : cases) {
    SimulatedDevice card(c.size, c.real, c.overflow, 512);
    const Bytes before = fillWithNoise(card);
    FaultyDevice faulty(card);
    faulty.afterRead = [&faulty, &c](std::uint64_t offset, std::span<std::uint8_t> bytes) {
      if (faulty.writes > 0 && c.corruptUnits.contains(offset / kUnit)) bytes[100] ^= 0xFF;
    };
    QuickCheck check;
    check.points = c.points;
    const QuickCheck::Result r = check.run(faulty, CancellationFlag{});
    EXPECT_EQ(
        std::tuple(r.verdict, r.claimedBytes, r.verifiedBytes, r.pointsTested, r.pointsAliased,
                   r.pointsCorrupt),
        std::tuple(c.verdict, c.size, c.verifiedUnits * kUnit, c.tested, c.aliased, c.corrupt))
        << c.name;
    EXPECT_EQ(r.pointsIntact + r.pointsAliased + r.pointsCorrupt, r.pointsTested);
    EXPECT_TRUE(card.storage() == before) << c.name << ": data not restored";
  }
}

TEST(QuickCheck, NeedsSixteenWholeUnitsAndSkipsAPartialOne) {
  // A unit is 4096 bytes, or one block when blocks are larger.
  // clang-format off
  for (const auto& [size, blockSize] : {std::pair{15 * kUnit, 512}, {16 * kUnit - 1, 512},
         {16 * kUnit, 512}, {15 * 8192 + 4096, 8192}, {16 * 8192, 8192}}) {
    // clang-format on
    SimulatedDevice card(size, std::nullopt, Overflow::wrap, blockSize);
    EXPECT_EQ(errorText([&] { QuickCheck{}.run(card, {}); }),
              size >= 16 * std::max<std::uint64_t>(kUnit, std::uint64_t(blockSize))
                  ? "no error"
                  : "The device is too small to test.");
  }
  // Save and verify ascending, test writes and restores descending; the
  // partial unit at the end is never probed.
  const std::uint64_t units = 5000;
  SimulatedDevice card(units * kUnit + 100, std::nullopt, Overflow::wrap, 4);
  FaultyDevice faulty(card);
  std::vector<std::uint64_t> reads, writes;
  faulty.beforeRead = [&](std::uint64_t offset, std::size_t n) {
    if (n == kUnit) reads.push_back(offset / kUnit);
  };
  faulty.beforeWrite = [&](std::uint64_t offset, std::size_t) { writes.push_back(offset / kUnit); };
  const QuickCheck::Result result = QuickCheck{}.run(faulty, CancellationFlag{});
  EXPECT_EQ(result.claimedBytes, units * kUnit + 100);
  EXPECT_EQ(result.verifiedBytes, units * kUnit);
  std::set<std::uint64_t> points = {units - 1};
  for (std::uint64_t i = 0; i < 1024; ++i)
    points.insert(i * units / 1024);
  std::vector<std::uint64_t> up(points.begin(), points.end()), down(points.rbegin(), points.rend());
  up.insert(up.end(), points.begin(), points.end());
  down.insert(down.end(), points.rbegin(), points.rend());
  EXPECT_EQ(reads, up);
  EXPECT_EQ(writes, down);
  EXPECT_EQ(faulty.synchronizations, 2);

  using Phase = CheckProgress::Phase;  // progress every 32 steps, then restoring
  SimulatedDevice small(16 * kUnit, std::nullopt, Overflow::wrap, 512);
  ProgressLog log;
  QuickCheck{}.run(small, CancellationFlag{}, log.callback());
  EXPECT_EQ(log.reports, (std::vector<CheckProgress>{{Phase::probing, 32, 48, std::nullopt},
                                                     {Phase::probing, 48, 48, std::nullopt},
                                                     {Phase::restoring, 0, 16, std::nullopt}}));
}

// Whatever ends a run early, the card holds exactly its old bytes before the
// error reaches the caller.
TEST(QuickCheck, CardDataIsRestoredBeforeAnyErrorReachesTheCaller) {
  struct Case {
    std::string name;
    std::function<void(FaultyDevice&, CancellationFlag&)> arm;
    std::string error;
    int writes;  // writes that reached the device, restores included; -1: more than 2050
    std::uint64_t real = 16 * kMiB;
  };
  const auto cancelAt = [](int FaultyDevice::*counter, int k) {
    return [counter, k](FaultyDevice& d, CancellationFlag& f) {
      atStep(d, counter, k, [&f](std::uint64_t) { f.cancel(); });
    };
  };
  const auto fail = [](int FaultyDevice::*counter, int k) {
    return [counter, k](FaultyDevice& d, CancellationFlag&) {
      atStep(d, counter, k, [counter](std::uint64_t at) {
        if (counter == &FaultyDevice::reads) throw DeviceError::readFailed(at, EIO);
        throw WriteError::writeFailed(at, EIO);
      });
    };
  };
  const auto syncFails = [](FaultyDevice& d, CancellationFlag&) {
    d.beforeSynchronize = [&d] {
      if (d.synchronizations == 1) throw WriteError::writeFailed(0, EIO);
    };
  };
  const auto unplug = [](FaultyDevice& d, CancellationFlag&) {
    atStep(d, &FaultyDevice::writes, 2, [](auto) { throw std::runtime_error("unplugged"); });
  };
  constexpr auto R = &FaultyDevice::reads;
  constexpr auto W = &FaultyDevice::writes;
  // clang-format off
  const Case cases[] = {
      {"cancel before the run", [](FaultyDevice&, CancellationFlag& f) { f.cancel(); }, kStopped, 0},
      {"cancel while saving", cancelAt(R, 10), kStopped, 0},
      // The write under way completes; everything written is put back.
      {"cancel at a test write", cancelAt(W, 500), kStopped, 500 + kPoints},
      // Verification runs on; the read sample notices the flag.
      {"cancel while verifying", cancelAt(R, kPoints + 5), kStopped, 2 * kPoints},
      {"cancel during the read sample", cancelAt(R, 2 * kPoints + 2), kStopped, 2 * kPoints},
      // A quarter-size fake: the first pass makes 1025 test writes and 1025 restores.
      {"cancel during the refinement", cancelAt(W, 2 * 1025 + 3), kStopped, -1, 4 * kMiB},
      {"save read fails", fail(R, 400), DeviceError::readFailed(399 * 4 * kUnit, EIO).description(), 0},
      {"test write fails", fail(W, 7), WriteError::writeFailed(4072 * kUnit, EIO).description(), 7 + kPoints},
      {"synchronize fails", syncFails, "Write failed at offset 0: Input/output error", 2 * kPoints},
      {"verify read fails", fail(R, kPoints + 3), DeviceError::readFailed(8 * kUnit, EIO).description(), 2 * kPoints},
      {"something unexpected", unplug, "unplugged", 2 + kPoints},
      // Restores run from the last unit down: 4095, 4092, 4088, ...; the rest are not attempted.
      {"first restore fails", fail(W, kPoints + 1), CheckError::restoreFailed(4095 * kUnit).description(), kPoints + 1},
      {"third restore fails", fail(W, kPoints + 3), "Couldn't put back the original data at offset 16744448. "
       "The card may be failing; copy anything important off it now.", kPoints + 3},
  };
  // clang-format on
  for (const Case& c : cases) {
    SimulatedDevice card(16 * kMiB, c.real, Overflow::wrap, 512);
    const Bytes before = fillWithNoise(card);
    FaultyDevice faulty(card);
    CancellationFlag flag;
    c.arm(faulty, flag);
    EXPECT_EQ(errorText([&] { QuickCheck{}.run(faulty, flag); }), c.error) << c.name;
    EXPECT_TRUE(c.writes >= 0 ? faulty.writes == c.writes : faulty.writes > 2 * 1025 + 3)
        << c.name << ": " << faulty.writes << " writes";
    if (c.error.starts_with("Couldn't put back")) continue;
    EXPECT_TRUE(card.storage() == before) << c.name << ": data not restored";
  }
}

}  // namespace
}  // namespace vellum

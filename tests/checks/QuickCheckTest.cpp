#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "bytes/DeviceError.h"
#include "checks/CheckTestSupport.h"
#include "checks/QuickCheck.h"
#include "devices/WriteError.h"
#include "support/FaultyDevice.h"

namespace vellum {
namespace {

using testing::FaultyDevice;
using Verdict = QuickCheck::Result::Verdict;
using Overflow = SimulatedDevice::Overflow;

constexpr std::uint64_t kUnit = 4096;
constexpr std::uint64_t kMiB = 1 << 20;
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
      {"genuine", 16 * kMiB, 16 * kMiB, Overflow::wrap, 1024, {},
       Verdict::genuine, 4096, kPoints, 0, 0},
      // Points 16 units apart; the boundary at 4096 is a probed point and the
      // refinement closes the gap below it. Unit 16383 lands on unprobed
      // 4095 and so still reads back its own block.
      {"wraps after a quarter", 64 * kMiB, 16 * kMiB, Overflow::wrap, 1024, {},
       Verdict::counterfeit, 4096, 1025 + 15, 768, 0},
      // 17 points 1024 units apart, real end at 4100; the first refined
      // point past it is 4096 + 1024/129 = 4103, one step (7.9 units) away.
      {"loses writes past 4100 units", 64 * kMiB, 4100 * kUnit, Overflow::discard, 16, {},
       Verdict::counterfeit, 4097, 17 + 128, 0, 12 + 128},
      // Refinement adds 1997..1999 between the good 1996 and the bad 2000.
      {"scattered failures", 16 * kMiB, 16 * kMiB, Overflow::wrap, 1024, {2000, 3000},
       Verdict::unreliable, 2000, kPoints + 3, 0, 2},
      {"unit 0 bad", 16 * kMiB, 16 * kMiB, Overflow::wrap, 1024, {0},
       Verdict::unreliable, 0, kPoints, 0, 1},
  };
  // clang-format on
  for (const Case& c : cases) {
    SimulatedDevice card(c.size, c.real, c.overflow, 512);
    const Bytes before = testing::fillWithNoise(card);
    FaultyDevice faulty(card);
    faulty.afterRead = [&faulty, &c](std::uint64_t offset, std::span<std::uint8_t> bytes) {
      if (faulty.writes > 0 && c.corruptUnits.contains(offset / kUnit)) bytes[100] ^= 0xFF;
    };
    QuickCheck check;
    check.points = c.points;
    const QuickCheck::Result result = check.run(faulty, CancellationFlag{});
    EXPECT_EQ(result.verdict, c.verdict) << c.name;
    EXPECT_EQ(result.claimedBytes, c.size) << c.name;
    EXPECT_EQ(result.verifiedBytes, c.verifiedUnits * kUnit) << c.name;
    EXPECT_EQ(result.pointsTested, c.tested) << c.name;
    EXPECT_EQ(result.pointsAliased, c.aliased) << c.name;
    EXPECT_EQ(result.pointsCorrupt, c.corrupt) << c.name;
    EXPECT_EQ(result.pointsIntact + result.pointsAliased + result.pointsCorrupt,
              result.pointsTested);
    EXPECT_TRUE(card.storage() == before) << c.name << ": data not restored";
  }
}

TEST(QuickCheck, NeedsSixteenWholeUnits) {
  struct Case {
    std::uint64_t size;
    std::int64_t blockSize;
    bool runs;
  };
  for (const Case c :
       {Case{15 * kUnit, 512, false}, Case{16 * kUnit - 1, 512, false}, Case{16 * kUnit, 512, true},
        Case{15 * 8192 + 4096, 8192, false}, Case{16 * 8192, 8192, true}}) {
    SimulatedDevice card(c.size, std::nullopt, Overflow::wrap, c.blockSize);
    QuickCheck::Result result;
    const std::string error = testing::errorText([&] { result = QuickCheck{}.run(card, {}); });
    EXPECT_EQ(error, c.runs ? "no error" : "The device is too small to test.") << c.size;
    EXPECT_EQ(result.pointsTested, c.runs ? 16 : 0);
  }
}

TEST(QuickCheck, ProbesSpreadPointsAscendingAndWritesDescending) {
  // 5000 whole units and a partial one that is never probed.
  const std::uint64_t units = 5000;
  SimulatedDevice card(units * kUnit + 100, std::nullopt, Overflow::wrap, 4);
  FaultyDevice faulty(card);
  std::vector<std::uint64_t> reads, writes;
  faulty.beforeRead = [&](std::uint64_t offset, std::size_t length) {
    if (length == kUnit) reads.push_back(offset / kUnit);
  };
  faulty.beforeWrite = [&](std::uint64_t offset, std::size_t) { writes.push_back(offset / kUnit); };
  const QuickCheck::Result result = QuickCheck{}.run(faulty, CancellationFlag{});
  EXPECT_EQ(result.claimedBytes, units * kUnit + 100);
  EXPECT_EQ(result.verifiedBytes, units * kUnit);

  std::set<std::uint64_t> points = {units - 1};
  for (std::uint64_t i = 0; i < 1024; ++i)
    points.insert(i * units / 1024);
  std::vector<std::uint64_t> up(points.begin(), points.end()), down(points.rbegin(), points.rend());
  // Save and verify ascending; test writes and restores descending.
  std::vector<std::uint64_t> expectedReads = up, expectedWrites = down;
  expectedReads.insert(expectedReads.end(), up.begin(), up.end());
  expectedWrites.insert(expectedWrites.end(), down.begin(), down.end());
  EXPECT_EQ(reads, expectedReads);
  EXPECT_EQ(writes, expectedWrites);
  EXPECT_EQ(faulty.synchronizations, 2);
}

TEST(QuickCheck, ReportsProgressEveryThirtyTwoStepsThenRestoringThenReading) {
  using Phase = CheckProgress::Phase;
  SimulatedDevice small(16 * kUnit, std::nullopt, Overflow::wrap, 512);
  testing::ProgressLog log;
  QuickCheck{}.run(small, CancellationFlag{}, log.callback());  // 16 points, no read sample
  EXPECT_EQ(log.reports, (std::vector<CheckProgress>{{Phase::probing, 32, 48, std::nullopt},
                                                     {Phase::probing, 48, 48, std::nullopt},
                                                     {Phase::restoring, 0, 16, std::nullopt}}));

  SimulatedDevice card(16 * kMiB, std::nullopt, Overflow::wrap, 512);
  testing::ProgressLog sampled;
  QuickCheck check;
  check.readSampleBytes = 10'000'000;  // three 4 MiB reads; the last passes the limit
  check.run(card, CancellationFlag{}, sampled.callback());
  ASSERT_GE(sampled.reports.size(), 3u);
  EXPECT_EQ(sampled.reports[0], (CheckProgress{Phase::probing, 32, 3 * kPoints, std::nullopt}));
  const auto last = sampled.reports.end() - 3;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(last[i].phase, Phase::reading);
    EXPECT_EQ(last[i].completed, static_cast<std::uint64_t>(i + 1) * 4 * kMiB);
    EXPECT_EQ(last[i].total, 10'000'000u);
  }
}

// Whatever ends a run early, the card holds exactly its old bytes before the
// error reaches the caller.
TEST(QuickCheck, CardDataIsRestoredBeforeAnyErrorReachesTheCaller) {
  const std::string stopped = "The test was stopped.";
  struct Case {
    std::string name;
    std::function<void(FaultyDevice&, CancellationFlag&)> arm;
    std::string error;
    int writes;  // writes that reached the device, restores included
  };
  const auto cancelAtRead = [](int k) {
    return [k](FaultyDevice& d, CancellationFlag& flag) {
      d.beforeRead = [&d, &flag, k](std::uint64_t, std::size_t) {
        if (d.reads == k) flag.cancel();
      };
    };
  };
  const auto failWrite = [](int k) {
    return [k](FaultyDevice& d, CancellationFlag&) {
      d.beforeWrite = [&d, k](std::uint64_t offset, std::size_t) {
        if (d.writes == k) throw WriteError::writeFailed(offset, EIO);
      };
    };
  };
  const Case cases[] = {
      {"cancel before the run", [](FaultyDevice&, CancellationFlag& f) { f.cancel(); }, stopped, 0},
      {"cancel while saving", cancelAtRead(10), stopped, 0},
      // The write under way completes; everything written is put back.
      {"cancel at a test write",
       [](FaultyDevice& d, CancellationFlag& flag) {
         d.beforeWrite = [&d, &flag](std::uint64_t, std::size_t) {
           if (d.writes == 500) flag.cancel();
         };
       },
       stopped, 500 + kPoints},
      // Verification runs on; the read sample notices the flag.
      {"cancel while verifying", cancelAtRead(kPoints + 5), stopped, 2 * kPoints},
      {"cancel during the read sample", cancelAtRead(2 * kPoints + 2), stopped, 2 * kPoints},
      {"test write fails", failWrite(7), WriteError::writeFailed(4072 * kUnit, EIO).description(),
       7 + kPoints},
      {"synchronize fails",
       [](FaultyDevice& d, CancellationFlag&) {
         d.beforeSynchronize = [&d] {
           if (d.synchronizations == 1) throw WriteError::writeFailed(0, EIO);
         };
       },
       "Write failed at offset 0: Input/output error", 2 * kPoints},
      {"verify read fails",
       [](FaultyDevice& d, CancellationFlag&) {
         d.beforeRead = [&d](std::uint64_t offset, std::size_t) {
           if (d.reads == kPoints + 3) throw DeviceError::readFailed(offset, EIO);
         };
       },
       DeviceError::readFailed(8 * kUnit, EIO).description(), 2 * kPoints},
      {"something unexpected",
       [](FaultyDevice& d, CancellationFlag&) {
         d.beforeWrite = [&d](std::uint64_t, std::size_t) {
           if (d.writes == 2) throw std::runtime_error("unplugged");
         };
       },
       "unplugged", 2 + kPoints},
      // Restores run from the last unit down: 4095, 4092, 4088, ...; the
      // rest are not attempted.
      {"first restore fails", failWrite(kPoints + 1),
       CheckError::restoreFailed(4095 * kUnit).description(), kPoints + 1},
      {"third restore fails", failWrite(kPoints + 3),
       "Couldn't put back the original data at offset 16744448. The card may be failing; copy "
       "anything important off it now.",
       kPoints + 3},
  };
  for (const Case& c : cases) {
    SimulatedDevice card(16 * kMiB, std::nullopt, Overflow::wrap, 512);
    const Bytes before = testing::fillWithNoise(card);
    FaultyDevice faulty(card);
    CancellationFlag flag;
    c.arm(faulty, flag);
    EXPECT_EQ(testing::errorText([&] { QuickCheck{}.run(faulty, flag); }), c.error) << c.name;
    EXPECT_EQ(faulty.writes, c.writes) << c.name;
    if (c.error.starts_with("Couldn't put back")) continue;
    EXPECT_TRUE(card.storage() == before) << c.name << ": data not restored";
  }
}

TEST(QuickCheck, ASaveReadFailureEndsTheRunWithNothingWritten) {
  SimulatedDevice card(16 * kMiB, std::nullopt, Overflow::wrap, 512);
  card.unreadableBlocks().insert(400 * 8);  // unit 400, a first-pass point
  FaultyDevice faulty(card);
  EXPECT_EQ(testing::errorText([&] { QuickCheck{}.run(faulty, CancellationFlag{}); }),
            DeviceError::readFailed(400 * kUnit, EIO).description());
  EXPECT_EQ(faulty.writes, 0);
}

TEST(QuickCheck, CardDataIsRestoredWhenTheRefinementIsCancelled) {
  SimulatedDevice card(64 * kMiB, 16 * kMiB, Overflow::wrap, 512);
  const Bytes before = testing::fillWithNoise(card);
  FaultyDevice faulty(card);
  CancellationFlag flag;
  // The first pass makes 1025 test writes and 1025 restores.
  faulty.beforeWrite = [&](std::uint64_t, std::size_t) {
    if (faulty.writes == 2 * 1025 + 3) flag.cancel();
  };
  EXPECT_EQ(testing::errorText([&] { QuickCheck{}.run(faulty, flag); }), "The test was stopped.");
  EXPECT_GT(faulty.writes, 2 * 1025 + 3);
  EXPECT_TRUE(card.storage() == before);
}

}  // namespace
}  // namespace vellum

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <set>
#include <string>

#include "bytes/DeviceError.h"
#include "checks/CheckTestSupport.h"
#include "checks/QuickCheck.h"
#include "devices/SimulatedDevice.h"
#include "devices/WriteError.h"
#include "support/FaultyDevice.h"

namespace vellum {
namespace {

using testing::FaultyDevice;
using Verdict = QuickCheck::Result::Verdict;

constexpr std::uint64_t kUnit = 4096;
constexpr std::uint64_t kMiB = 1 << 20;

SimulatedDevice genuineCard(std::uint64_t bytes) {
  return SimulatedDevice(bytes, std::nullopt, SimulatedDevice::Overflow::wrap, 512);
}

// Corrupts what the verify stage reads back at the given units (reads made
// after the first test block went out), leaving saved originals alone.
void corruptVerifyReadsAt(FaultyDevice& faulty, std::set<std::uint64_t> units) {
  faulty.afterRead = [&faulty, units](std::uint64_t offset, std::span<std::uint8_t> bytes) {
    if (faulty.writes > 0 && offset % kUnit == 0 && units.contains(offset / kUnit) &&
        !bytes.empty()) {
      bytes[100] ^= 0xFF;
    }
  };
}

TEST(QuickCheck, GenuineCardIsGenuineAndKeepsItsData) {
  SimulatedDevice card = genuineCard(16 * kMiB);
  const Bytes before = testing::fillWithNoise(card);
  const QuickCheck::Result result = QuickCheck{}.run(card, CancellationFlag{});
  EXPECT_EQ(result.verdict, Verdict::genuine);
  EXPECT_EQ(result.claimedBytes, 16 * kMiB);
  EXPECT_EQ(result.verifiedBytes, 16 * kMiB);
  EXPECT_EQ(result.pointsTested, 1025);  // 1024 spread points and the last unit
  EXPECT_EQ(result.pointsIntact, 1025);
  EXPECT_EQ(result.pointsAliased, 0);
  EXPECT_EQ(result.pointsCorrupt, 0);
  EXPECT_GT(result.readMBps, 0);
  EXPECT_TRUE(card.storage() == before);
}

TEST(QuickCheck, CardThatWrapsAfterAQuarterIsCounterfeit) {
  SimulatedDevice card(64 * kMiB, 16 * kMiB, SimulatedDevice::Overflow::wrap, 512);
  const Bytes before = testing::fillWithNoise(card);
  const QuickCheck::Result result = QuickCheck{}.run(card, CancellationFlag{});
  EXPECT_EQ(result.verdict, Verdict::counterfeit);
  EXPECT_GT(result.pointsAliased, 0);
  // The gap between last good and first bad is 16 units; 128 extra points
  // close it completely.
  EXPECT_EQ(result.verifiedBytes, 16 * kMiB);
  EXPECT_EQ(result.claimedBytes, 64 * kMiB);
  EXPECT_TRUE(card.storage() == before);
}

TEST(QuickCheck, RefinementFindsTheRealCapacityWithinOneStep) {
  // 17 first-pass points 1024 units apart; the card ends at unit 4100.
  const std::uint64_t real = 4100 * kUnit;
  SimulatedDevice card(64 * kMiB, real, SimulatedDevice::Overflow::discard, 512);
  const Bytes before = testing::fillWithNoise(card);
  QuickCheck check;
  check.points = 16;
  const QuickCheck::Result result = check.run(card, CancellationFlag{});
  EXPECT_EQ(result.verdict, Verdict::counterfeit);
  EXPECT_EQ(result.pointsAliased, 0);
  EXPECT_GT(result.pointsCorrupt, 0);
  EXPECT_EQ(result.pointsTested, 17 + 128);
  EXPECT_LE(result.verifiedBytes, real);
  EXPECT_LE(real - result.verifiedBytes, 1024 * kUnit / 129 + kUnit);
  EXPECT_EQ(result.verifiedBytes, 4097 * kUnit);  // 4096 + 1024 * 1/129 = 4103 is the first bad
  EXPECT_TRUE(card.storage() == before);
}

TEST(QuickCheck, ScatteredFailuresAreUnreliable) {
  struct Case {
    std::set<std::uint64_t> bad;
    std::uint64_t verifiedUnits;
    std::int64_t tested;
  };
  const Case cases[] = {
      // Refinement probes 1997..1999 between the good 1996 and the bad 2000.
      {{2000, 3000}, 2000, 1028},
      // Unit 0 bad: nothing is verified and there is no gap to refine.
      {{0}, 0, 1025},
  };
  for (const Case& c : cases) {
    SimulatedDevice card = genuineCard(16 * kMiB);
    const Bytes before = testing::fillWithNoise(card);
    FaultyDevice faulty(card);
    corruptVerifyReadsAt(faulty, c.bad);
    const QuickCheck::Result result = QuickCheck{}.run(faulty, CancellationFlag{});
    EXPECT_EQ(result.verdict, Verdict::unreliable);
    EXPECT_EQ(result.verifiedBytes, c.verifiedUnits * kUnit);
    EXPECT_EQ(result.pointsTested, c.tested);
    EXPECT_EQ(result.pointsCorrupt, static_cast<std::int64_t>(c.bad.size()));
    EXPECT_EQ(result.pointsIntact, c.tested - result.pointsCorrupt);
    EXPECT_TRUE(card.storage() == before);
  }
}

TEST(QuickCheck, NeedsSixteenWholeUnits) {
  struct Case {
    std::uint64_t size;
    std::int64_t blockSize;
    bool runs;
  };
  const Case cases[] = {
      {15 * kUnit, 512, false},        {16 * kUnit - 1, 512, false}, {16 * kUnit, 512, true},
      {15 * 8192 + 4096, 8192, false},  // the unit grows to the block size
      {16 * 8192, 8192, true},
  };
  for (const Case& c : cases) {
    SimulatedDevice card(c.size, std::nullopt, SimulatedDevice::Overflow::wrap, c.blockSize);
    if (c.runs) {
      const QuickCheck::Result result = QuickCheck{}.run(card, CancellationFlag{});
      EXPECT_EQ(result.verdict, Verdict::genuine) << c.size;
      EXPECT_EQ(result.pointsTested, 16) << c.size;
      EXPECT_EQ(result.verifiedBytes, c.size) << c.size;
      EXPECT_EQ(result.readMBps, 0) << "no whole 4 MiB to sample";
    } else {
      try {
        QuickCheck{}.run(card, CancellationFlag{});
        ADD_FAILURE() << c.size << " bytes should be too small";
      } catch (const CheckError& error) {
        EXPECT_EQ(error, CheckError::deviceTooSmall());
        EXPECT_EQ(error.description(), "The device is too small to test.");
      }
    }
  }
}

TEST(QuickCheck, ProbesSpreadPointsInTheDesignedOrder) {
  // 5000 whole units and a partial one that is never probed.
  const std::uint64_t units = 5000;
  SimulatedDevice card(units * kUnit + 100, std::nullopt, SimulatedDevice::Overflow::wrap, 4);
  FaultyDevice faulty(card);
  std::vector<std::uint64_t> reads;
  std::vector<std::uint64_t> writes;
  faulty.beforeRead = [&](std::uint64_t offset, std::size_t length) {
    if (length == kUnit) reads.push_back(offset / kUnit);
  };
  faulty.beforeWrite = [&](std::uint64_t offset, std::size_t) { writes.push_back(offset / kUnit); };
  const QuickCheck::Result result = QuickCheck{}.run(faulty, CancellationFlag{});
  EXPECT_EQ(result.claimedBytes, units * kUnit + 100);
  EXPECT_EQ(result.verifiedBytes, units * kUnit);

  std::set<std::uint64_t> expectedSet;
  for (std::uint64_t i = 0; i < 1024; ++i)
    expectedSet.insert(i * units / 1024);
  expectedSet.insert(units - 1);
  const std::vector<std::uint64_t> ascending(expectedSet.begin(), expectedSet.end());
  const std::vector<std::uint64_t> descending(expectedSet.rbegin(), expectedSet.rend());
  const std::size_t n = ascending.size();
  EXPECT_EQ(result.pointsTested, static_cast<std::int64_t>(n));

  // Save ascending, verify ascending; test writes descending, restore descending.
  ASSERT_EQ(reads.size(), 2 * n);
  EXPECT_EQ(std::vector(reads.begin(), reads.begin() + static_cast<std::ptrdiff_t>(n)), ascending);
  EXPECT_EQ(std::vector(reads.begin() + static_cast<std::ptrdiff_t>(n), reads.end()), ascending);
  ASSERT_EQ(writes.size(), 2 * n);
  EXPECT_EQ(std::vector(writes.begin(), writes.begin() + static_cast<std::ptrdiff_t>(n)),
            descending);
  EXPECT_EQ(std::vector(writes.begin() + static_cast<std::ptrdiff_t>(n), writes.end()), descending);
  EXPECT_EQ(faulty.synchronizations, 2);
}

TEST(QuickCheck, ReportsProgressEveryThirtyTwoStepsThenRestoringThenReading) {
  using Phase = CheckProgress::Phase;
  {
    SimulatedDevice card = genuineCard(16 * kUnit);  // 16 points, no read sample
    testing::ProgressLog log;
    QuickCheck{}.run(card, CancellationFlag{}, log.callback());
    const std::vector<CheckProgress> expected = {
        {Phase::probing, 32, 48, std::nullopt},
        {Phase::probing, 48, 48, std::nullopt},
        {Phase::restoring, 0, 16, std::nullopt},
    };
    EXPECT_EQ(log.reports, expected);
  }
  {
    SimulatedDevice card = genuineCard(16 * kMiB);
    testing::ProgressLog log;
    QuickCheck check;
    check.readSampleBytes = 10'000'000;  // three 4 MiB reads; the last one passes the limit
    check.run(card, CancellationFlag{}, log.callback());
    std::vector<CheckProgress> reading;
    for (const CheckProgress& p : log.reports) {
      if (p.phase == Phase::reading) reading.push_back(p);
    }
    ASSERT_EQ(reading.size(), 3u);
    EXPECT_EQ(reading[0].completed, 4 * kMiB);
    EXPECT_EQ(reading[2].completed, 12 * kMiB);
    EXPECT_EQ(reading[2].total, 10'000'000u);
    EXPECT_TRUE(reading[2].bytesPerSecond.has_value());
    EXPECT_EQ(log.reports.back().phase, Phase::reading);
    // 1025 points: probing reports at 32, 64, ... 3072 and at 3075.
    EXPECT_EQ(log.reports[0], (CheckProgress{Phase::probing, 32, 3075, std::nullopt}));
  }
}

// Whatever ends a run early, the card must hold exactly its old bytes
// before the error reaches the caller.
TEST(QuickCheck, CardDataIsRestoredWhenARunIsCancelled) {
  constexpr int n = 1025;  // points of a 16 MiB card
  struct Case {
    std::string name;
    // Sets the flag from inside the run: (faulty, flag).
    std::function<void(FaultyDevice&, CancellationFlag&)> arm;
    int expectedWrites;
  };
  const Case cases[] = {
      {"before the run", [](FaultyDevice&, CancellationFlag& flag) { flag.cancel(); }, 0},
      {"while saving",
       [](FaultyDevice& d, CancellationFlag& flag) {
         d.beforeRead = [&d, &flag](std::uint64_t, std::size_t) {
           if (d.reads == 10) flag.cancel();
         };
       },
       0},
      // The write in progress completes; all it wrote is put back.
      {"at the first test write",
       [](FaultyDevice& d, CancellationFlag& flag) {
         d.beforeWrite = [&flag](std::uint64_t, std::size_t) { flag.cancel(); };
       },
       1 + n},
      {"in the middle of the writes",
       [](FaultyDevice& d, CancellationFlag& flag) {
         d.beforeWrite = [&d, &flag](std::uint64_t, std::size_t) {
           if (d.writes == 500) flag.cancel();
         };
       },
       500 + n},
      // Verification is not interrupted; the read sample stops the run.
      {"while verifying",
       [](FaultyDevice& d, CancellationFlag& flag) {
         d.beforeRead = [&d, &flag](std::uint64_t, std::size_t) {
           if (d.reads == n + 5) flag.cancel();
         };
       },
       2 * n},
      {"during the read sample",
       [](FaultyDevice& d, CancellationFlag& flag) {
         d.beforeRead = [&d, &flag](std::uint64_t, std::size_t length) {
           if (length == 4 * kMiB && d.reads > 2 * n) flag.cancel();
         };
       },
       2 * n},
  };
  for (const Case& c : cases) {
    SimulatedDevice card = genuineCard(16 * kMiB);
    const Bytes before = testing::fillWithNoise(card);
    FaultyDevice faulty(card);
    CancellationFlag flag;
    c.arm(faulty, flag);
    try {
      QuickCheck{}.run(faulty, flag);
      ADD_FAILURE() << c.name << ": not cancelled";
    } catch (const CheckError& error) {
      EXPECT_EQ(error, CheckError::cancelled()) << c.name;
      EXPECT_EQ(error.description(), "The test was stopped.");
    }
    EXPECT_EQ(faulty.writes, c.expectedWrites) << c.name;
    EXPECT_TRUE(card.storage() == before) << c.name;
  }
}

TEST(QuickCheck, CardDataIsRestoredWhenTheRefinementIsCancelled) {
  SimulatedDevice card(64 * kMiB, 16 * kMiB, SimulatedDevice::Overflow::wrap, 512);
  const Bytes before = testing::fillWithNoise(card);
  FaultyDevice faulty(card);
  CancellationFlag flag;
  // First pass: 1025 test writes and 1025 restores; the refinement starts after.
  faulty.beforeWrite = [&](std::uint64_t, std::size_t) {
    if (faulty.writes == 2 * 1025 + 3) flag.cancel();
  };
  EXPECT_THROW(QuickCheck{}.run(faulty, flag), CheckError);
  EXPECT_GT(faulty.writes, 2 * 1025 + 3);
  EXPECT_TRUE(card.storage() == before);
}

TEST(QuickCheck, CardDataIsRestoredAfterADeviceFailure) {
  constexpr int n = 1025;
  const auto writeFailure = WriteError::writeFailed(4096, EIO);
  const auto syncFailure = WriteError::writeFailed(0, EIO);
  const auto readFailure = DeviceError::readFailed(8192, EIO);
  struct Case {
    std::string name;
    std::function<void(FaultyDevice&)> arm;
    std::function<void(const std::exception_ptr&)> check;
  };
  const auto expectWriteError = [](WriteError expected) {
    return [expected](const std::exception_ptr& error) {
      try {
        std::rethrow_exception(error);
      } catch (const WriteError& e) {
        EXPECT_EQ(e, expected);
      } catch (...) {
        ADD_FAILURE() << "not a WriteError";
      }
    };
  };
  const Case cases[] = {
      {"test write fails",
       [&](FaultyDevice& d) {
         d.beforeWrite = [&d, writeFailure](std::uint64_t, std::size_t) {
           if (d.writes == 7) throw writeFailure;
         };
       },
       expectWriteError(writeFailure)},
      {"synchronize fails",
       [&](FaultyDevice& d) {
         d.beforeSynchronize = [&d, syncFailure] {
           if (d.synchronizations == 1) throw syncFailure;
         };
       },
       expectWriteError(syncFailure)},
      {"verify read fails",
       [&](FaultyDevice& d) {
         d.beforeRead = [&d, readFailure](std::uint64_t, std::size_t) {
           if (d.reads == n + 3) throw readFailure;
         };
       },
       [&](const std::exception_ptr& error) {
         try {
           std::rethrow_exception(error);
         } catch (const DeviceError& e) {
           EXPECT_EQ(e, readFailure);
         } catch (...) {
           ADD_FAILURE() << "not a DeviceError";
         }
       }},
      {"something unexpected",
       [](FaultyDevice& d) {
         d.beforeWrite = [&d](std::uint64_t, std::size_t) {
           if (d.writes == 2) throw std::runtime_error("odd");
         };
       },
       [](const std::exception_ptr& error) {
         EXPECT_THROW(std::rethrow_exception(error), std::runtime_error);
       }},
  };
  for (const Case& c : cases) {
    SimulatedDevice card = genuineCard(16 * kMiB);
    const Bytes before = testing::fillWithNoise(card);
    FaultyDevice faulty(card);
    c.arm(faulty);
    std::exception_ptr error;
    try {
      QuickCheck{}.run(faulty, CancellationFlag{});
    } catch (...) {
      error = std::current_exception();
    }
    ASSERT_TRUE(error) << c.name;
    c.check(error);
    EXPECT_TRUE(card.storage() == before) << c.name;
  }
}

TEST(QuickCheck, ASaveReadFailureLeavesTheCardUntouched) {
  SimulatedDevice card = genuineCard(16 * kMiB);
  const Bytes before = testing::fillWithNoise(card);
  card.unreadableBlocks().insert(4 * 8 * 100);  // unit 400, a first-pass point
  FaultyDevice faulty(card);
  try {
    QuickCheck{}.run(faulty, CancellationFlag{});
    ADD_FAILURE() << "no error";
  } catch (const DeviceError& error) {
    EXPECT_EQ(error, DeviceError::readFailed(400 * kUnit, EIO));
  }
  EXPECT_EQ(faulty.writes, 0);
  EXPECT_TRUE(card.storage() == before);
}

TEST(QuickCheck, AFailedRestoreNamesTheFirstPointNotPutBack) {
  constexpr int n = 1025;
  struct Case {
    int failingWrite;  // counted over the whole run
    std::uint64_t offset;
  };
  // Restores run from the last unit (4095) down: 4095, 4092, 4088, ...
  const Case cases[] = {{n + 1, 4095 * kUnit}, {n + 3, 4088 * kUnit}};
  for (const Case& c : cases) {
    SimulatedDevice card = genuineCard(16 * kMiB);
    FaultyDevice faulty(card);
    faulty.beforeWrite = [&](std::uint64_t offset, std::size_t) {
      if (faulty.writes == c.failingWrite) throw WriteError::writeFailed(offset, EIO);
    };
    try {
      QuickCheck{}.run(faulty, CancellationFlag{});
      ADD_FAILURE() << "no error";
    } catch (const CheckError& error) {
      EXPECT_EQ(error, CheckError::restoreFailed(c.offset));
      EXPECT_EQ(error.description(),
                "Couldn't put back the original data at offset " + std::to_string(c.offset) +
                    ". The card may be failing; copy anything important off it now.");
    }
    EXPECT_EQ(faulty.writes, c.failingWrite) << "the remaining points are not restored";
  }

  // A restore that writes everything back but cannot synchronize fails with
  // the synchronize error.
  SimulatedDevice card = genuineCard(16 * kMiB);
  FaultyDevice faulty(card);
  faulty.beforeSynchronize = [&] {
    if (faulty.synchronizations == 2) throw WriteError::writeFailed(0, EIO);
  };
  EXPECT_THROW(QuickCheck{}.run(faulty, CancellationFlag{}), WriteError);
  EXPECT_EQ(faulty.writes, 2 * n);
}

}  // namespace
}  // namespace vellum

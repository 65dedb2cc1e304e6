#include "checks/CheckTestSupport.h"
#include "checks/QuickCheck.h"

namespace vellum {
namespace {

using namespace testing;
using Verdict = QuickCheck::Result::Verdict;

constexpr std::uint64_t kUnit = 4096;
constexpr std::uint64_t kCard = 16 * kMiB;
constexpr int kPoints = 1025;  // first-pass points of a 16 MiB card: every 4th unit and the last

// Counterfeit controllers wrap at a power of two, lose what lies past the
// real flash, or both; sellers label sizes in decimal, so the claimed size is
// rarely a power-of-two multiple of the real one.
TEST(QuickCheck, CatchesEveryCounterfeitGeometryAndMeasuresItsRealCapacity) {
  constexpr std::uint64_t GB = 1'000'000'000, GiB = 1024 * kMiB;
  const std::uint64_t claimed[] = {1 * GB, 3 * GiB, 12 * GiB, 64 * GB, 1500 * GiB, 2000 * GB};
  const std::pair<std::uint64_t, Overflow> fakes[] = {
      {16 * kMiB, Overflow::wrap},     {32 * kMiB, Overflow::wrap},
      {16 * kMiB, Overflow::discard},  {20 * kMiB + 12 * kKiB, Overflow::discard},
      {24 * kMiB, Overflow::combined}, {17 * kMiB, Overflow::combined}};
  for (const std::uint64_t size : claimed) {
    for (const auto& [real, overflow] : fakes) {
      SimulatedDevice card(size, real, overflow, 512);
      const Bytes before = fillWithNoise(card);
      QuickCheck check;
      check.readSampleBytes = 0;
      const QuickCheck::Result r = check.run(card, CancellationFlag{});
      const auto name = std::to_string(size) + " over " + std::to_string(real) + " " +
                        std::to_string(static_cast<int>(overflow));
      EXPECT_EQ(r.verdict, Verdict::counterfeit) << name;
      EXPECT_LE(r.verifiedBytes, real) << name;
      EXPECT_GE(r.verifiedBytes, real - real / 1000) << name;
      EXPECT_EQ(r.pointsIntact + r.pointsAliased + r.pointsCorrupt, r.pointsTested) << name;
      EXPECT_TRUE(card.storage() == before) << name << ": data not restored";
    }
  }
  // Genuine cards of odd sizes stay genuine.
  for (const std::uint64_t size : {std::uint64_t{23'456'789}, 50 * kMiB + 4096}) {
    SimulatedDevice card(size, std::nullopt, Overflow::wrap, 512);
    fillWithNoise(card);
    const QuickCheck::Result r = QuickCheck{}.run(card, CancellationFlag{});
    EXPECT_EQ(std::tuple(r.verdict, r.verifiedBytes, r.pointsAliased, r.pointsCorrupt),
              std::tuple(Verdict::genuine, size / kUnit * kUnit, 0, 0))
        << size;
  }
}

TEST(QuickCheck, VerdictsOnDamagedCards) {
  // clang-format off
  const std::tuple<std::uint64_t, std::uint64_t, Overflow, std::set<std::uint64_t>,
                   std::set<std::uint64_t>, Verdict, std::uint64_t, std::int64_t, std::int64_t,
                   std::int64_t> cases[] = {
      // size, real, overflow, units damaged when read back after the writes, unreadable
      // units: verdict, verified units, points tested, aliased, corrupt
      {kCard, kCard, Overflow::wrap, {}, {}, Verdict::genuine, 4096, kPoints, 0, 0},
      // Points 16 units apart, all above 4096 wrapped (unit 16383 onto unprobed 4095);
      // refinement adds 4095 and 4096 around the wrap.
      {64 * kMiB, kCard, Overflow::wrap, {}, {}, Verdict::counterfeit, 4096, 1025 + 15, 769, 0},
      // Refinement adds 1997..1999 between the good 1996 and the bad 2000.
      {kCard, kCard, Overflow::wrap, {2000, 3000}, {}, Verdict::unreliable, 2000, kPoints + 3, 0,
       2},
      {kCard, kCard, Overflow::wrap, {0}, {}, Verdict::unreliable, 0, kPoints, 0, 1},  // unit 0
      // A point whose data can't be read is not written and counts as corrupt; an
      // unreadable piece of the read sample is skipped.
      {kCard, kCard, Overflow::wrap, {}, {2000, 2100}, Verdict::unreliable, 2000,
       kPoints + 3, 0, 2},
  };
  // clang-format on
  for (const auto& [size, real, overflow, damaged, unreadable, verdict, verified, tested, aliased,
                    corrupt] : cases) {
    SimulatedDevice card(size, real, overflow, 512);
    const Bytes before = fillWithNoise(card);
    for (const std::uint64_t u : unreadable)
      card.unreadableBlocks().insert(u * kUnit / 512);
    FaultyDevice faulty(card);
    int written = 0;
    faulty.beforeWrite = [&, &unreadable = unreadable](std::uint64_t offset, std::size_t) {
      written += unreadable.contains(offset / kUnit);
    };
    faulty.afterRead = [&, &damaged = damaged](std::uint64_t offset,
                                               std::span<std::uint8_t> bytes) {
      if (faulty.writes > 0 && damaged.contains(offset / kUnit)) bytes[100] ^= 0xFF;
    };
    // Every read takes its length at 40 MB/s; the read sample times its
    // pieces that could be read.
    double now = 0;
    faulty.beforeRead = [&now](std::uint64_t, std::size_t n) { now += double(n) / 40e6; };
    QuickCheck check;
    check.readSampleBytes = 8 * kMiB;
    check.cacheFlushBytes = 0;
    check.clock = [&now] { return now; };
    const QuickCheck::Result r = check.run(faulty, CancellationFlag{});
    EXPECT_EQ(std::tuple(r.verdict, r.claimedBytes, r.verifiedBytes, r.pointsTested,
                         r.pointsAliased, r.pointsCorrupt, r.pointsIntact, written),
              std::tuple(verdict, size, verified * kUnit, tested, aliased, corrupt,
                         tested - aliased - corrupt, 0))
        << size << " " << real << " " << damaged.size();
    EXPECT_NEAR(r.readMBps, 40, 1e-6);
    EXPECT_TRUE(card.storage() == before) << "data not restored";
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
                  ? ""
                  : "The device is too small to test.");
  }
  // 1024 points spread over 5000 units plus the last; the partial unit is never probed.
  SimulatedDevice card(5000 * kUnit + 100, std::nullopt, Overflow::wrap, 4);
  FaultyDevice faulty(card);
  std::set<std::uint64_t> probed;
  faulty.beforeWrite = [&](std::uint64_t offset, std::size_t) { probed.insert(offset); };
  const QuickCheck::Result result =
      QuickCheck{.cacheFlushBytes = 0, .clock = {}}.run(faulty, CancellationFlag{});
  EXPECT_EQ(std::tuple(result.claimedBytes, result.verifiedBytes, result.pointsTested),
            std::tuple(5000 * kUnit + 100, 5000 * kUnit, 1025));
  EXPECT_EQ(std::tuple(probed.size(), *probed.rbegin(), faulty.synchronizations),
            std::tuple(1025u, 4999 * kUnit, 2));
  EXPECT_TRUE(probed.contains(1023 * 5000 / 1024 * kUnit));
}

// Whatever ends a run early, the card holds exactly its old bytes before the
// error reaches the caller.
TEST(QuickCheck, CardDataIsRestoredBeforeAnyErrorReachesTheCaller) {
  using enum Act;
  // clang-format off
  const std::tuple<Step, std::string, int, std::uint64_t> cases[] = {
      // the step, the error, writes that reached the device (restores included; -1: more than
      // 2053), real capacity
      {{cancel, kReads, 0}, kStopped, 0, kCard},
      {{cancel, kReads, 10}, kStopped, 0, kCard},  // while saving
      // The write under way completes; everything written is put back.
      {{cancel, kWrites, 500}, kStopped, 500 + kPoints, kCard},
      // Verification runs on; the read sample notices the flag.
      {{cancel, kReads, kPoints + 5}, kStopped, 2 * kPoints, kCard},
      {{cancel, kReads, 2 * kPoints + 2}, kStopped, 2 * kPoints, kCard},  // in the read sample
      // A quarter-size fake: the first pass makes 1025 test writes and 1025 restores.
      {{cancel, kWrites, 2 * 1025 + 3}, kStopped, -1, 4 * kMiB},
      {{fail, kWrites, 7}, "Write failed at offset 16678912: Input/output error", 7 + kPoints,
       kCard},
      {{fail, kSyncs, 1}, "Write failed at offset 0: Input/output error", 2 * kPoints, kCard},
      {{unplug, kWrites, 2}, "unplugged", 2 + kPoints, kCard},
      // Restores run from the last unit down: 4095, 4092, 4088, ...; the rest are not attempted.
      {{fail, kWrites, kPoints + 1}, CheckError::restoreFailed(4095 * kUnit).description(),
       kPoints + 1, kCard},
      {{fail, kWrites, kPoints + 3}, "Couldn't put back the original data at offset 16744448. "
       "The card may be failing; copy anything important off it now.", kPoints + 3, kCard},
  };
  // clang-format on
  for (const auto& [step, error, writes, real] : cases) {
    SimulatedDevice card(kCard, real, Overflow::wrap, 512);
    const Bytes before = fillWithNoise(card);
    FaultyDevice faulty(card);
    CancellationFlag flag;
    step.arm(faulty, flag);
    EXPECT_EQ(errorText([&] { QuickCheck{.cacheFlushBytes = 0, .clock = {}}.run(faulty, flag); }),
              error)
        << step.k;
    EXPECT_TRUE(writes >= 0 ? faulty.writes == writes : faulty.writes > 2 * 1025 + 3)
        << error << ": " << faulty.writes << " writes";
    EXPECT_TRUE(error.starts_with("Couldn't put back") || card.storage() == before)
        << error << " at " << step.k << ": data not restored";
  }
}

}  // namespace
}  // namespace vellum

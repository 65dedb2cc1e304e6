#include "checks/CheckTestSupport.h"
#include "checks/QuickCheck.h"

namespace vellum {
namespace {

using namespace testing;
using Verdict = QuickCheck::Result::Verdict;

constexpr std::uint64_t kUnit = 4096;
constexpr std::uint64_t kCard = 16 * kMiB;
constexpr int kPoints = 1025;  // first-pass points of a 16 MiB card: every 4th unit and the last

TEST(QuickCheck, VerdictsAndVerifiedCapacity) {
  // clang-format off
  const std::tuple<std::uint64_t, std::uint64_t, Overflow, std::int64_t, std::set<std::uint64_t>,
                   Verdict, std::uint64_t, std::int64_t, std::int64_t, std::int64_t> cases[] = {
      // size, real, overflow, points, units damaged when read back after the writes:
      // verdict, verified units, points tested, aliased, corrupt
      {kCard, kCard, Overflow::wrap, 1024, {}, Verdict::genuine, 4096, kPoints, 0, 0},
      // Points 16 units apart; the boundary at 4096 is probed and the
      // refinement closes the gap below it. Unit 16383 lands on unprobed 4095.
      {64 * kMiB, kCard, Overflow::wrap, 1024, {}, Verdict::counterfeit, 4096, 1025 + 15, 768, 0},
      // 17 points 1024 units apart, real end at 4100; the first refined
      // point past it is 4096 + 1024/129 = 4103, one step (7.9 units) away.
      {64 * kMiB, 4100 * kUnit, Overflow::discard, 16, {}, Verdict::counterfeit, 4097, 17 + 128,
       0, 12 + 128},
      // Refinement adds 1997..1999 between the good 1996 and the bad 2000.
      {kCard, kCard, Overflow::wrap, 1024, {2000, 3000}, Verdict::unreliable, 2000, kPoints + 3,
       0, 2},
      {kCard, kCard, Overflow::wrap, 1024, {0}, Verdict::unreliable, 0, kPoints, 0, 1},  // unit 0
  };
  // clang-format on
  for (const auto& [size, real, overflow, points, damaged, verdict, verified, tested, aliased,
                    corrupt] : cases) {
    SimulatedDevice card(size, real, overflow, 512);
    const Bytes before = fillWithNoise(card);
    FaultyDevice faulty(card);
    faulty.afterRead = [&](std::uint64_t offset, std::span<std::uint8_t> bytes) {
      if (faulty.writes > 0 && damaged.contains(offset / kUnit)) bytes[100] ^= 0xFF;
    };
    QuickCheck check;
    check.points = points;
    const QuickCheck::Result r = check.run(faulty, CancellationFlag{});
    EXPECT_EQ(std::tuple(r.verdict, r.claimedBytes, r.verifiedBytes, r.pointsTested,
                         r.pointsAliased, r.pointsCorrupt, r.pointsIntact),
              std::tuple(verdict, size, verified * kUnit, tested, aliased, corrupt,
                         tested - aliased - corrupt))
        << size << " " << real << " " << damaged.size();
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
                  ? "no error"
                  : "The device is too small to test.");
  }
  // 1024 points spread over 5000 units plus the last; the partial unit is never probed.
  SimulatedDevice card(5000 * kUnit + 100, std::nullopt, Overflow::wrap, 4);
  FaultyDevice faulty(card);
  std::set<std::uint64_t> probed;
  faulty.beforeWrite = [&](std::uint64_t offset, std::size_t) { probed.insert(offset); };
  const QuickCheck::Result result = QuickCheck{}.run(faulty, CancellationFlag{});
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
  const auto readAt = [](std::uint64_t unit) {
    return DeviceError::readFailed(unit * kUnit, EIO).description();
  };
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
      {{fail, kReads, 400}, readAt(1596), 0, kCard},  // saving
      {{fail, kWrites, 7}, "Write failed at offset 16678912: Input/output error", 7 + kPoints,
       kCard},
      {{fail, kSyncs, 1}, "Write failed at offset 0: Input/output error", 2 * kPoints, kCard},
      {{fail, kReads, kPoints + 3}, readAt(8), 2 * kPoints, kCard},  // verifying
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
    EXPECT_EQ(errorText([&] { QuickCheck{}.run(faulty, flag); }), error) << step.k;
    EXPECT_TRUE(writes >= 0 ? faulty.writes == writes : faulty.writes > 2 * 1025 + 3)
        << error << ": " << faulty.writes << " writes";
    EXPECT_TRUE(error.starts_with("Couldn't put back") || card.storage() == before)
        << error << " at " << step.k << ": data not restored";
  }
}

}  // namespace
}  // namespace vellum

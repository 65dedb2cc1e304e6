#include "checks/CheckTestSupport.h"
#include "checks/FullTest.h"

namespace vellum {
namespace {

using namespace testing;
using Verdict = FullTest::Result::Verdict;

constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kChunk = 64 * 1024;  // 16 blocks: a 4 MiB card has 64 chunks
const FullTest kSmallChunks{.chunkBytes = kChunk, .clock = {}};

TEST(FullTest, GenuineCardGetsTheClassOfItsSustainedWriteSpeed) {
  SimulatedDevice card(4 * kMiB, std::nullopt, Overflow::wrap, 512);
  FaultyDevice faulty(card);
  // A clock that moves only with the transfers. Chunk i is written at
  // 5 + i/4 MB/s, so the 64 write samples are all different: the sustained
  // speed is the 10th percentile, sample 6 of 0..63 in order (6.5 MB/s),
  // which makes the card Class 6; the minimum is 5 and the average 12.875.
  double now = 1000;
  double written = 0;
  faulty.beforeWrite = [&](std::uint64_t offset, std::size_t n) {
    const double seconds = double(n) / ((5 + double(offset / kChunk) / 4) * 1e6);
    now += seconds;
    written += seconds;
  };
  faulty.beforeRead = [&](std::uint64_t, std::size_t n) { now += double(n) / 50e6; };
  const FullTest test{.chunkBytes = kChunk, .clock = [&now] { return now; }};
  std::vector<CheckProgress> log;
  const auto r = test.run(faulty, {}, [&log](const CheckProgress& p) { log.push_back(p); });
  EXPECT_EQ(std::tuple(r.verdict, r.goodBlocks, r.usableBytes, r.holdsBytes, r.speedClass),
            std::tuple(Verdict::genuine, 1024, 4 * kMiB, 4 * kMiB, SpeedClass::class6));
  EXPECT_NEAR(r.write.sustainedMBps, 6.5, 1e-6);
  EXPECT_NEAR(r.write.minimumMBps, 5, 1e-6);
  EXPECT_NEAR(r.write.averageMBps, 12.875, 1e-6);
  EXPECT_NEAR(r.read.averageMBps, 50, 1e-6);
  EXPECT_NEAR(r.duration, written + 4.0 * kMiB / 50e6, 1e-9);
  ASSERT_EQ(log.size(), 128u);  // every chunk written, then every chunk verified
  EXPECT_EQ(
      std::tuple(log[63].phase, log[63].completed, log[64].phase, log[64].completed),
      std::tuple(CheckProgress::Phase::writing, 4 * kMiB, CheckProgress::Phase::verifying, kChunk));
}

TEST(FullTest, VerdictsOfFakeFailingAndFlakyCards) {
  using Damage = std::function<void(FaultyDevice&)>;
  using Span = std::span<std::uint8_t>;
  // clang-format off
  const Damage none = [](FaultyDevice&) {};
  const auto flip = [](std::set<std::uint64_t> blocks) -> Damage {  // one byte each, as read back
    return [blocks](FaultyDevice& d) { d.afterRead = [blocks](std::uint64_t offset, Span bytes) {
      for (const std::uint64_t at : blocks)  // unsigned: blocks before offset wrap past the end
        if (at * kBlock + 2000 - offset < bytes.size()) bytes[at * kBlock + 2000 - offset] ^= 0x10;
    }; };
  };
  const auto fail = [](int FaultyDevice::*counter, int k) -> Damage {
    return [=](FaultyDevice& d) { failAt(d, counter, k); };
  };
  const Damage landsButFails = [](FaultyDevice& d) { d.afterWrite = [](std::uint64_t at, auto) {
    if (at == 0) throw WriteError::writeFailed(0, EIO); }; };
  const Damage badSector = [](FaultyDevice& d) { d.beforeRead = [](std::uint64_t at, auto n) {
    if (300 * kBlock + 1536 - at < n) throw DeviceError::readFailed(at, EIO); }; };  // block 300
  const Damage shortRead = [](FaultyDevice& d) { d.afterRead = [](std::uint64_t at, Span bytes) {
    if (at == 5 * kChunk && bytes.size() == kChunk) std::fill(bytes.end() - 12288, bytes.end(), 0);
  }; };
  const std::optional<std::uint64_t> allGood;
  const std::set<std::uint64_t> lastTen = {1014, 1015, 1016, 1017, 1018, 1019, 1020, 1021, 1022,
                                           1023};
  std::set<std::uint64_t> nineOfTen = lastTen;
  nineOfTen.erase(1019);
  using enum SimulatedDevice::Overflow;
  using enum FullTest::Result::Verdict;
  const std::tuple<std::uint64_t, Overflow, Damage, Verdict, std::int64_t, std::int64_t,
                   std::int64_t, std::int64_t, std::optional<std::uint64_t>, std::size_t>
      cases[] = {
      // real capacity, overflow, damage: verdict, good, aliased, corrupt, write errors,
      // first bad offset, read speed samples
      // Blocks 256 and up land on the real first megabyte, so only the last
      // quarter written survives; everything else reads back another block.
      {kMiB, wrap, none, counterfeit, 256, 768, 0, 0, 0, 64},
      // The missing three quarters read as zeros: bad / rest = 1.0.
      {kMiB, discard, none, counterfeit, 256, 0, 768, 0, kMiB, 64},
      {4 * kMiB, wrap, flip({100, 500}), failing, 1022, 0, 2, 0, 100 * kBlock, 64},
      // 9 bad of the last 10 is not more than 0.9; 10 of 10 is.
      {4 * kMiB, wrap, flip(nineOfTen), failing, 1015, 0, 9, 0, 1014 * kBlock, 64},
      {4 * kMiB, wrap, flip(lastTen), counterfeit, 1014, 0, 10, 0, 1014 * kBlock, 64},
      // The eleventh chunk's write fails: its 16 blocks read as old zeros.
      {4 * kMiB, wrap, fail(kWrites, 11), failing, 1008, 0, 16, 1, 10 * kChunk, 64},
      {4 * kMiB, wrap, landsButFails, failing, 1024, 0, 0, 1, allGood, 64},
      // The fourth chunk's read fails, its blocks read fine one by one: no sample.
      {4 * kMiB, wrap, fail(kReads, 4), genuine, 1024, 0, 0, 0, allGood, 63},
      // One unreadable 512-byte sector spoils exactly its 4096-byte block.
      {4 * kMiB, wrap, badSector, failing, 1023, 0, 1, 0, 300 * kBlock, 63},
      // The blocks a short chunk read did not return are corrupt.
      {4 * kMiB, wrap, shortRead, failing, 1021, 0, 3, 0, 6 * kChunk - 3 * kBlock, 64},
  };
  // clang-format on
  for (const auto& [real, overflow, damage, verdict, good, aliased, corrupt, writeErrors, firstBad,
                    samples] : cases) {
    SimulatedDevice card(4 * kMiB, real, overflow, 512);
    FaultyDevice faulty(card);
    damage(faulty);
    const FullTest::Result r = kSmallChunks.run(faulty, CancellationFlag{});
    EXPECT_EQ(std::tuple(r.verdict, r.goodBlocks, r.aliasedBlocks, r.corruptBlocks, r.writeErrors,
                         r.firstBadOffset, r.read.curve.size()),
              std::tuple(verdict, good, aliased, corrupt, writeErrors, firstBad, samples));
    EXPECT_EQ(
        std::tuple(r.usableBytes, r.holdsBytes, r.speedClass.has_value(), r.write.curve.size()),
        std::tuple(firstBad.value_or(4 * kMiB), std::uint64_t(good) * kBlock,
                   verdict == Verdict::genuine, 64u))
        << "a failed write still gives a speed sample";
  }
}

TEST(FullTest, TestsOnlyWholeBlocks) {
  for (const std::uint64_t size : {4095ul, 4096ul, 10 * 4096ul + 100}) {
    SimulatedDevice card(size, std::nullopt, Overflow::wrap, 1);
    FullTest::Result r;
    EXPECT_EQ(errorText([&] { r = FullTest{}.run(card, CancellationFlag{}); }),
              size < kBlock ? "The device is too small to test." : "");
    const std::uint64_t whole = size / kBlock * kBlock;
    EXPECT_EQ(std::tuple(r.claimedBytes, r.usableBytes), std::tuple(whole > 0 ? size : 0, whole));
    EXPECT_EQ(part(card.storage(), whole, size - whole), Bytes(size - whole, 0))
        << "the trailing partial block is never written";
  }
}

// Thrown while the worker builds the next chunk or verifies the last one, an
// error still ends the run with no thread outliving it.
TEST(FullTest, StopsOnlyForCancellationSynchronizeAndTheUnexpected) {
  using enum Act;
  // clang-format off
  const std::tuple<Step, std::string, int, int> cases[] = {
      {{cancel, kReads, 0}, kStopped, 0, 0},
      {{cancel, kWrites, 3}, kStopped, 3, 0},
      {{cancel, kReads, 10}, kStopped, 64, 10},
      {{fail, kSyncs, 1}, "Write failed at offset 0: Input/output error", 64, 0},
      {{unplug, kWrites, 6}, "unplugged", 6, 0},
      {{unplug, kReads, 5}, "unplugged", 64, 5},
  };
  // clang-format on
  for (const auto& [step, error, writes, reads] : cases) {
    SimulatedDevice card(4 * kMiB, std::nullopt, Overflow::wrap, 512);
    FaultyDevice faulty(card);
    CancellationFlag flag;
    step.arm(faulty, flag);
    EXPECT_EQ(errorText([&] { kSmallChunks.run(faulty, flag); }), error);
    EXPECT_EQ(std::pair(faulty.writes, faulty.reads), std::pair(writes, reads)) << error;
  }
}

}  // namespace
}  // namespace vellum

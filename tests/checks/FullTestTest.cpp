#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "bytes/DeviceError.h"
#include "checks/CheckTestSupport.h"
#include "checks/FullTest.h"
#include "devices/WriteError.h"

namespace vellum {
namespace {

using namespace testing;
using Verdict = FullTest::Result::Verdict;

constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kChunk = 64 * 1024;  // 16 blocks: a 4 MiB card has 64 chunks

FullTest smallChunks() {
  FullTest test;
  test.chunkBytes = kChunk;
  return test;
}

TEST(FullTest, GenuineCardGetsTheClassOfItsSustainedWriteSpeed) {
  SimulatedDevice card(4 * kMiB, std::nullopt, Overflow::wrap, 512);
  FaultyDevice faulty(card);
  FakeClock time;
  faulty.beforeWrite = [&](std::uint64_t, std::size_t n) { time.now += double(n) / 12e6; };
  faulty.beforeRead = [&](std::uint64_t, std::size_t n) { time.now += double(n) / 50e6; };
  FullTest test = smallChunks();
  test.clock = time.clock();
  ProgressLog log;
  const FullTest::Result result = test.run(faulty, CancellationFlag{}, log.callback());
  EXPECT_EQ(std::tuple(result.verdict, result.goodBlocks, result.usableBytes, result.holdsBytes),
            std::tuple(Verdict::genuine, 1024, 4 * kMiB, 4 * kMiB));
  EXPECT_NEAR(result.write.sustainedMBps, 12, 1e-6);
  EXPECT_NEAR(result.read.averageMBps, 50, 1e-6);
  EXPECT_EQ(result.speedClass, SpeedClass::class10);
  EXPECT_NEAR(result.duration, 4.0 * kMiB / 12e6 + 4.0 * kMiB / 50e6, 1e-9);
  ASSERT_EQ(log.reports.size(), 128u);  // every chunk written, then every chunk verified
  EXPECT_EQ(log.reports[63], (CheckProgress{CheckProgress::Phase::writing, 4 * kMiB, 4 * kMiB,
                                            log.reports[63].bytesPerSecond}));
  EXPECT_EQ(log.reports[64].phase, CheckProgress::Phase::verifying);
  EXPECT_EQ(log.reports[64].completed, kChunk);
}

TEST(FullTest, VerdictsOfFakeFailingAndFlakyCards) {
  struct Case {
    std::string name;
    std::uint64_t real;
    Overflow overflow;
    std::function<void(FaultyDevice&, SimulatedDevice&)> damage;
    Verdict verdict;
    std::int64_t good, aliased, corrupt, writeErrors;
    std::optional<std::uint64_t> firstBad;
    std::size_t readSamples;
  };
  const auto none = [](FaultyDevice&, SimulatedDevice&) {};
  // Damages one byte of each listed block as it is read back.
  const auto flip = [](std::set<std::uint64_t> blocks) {
    return [blocks](FaultyDevice& d, SimulatedDevice&) {
      d.afterRead = [blocks](std::uint64_t offset, std::span<std::uint8_t> bytes) {
        for (const std::uint64_t b : blocks)
          if (b * kBlock + 2000 >= offset && b * kBlock + 2000 < offset + bytes.size())
            bytes[b * kBlock + 2000 - offset] ^= 0x10;
      };
    };
  };
  const auto hook = [](FaultyDevice::Hook FaultyDevice::*which, std::uint64_t at,
                       std::size_t length, bool isWrite) {
    return [=](FaultyDevice& d, SimulatedDevice&) {
      d.*which = [=](std::uint64_t offset, std::size_t n) {
        if (offset != at || (length != 0 && n != length)) return;
        if (isWrite) throw WriteError::writeFailed(offset, EIO);
        throw DeviceError::readFailed(offset, EIO);
      };
    };
  };
  // clang-format off
  const Case cases[] = {
      // Blocks 256 and up land on the real first megabyte, so only the last
      // quarter written survives; everything else reads back another block.
      {"wraps after a quarter", kMiB, Overflow::wrap, none, Verdict::counterfeit, 256, 768, 0, 0, 0, 64},
      // The missing three quarters read as zeros: bad / rest = 1.0.
      {"loses writes past a quarter", kMiB, Overflow::discard, none,
       Verdict::counterfeit, 256, 0, 768, 0, kMiB, 64},
      {"two corrupt blocks in different chunks", 4 * kMiB, Overflow::wrap, flip({100, 500}),
       Verdict::failing, 1022, 0, 2, 0, 100 * kBlock, 64},
      // 9 bad of the last 10 is not more than 0.9; 10 of 10 is.
      {"nine of the last ten", 4 * kMiB, Overflow::wrap, flip({1014, 1015, 1016, 1017, 1018, 1020, 1021, 1022, 1023}),
       Verdict::failing, 1015, 0, 9, 0, 1014 * kBlock, 64},
      {"all of the last ten", 4 * kMiB, Overflow::wrap, flip({1014, 1015, 1016, 1017, 1018, 1019, 1020, 1021, 1022, 1023}),
       Verdict::counterfeit, 1014, 0, 10, 0, 1014 * kBlock, 64},
      // The failed chunk never arrives: its 16 blocks read as old zeros.
      {"a failed chunk write", 4 * kMiB, Overflow::wrap, hook(&FaultyDevice::beforeWrite, 10 * kChunk, 0, true),
       Verdict::failing, 1008, 0, 16, 1, 10 * kChunk, 64},
      // Reported as failed although the data arrived.
      {"a write that lands but fails", 4 * kMiB, Overflow::wrap, hook(&FaultyDevice::afterWrite, 0, 0, true),
       Verdict::failing, 1024, 0, 0, 1, std::nullopt, 64},
      // A chunk read fails but its blocks read fine one by one: no sample.
      {"a chunk read that fails as a whole", 4 * kMiB, Overflow::wrap,
       hook(&FaultyDevice::beforeRead, 3 * kChunk, kChunk, false), Verdict::genuine, 1024, 0, 0, 0, std::nullopt, 63},
      // One unreadable 512-byte sector spoils exactly its 4096-byte block.
      {"an unreadable sector", 4 * kMiB, Overflow::wrap,
       [](FaultyDevice&, SimulatedDevice& inner) { inner.unreadableBlocks().insert(300 * 8 + 3); },
       Verdict::failing, 1023, 0, 1, 0, 300 * kBlock, 63},
      // A short chunk read: the blocks it did not return are corrupt.
      {"a short read", 4 * kMiB, Overflow::wrap,
       [](FaultyDevice& d, SimulatedDevice&) {
         d.afterRead = [](std::uint64_t offset, std::span<std::uint8_t> bytes) {
           if (offset == 5 * kChunk && bytes.size() == kChunk) std::fill(bytes.end() - 3 * kBlock, bytes.end(), 0);
         };
       },
       Verdict::failing, 1021, 0, 3, 0, 6 * kChunk - 3 * kBlock, 64},
  };
  // clang-format on
  for (const Case& c : cases) {
    SimulatedDevice card(4 * kMiB, c.real, c.overflow, 512);
    FaultyDevice faulty(card);
    c.damage(faulty, card);
    const FullTest::Result r = smallChunks().run(faulty, CancellationFlag{});
    EXPECT_EQ(std::tuple(r.verdict, r.goodBlocks, r.aliasedBlocks, r.corruptBlocks, r.writeErrors,
                         r.firstBadOffset, r.read.curve.size()),
              std::tuple(c.verdict, c.good, c.aliased, c.corrupt, c.writeErrors, c.firstBad,
                         c.readSamples))
        << c.name;
    EXPECT_EQ(r.usableBytes, c.firstBad.value_or(4 * kMiB)) << c.name;
    EXPECT_EQ(r.holdsBytes, static_cast<std::uint64_t>(c.good) * kBlock) << c.name;
    EXPECT_EQ(r.speedClass.has_value(), c.verdict == Verdict::genuine) << c.name;
    EXPECT_EQ(r.write.curve.size(), 64u) << c.name << ": a failed write still gives a sample";
  }
}

TEST(FullTest, TestsOnlyWholeBlocks) {
  for (const std::uint64_t size : {std::uint64_t{4096}, std::uint64_t{10 * 4096 + 100}}) {
    SimulatedDevice card(size, std::nullopt, Overflow::wrap, 4);
    const FullTest::Result result = FullTest{}.run(card, CancellationFlag{});
    EXPECT_EQ(std::tuple(result.verdict, result.claimedBytes, result.usableBytes),
              std::tuple(Verdict::genuine, size, size / kBlock * kBlock));
    EXPECT_TRUE(std::all_of(card.storage().begin() + std::ptrdiff_t(result.usableBytes),
                            card.storage().end(), [](std::uint8_t b) { return b == 0; }))
        << "the trailing partial block is never written";
  }
  SimulatedDevice tiny(4095, std::nullopt, Overflow::wrap, 1);
  EXPECT_EQ(errorText([&] { FullTest{}.run(tiny, CancellationFlag{}); }),
            "The device is too small to test.");
}

TEST(FullTest, StopsOnlyForCancellationSynchronizeAndTheUnexpected) {
  constexpr auto R = &FaultyDevice::reads;
  constexpr auto W = &FaultyDevice::writes;
  const auto at = [](int FaultyDevice::*counter, int k, bool unplug) {
    return [=](FaultyDevice& d, CancellationFlag& flag) {
      // Thrown while the worker builds the next chunk or verifies the last
      // one; no thread may outlive the run.
      atStep(d, counter, k, [&flag, unplug](std::uint64_t) {
        if (unplug) throw std::runtime_error("unplugged");
        flag.cancel();
      });
    };
  };
  struct Case {
    std::string name;
    std::function<void(FaultyDevice&, CancellationFlag&)> arm;
    std::string error;
    int writes, reads;
  };
  const Case cases[] = {
      {"cancel before the run", [](FaultyDevice&, CancellationFlag& f) { f.cancel(); }, kStopped, 0,
       0},
      {"cancel at the third write", at(W, 3, false), kStopped, 3, 0},
      {"cancel while verifying", at(R, 10, false), kStopped, 64, 10},
      {"synchronize fails",
       [](FaultyDevice& d, CancellationFlag&) {
         d.beforeSynchronize = [] { throw WriteError::writeFailed(0, EIO); };
       },
       "Write failed at offset 0: Input/output error", 64, 0},
      {"unplugged while writing", at(W, 6, true), "unplugged", 6, 0},
      {"unplugged while reading", at(R, 5, true), "unplugged", 64, 5},
  };
  for (const Case& c : cases) {
    SimulatedDevice card(4 * kMiB, std::nullopt, Overflow::wrap, 512);
    FaultyDevice faulty(card);
    CancellationFlag flag;
    c.arm(faulty, flag);
    EXPECT_EQ(errorText([&] { smallChunks().run(faulty, flag); }), c.error) << c.name;
    EXPECT_EQ(std::pair(faulty.writes, faulty.reads), std::pair(c.writes, c.reads)) << c.name;
  }
}

}  // namespace
}  // namespace vellum

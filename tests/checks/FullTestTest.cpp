#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <set>
#include <stdexcept>

#include "bytes/DeviceError.h"
#include "checks/CheckTestSupport.h"
#include "checks/FullTest.h"
#include "checks/TestPattern.h"
#include "devices/SimulatedDevice.h"
#include "devices/WriteError.h"
#include "support/FaultyDevice.h"

namespace vellum {
namespace {

using testing::FaultyDevice;
using Verdict = FullTest::Result::Verdict;

constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::int64_t kChunk = 64 * 1024;  // 16 blocks, so small cards still have many chunks

FullTest smallChunks() {
  FullTest test;
  test.chunkBytes = kChunk;
  return test;
}

SimulatedDevice card(std::uint64_t size, std::optional<std::uint64_t> real = std::nullopt,
                     SimulatedDevice::Overflow overflow = SimulatedDevice::Overflow::wrap) {
  return SimulatedDevice(size, real, overflow, 512);
}

// Writes everything it is given, then reports the write as failed.
class WritesThenFails final : public BlockDevice {
 public:
  explicit WritesThenFails(BlockDevice& inner) : inner_(inner) {}
  std::uint64_t size() const override { return inner_.size(); }
  std::int64_t badReads() const override { return 0; }
  std::string descriptionForReport() const override { return "flaky"; }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override {
    return inner_.readInto(offset, out);
  }
  std::int64_t blockSize() const override { return inner_.blockSize(); }
  void write(std::uint64_t offset, std::span<const std::uint8_t> data) override {
    inner_.write(offset, data);
    if (offset == 0) throw WriteError::writeFailed(offset, EIO);
  }
  void synchronize() override {}

 private:
  BlockDevice& inner_;
};

TEST(FullTest, GenuineCardPassesAndGetsTheClassOfItsWriteSpeed) {
  SimulatedDevice device = card(4 * kMiB);
  FaultyDevice faulty(device);
  testing::FakeClock time;
  // Writes run at exactly 12 MB/s and reads at 50 MB/s.
  faulty.beforeWrite = [&](std::uint64_t, std::size_t length) {
    time.now += static_cast<double>(length) / 12e6;
  };
  faulty.beforeRead = [&](std::uint64_t, std::size_t length) {
    time.now += static_cast<double>(length) / 50e6;
  };
  FullTest test = smallChunks();
  test.clock = time.clock();
  const FullTest::Result result = test.run(faulty, CancellationFlag{});

  EXPECT_EQ(result.verdict, Verdict::genuine);
  EXPECT_EQ(result.claimedBytes, 4 * kMiB);
  EXPECT_EQ(result.usableBytes, 4 * kMiB);
  EXPECT_EQ(result.holdsBytes, 4 * kMiB);
  EXPECT_EQ(result.goodBlocks, 1024);
  EXPECT_EQ(result.aliasedBlocks + result.corruptBlocks + result.writeErrors, 0);
  EXPECT_EQ(result.firstBadOffset, std::nullopt);
  EXPECT_NEAR(result.write.sustainedMBps, 12, 1e-6);
  EXPECT_NEAR(result.read.averageMBps, 50, 1e-6);
  EXPECT_EQ(result.write.curve.size(), 64u);
  EXPECT_EQ(result.read.curve.size(), 64u);
  EXPECT_EQ(result.speedClass, SpeedClass::class10);
  EXPECT_NEAR(result.duration, 4.0 * kMiB / 12e6 + 4.0 * kMiB / 50e6, 1e-9);
}

TEST(FullTest, VerdictsOfFakeAndFailingCards) {
  struct Case {
    std::string name;
    std::uint64_t real;
    SimulatedDevice::Overflow overflow;
    std::set<std::uint64_t> flippedBlocks;  // damaged as they are read back
    Verdict verdict;
    std::int64_t good, aliased, corrupt;
    std::optional<std::uint64_t> firstBad;
  };
  const auto wrap = SimulatedDevice::Overflow::wrap;
  const auto discard = SimulatedDevice::Overflow::discard;
  const Case cases[] = {
      // Blocks 256 and up land on the real first megabyte: only the last
      // quarter written survives, and every other block reads back someone
      // else's block.
      {"wraps after a quarter", kMiB, wrap, {}, Verdict::counterfeit, 256, 768, 0, 0},
      // All of the missing three quarters read as zeros: bad / rest = 1.0.
      {"loses writes past a quarter", kMiB, discard, {}, Verdict::counterfeit, 256, 0, 768, kMiB},
      // Two damaged blocks in different chunks, healthy blocks after them.
      {"a few corrupt blocks",
       4 * kMiB,
       wrap,
       {100, 500},
       Verdict::failing,
       1022,
       0,
       2,
       100 * kBlock},
      // 0.9 exactly is not "nearly everything": the last ten blocks with one
      // good among them is failing.
      {"nine of the last ten",
       4 * kMiB,
       wrap,
       {1014, 1015, 1016, 1017, 1018, 1020, 1021, 1022, 1023},
       Verdict::failing,
       1015,
       0,
       9,
       1014 * kBlock},
      {"all of the last ten",
       4 * kMiB,
       wrap,
       {1014, 1015, 1016, 1017, 1018, 1019, 1020, 1021, 1022, 1023},
       Verdict::counterfeit,
       1014,
       0,
       10,
       1014 * kBlock},
  };
  for (const Case& c : cases) {
    SimulatedDevice device = card(4 * kMiB, c.real, c.overflow);
    FaultyDevice faulty(device);
    const std::set<std::uint64_t> flipped = c.flippedBlocks;
    faulty.afterRead = [flipped](std::uint64_t offset, std::span<std::uint8_t> bytes) {
      for (const std::uint64_t block : flipped) {
        const std::uint64_t at = block * kBlock + 2000;
        if (at >= offset && at < offset + bytes.size()) bytes[at - offset] ^= 0x10;
      }
    };
    const FullTest::Result result = smallChunks().run(faulty, CancellationFlag{});
    EXPECT_EQ(result.verdict, c.verdict) << c.name;
    EXPECT_EQ(result.goodBlocks, c.good) << c.name;
    EXPECT_EQ(result.aliasedBlocks, c.aliased) << c.name;
    EXPECT_EQ(result.corruptBlocks, c.corrupt) << c.name;
    EXPECT_EQ(result.firstBadOffset, c.firstBad) << c.name;
    EXPECT_EQ(result.usableBytes, c.firstBad.value_or(4 * kMiB)) << c.name;
    EXPECT_EQ(result.holdsBytes, static_cast<std::uint64_t>(c.good) * kBlock) << c.name;
    EXPECT_EQ(result.speedClass, std::nullopt) << c.name;
  }
}

TEST(FullTest, WriteErrorsAreCountedNotThrown) {
  {
    // The failed chunk never reached the card: its 16 blocks read back as
    // old zeros, the rest is fine.
    SimulatedDevice device = card(4 * kMiB);
    FaultyDevice faulty(device);
    faulty.beforeWrite = [](std::uint64_t offset, std::size_t) {
      if (offset == 10 * kChunk) throw WriteError::writeFailed(offset, EIO);
    };
    const FullTest::Result result = smallChunks().run(faulty, CancellationFlag{});
    EXPECT_EQ(result.writeErrors, 1);
    EXPECT_EQ(result.corruptBlocks, 16);
    EXPECT_EQ(result.firstBadOffset, 10 * kChunk);
    EXPECT_EQ(result.verdict, Verdict::failing);
    EXPECT_EQ(result.write.curve.size(), 64u) << "a failed chunk still gives a sample";
    EXPECT_EQ(result.speedClass, std::nullopt);
  }
  {
    // Reported as failed although the data arrived: failing, no class.
    SimulatedDevice device = card(4 * kMiB);
    WritesThenFails flaky(device);
    const FullTest::Result result = smallChunks().run(flaky, CancellationFlag{});
    EXPECT_EQ(result.writeErrors, 1);
    EXPECT_EQ(result.goodBlocks, 1024);
    EXPECT_EQ(result.verdict, Verdict::failing);
    EXPECT_EQ(result.speedClass, std::nullopt);
  }
}

TEST(FullTest, AFailedChunkReadFallsBackToSingleBlocks) {
  {
    // The chunk read fails but every block reads fine on its own.
    SimulatedDevice device = card(4 * kMiB);
    FaultyDevice faulty(device);
    faulty.beforeRead = [](std::uint64_t offset, std::size_t length) {
      if (offset == 3 * kChunk && length == kChunk) throw DeviceError::readFailed(offset, EIO);
    };
    const FullTest::Result result = smallChunks().run(faulty, CancellationFlag{});
    EXPECT_EQ(result.verdict, Verdict::genuine);
    EXPECT_EQ(result.goodBlocks, 1024);
    EXPECT_EQ(result.read.curve.size(), 63u) << "no read sample for the failed chunk";
  }
  {
    // A truly unreadable 512-byte sector spoils exactly its 4096-byte block.
    SimulatedDevice device = card(4 * kMiB);
    device.unreadableBlocks().insert(8 * 300 + 3);
    const FullTest::Result result = smallChunks().run(device, CancellationFlag{});
    EXPECT_EQ(result.verdict, Verdict::failing);
    EXPECT_EQ(result.corruptBlocks, 1);
    EXPECT_EQ(result.goodBlocks, 1023);
    EXPECT_EQ(result.firstBadOffset, 300 * kBlock);
  }
  {
    // A short chunk read: the blocks it did not return are corrupt.
    SimulatedDevice device = card(4 * kMiB);
    FaultyDevice faulty(device);
    faulty.afterRead = [](std::uint64_t offset, std::span<std::uint8_t> bytes) {
      if (offset == 5 * kChunk && bytes.size() == kChunk) {
        std::fill(bytes.end() - 3 * kBlock, bytes.end(), 0);
      }
    };
    const FullTest::Result result = smallChunks().run(faulty, CancellationFlag{});
    EXPECT_EQ(result.corruptBlocks, 3);
    EXPECT_EQ(result.firstBadOffset, 6 * kChunk - 3 * kBlock);
  }
}

TEST(FullTest, TestsOnlyWholeBlocks) {
  struct Case {
    std::uint64_t size;
    std::int64_t blocks;
  };
  for (const Case c : {Case{4096, 1}, Case{10 * 4096 + 100, 10}}) {
    SimulatedDevice device(c.size, std::nullopt, SimulatedDevice::Overflow::wrap, 4);
    const FullTest::Result result = FullTest{}.run(device, CancellationFlag{});
    EXPECT_EQ(result.verdict, Verdict::genuine);
    EXPECT_EQ(result.goodBlocks, c.blocks);
    EXPECT_EQ(result.claimedBytes, c.size);
    EXPECT_EQ(result.usableBytes, static_cast<std::uint64_t>(c.blocks) * kBlock);
    // The trailing partial block is never written.
    EXPECT_TRUE(std::all_of(device.storage().begin() + c.blocks * 4096, device.storage().end(),
                            [](std::uint8_t b) { return b == 0; }));
  }
  SimulatedDevice tiny(4095, std::nullopt, SimulatedDevice::Overflow::wrap, 1);
  EXPECT_EQ(
      [&] {
        try {
          FullTest{}.run(tiny, CancellationFlag{});
        } catch (const CheckError& error) {
          return error.description();
        }
        return std::string("no error");
      }(),
      "The device is too small to test.");
}

TEST(FullTest, StopsWithTheErrorsThatEndARun) {
  struct Case {
    std::string name;
    std::function<void(FaultyDevice&, CancellationFlag&)> arm;
    int writes;  // writes that reached the device
  };
  const Case cases[] = {
      {"cancel before the run", [](FaultyDevice&, CancellationFlag& flag) { flag.cancel(); }, 0},
      {"cancel at the third write",
       [](FaultyDevice& d, CancellationFlag& flag) {
         d.beforeWrite = [&d, &flag](std::uint64_t, std::size_t) {
           if (d.writes == 3) flag.cancel();
         };
       },
       3},
      {"cancel while verifying",
       [](FaultyDevice& d, CancellationFlag& flag) {
         d.beforeRead = [&d, &flag](std::uint64_t, std::size_t) {
           if (d.reads == 10) flag.cancel();
         };
       },
       64},
  };
  for (const Case& c : cases) {
    SimulatedDevice device = card(4 * kMiB);
    FaultyDevice faulty(device);
    CancellationFlag flag;
    c.arm(faulty, flag);
    try {
      smallChunks().run(faulty, flag);
      ADD_FAILURE() << c.name;
    } catch (const CheckError& error) {
      EXPECT_EQ(error, CheckError::cancelled()) << c.name;
    }
    EXPECT_EQ(faulty.writes, c.writes) << c.name;
  }

  SimulatedDevice device = card(4 * kMiB);
  FaultyDevice faulty(device);
  faulty.beforeSynchronize = [] { throw WriteError::writeFailed(0, EIO); };
  try {
    smallChunks().run(faulty, CancellationFlag{});
    ADD_FAILURE() << "synchronize failure not thrown";
  } catch (const WriteError& error) {
    EXPECT_EQ(error, WriteError::writeFailed(0, EIO));
  }
  EXPECT_EQ(faulty.reads, 0);

  // An unexpected exception while the worker is busy (building the next
  // chunk, or verifying the previous one) leaves no thread behind.
  for (const bool duringWrites : {true, false}) {
    SimulatedDevice other = card(4 * kMiB);
    FaultyDevice unplugged(other);
    unplugged.beforeWrite = [&](std::uint64_t, std::size_t) {
      if (duringWrites && unplugged.writes == 6) throw std::runtime_error("unplugged");
    };
    unplugged.beforeRead = [&](std::uint64_t, std::size_t) {
      if (unplugged.reads == 5) throw std::runtime_error("unplugged");
    };
    EXPECT_THROW(smallChunks().run(unplugged, CancellationFlag{}), std::runtime_error);
  }
}

TEST(FullTest, ReportsWritingThenVerifyingInOrder) {
  SimulatedDevice device = card(kMiB);
  testing::ProgressLog log;
  FullTest test = smallChunks();
  test.run(device, CancellationFlag{}, log.callback());
  ASSERT_EQ(log.reports.size(), 32u);
  for (std::size_t i = 0; i < 16; ++i) {
    const CheckProgress& write = log.reports[i];
    const CheckProgress& verify = log.reports[16 + i];
    EXPECT_EQ(write.phase, CheckProgress::Phase::writing);
    EXPECT_EQ(verify.phase, CheckProgress::Phase::verifying);
    EXPECT_EQ(write.completed, (i + 1) * kChunk);
    EXPECT_EQ(verify.completed, (i + 1) * kChunk);
    EXPECT_EQ(write.total, kMiB);
    EXPECT_EQ(verify.total, kMiB);
    EXPECT_TRUE(write.bytesPerSecond.has_value());
    EXPECT_TRUE(verify.bytesPerSecond.has_value());
  }
}

TEST(FullTest, LeavesTestBlocksOnTheCard) {
  SimulatedDevice device = card(kMiB);
  smallChunks().run(device, CancellationFlag{});
  // Whatever nonce was drawn, every block carries its own index.
  const Bytes block = device.read(77 * kBlock, kBlock);
  std::uint64_t nonce = 0;
  std::memcpy(&nonce, block.data() + 8, 8);
  EXPECT_TRUE(isIntact(TestPattern(nonce).verify(block, 77)));
}

}  // namespace
}  // namespace vellum

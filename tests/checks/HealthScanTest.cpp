#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <string>

#include "bytes/DeviceError.h"
#include "bytes/MemorySource.h"
#include "checks/CheckTestSupport.h"
#include "checks/HealthScan.h"
#include "devices/SimulatedDevice.h"
#include "support/FaultyDevice.h"

namespace vellum {
namespace {

using testing::FaultyDevice;
using Region = HealthScan::Result::Region;
using Verdict = HealthScan::Result::Verdict;

constexpr std::uint64_t kMiB = 1 << 20;

// A card that reads zeros everywhere without holding any storage.
SimulatedDevice emptyCard(std::uint64_t size, std::int64_t blockSize) {
  return SimulatedDevice(size, 0, SimulatedDevice::Overflow::discard, blockSize);
}

// Makes each chunk read take 1 / speed seconds on a fake clock, with the
// speed in MB/s looked up by chunk number (default 20).
void paceReads(FaultyDevice& device, testing::FakeClock& time, std::uint64_t chunk,
               std::map<std::uint64_t, double> speeds) {
  device.beforeRead = [&time, chunk, speeds](std::uint64_t offset, std::size_t length) {
    const auto it = speeds.find(offset / chunk);
    const double mbps = it == speeds.end() ? 20 : it->second;
    time.now += static_cast<double>(length) / (mbps * 1e6);
  };
}

TEST(HealthScan, FailingDemoCardShowsItsBadSectorsMerged) {
  SimulatedDevice device = emptyCard(256 * kMiB, 512);
  device.unreadableBlocks() = {40000, 40001, 200000, 350123};
  testing::ProgressLog log;
  const HealthScan::Result result =
      HealthScan{}.run(device, 512, CancellationFlag{}, log.callback());

  EXPECT_EQ(result.verdict, Verdict::unreadableAreas);
  EXPECT_EQ(result.scannedBytes, 256 * kMiB);
  const std::vector<Region> expected = {
      {40000 * 512, 1024}, {200000 * 512, 512}, {350123ull * 512, 512}};
  EXPECT_EQ(result.unreadable, expected);
  // 32 chunks of 8 MiB, three of them failed: no samples for those.
  EXPECT_EQ(result.read.curve.size(), 29u);
  ASSERT_EQ(log.reports.size(), 32u);
  EXPECT_EQ(log.reports.back(), (CheckProgress{CheckProgress::Phase::reading, 256 * kMiB,
                                               256 * kMiB, log.reports.back().bytesPerSecond}));
  EXPECT_TRUE(log.reports.back().bytesPerSecond.has_value());
}

// The first chunk read always fails as a whole; only the sectors that fail
// on their own become regions.
TEST(HealthScan, UnreadableSectorsAreFoundAtSectorGranularity) {
  struct Case {
    std::string name;
    std::uint64_t size;
    std::set<std::uint64_t> badBlocks;  // of 512 bytes
    std::int64_t sector;
    std::vector<Region> expected;
    std::size_t samples;
  };
  const Case cases[] = {
      {"every sector reads on its own", 8192, {}, 512, {}, 1},
      {"touching sectors merge", 8192, {2, 3}, 512, {{1024, 1024}}, 1},
      {"coarser retries cover whole sectors", 8192, {3}, 2048, {{0, 2048}}, 1},
      {"a short last piece", 4096 + 700, {9}, 512, {{4608, 188}}, 0},
      {"regions in different chunks", 16384, {1, 15, 16}, 512, {{512, 512}, {7680, 1024}}, 1},
  };
  for (const Case& c : cases) {
    SimulatedDevice device = emptyCard(c.size, 512);
    device.unreadableBlocks() = c.badBlocks;
    FaultyDevice faulty(device);
    faulty.beforeRead = [](std::uint64_t offset, std::size_t length) {
      if (offset == 0 && length == 4096) throw DeviceError::readFailed(0, EIO);
    };
    HealthScan scan;
    scan.chunkBytes = 4096;
    testing::ProgressLog log;
    const HealthScan::Result result =
        scan.run(faulty, c.sector, CancellationFlag{}, log.callback());
    EXPECT_EQ(result.unreadable, c.expected) << c.name;
    EXPECT_EQ(result.verdict, c.expected.empty() ? Verdict::healthy : Verdict::unreadableAreas)
        << c.name;
    EXPECT_EQ(result.read.curve.size(), c.samples) << c.name << ": failed chunks give no sample";
    EXPECT_EQ(log.reports.front(),
              (CheckProgress{CheckProgress::Phase::reading, 4096, c.size, std::nullopt}));
  }
}

// Reads like a disk source: unreadable 512-byte sectors come back as zeros
// and are counted in badReads, never thrown.
class AbsorbingSource final : public ByteSource {
 public:
  AbsorbingSource(std::uint64_t size, std::set<std::uint64_t> badSectors)
      : size_(size), bad_(std::move(badSectors)) {}
  std::uint64_t size() const override { return size_; }
  std::int64_t badReads() const override { return badReads_; }
  std::string descriptionForReport() const override { return "absorbing"; }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override {
    if (offset >= size_) return 0;
    const std::uint64_t end = std::min<std::uint64_t>(size_, offset + out.size());
    for (std::uint64_t sector = offset / 512; sector * 512 < end; ++sector) {
      if (bad_.contains(sector)) ++badReads_;
    }
    std::fill(out.begin(), out.end(), std::uint8_t{0});
    return static_cast<std::size_t>(end - offset);
  }

 private:
  std::uint64_t size_;
  std::set<std::uint64_t> bad_;
  std::int64_t badReads_ = 0;
};

TEST(HealthScan, SectorsASourceAbsorbedAsZerosAreUnreadable) {
  AbsorbingSource source(16384, {3, 4, 20});
  HealthScan scan;
  scan.chunkBytes = 4096;
  const HealthScan::Result result = scan.run(source, 512, CancellationFlag{});
  EXPECT_EQ(result.verdict, Verdict::unreadableAreas);
  EXPECT_EQ(result.unreadable, (std::vector<Region>{{1536, 1024}, {10240, 512}}));
  EXPECT_EQ(result.read.curve.size(), 2u) << "chunks with absorbed sectors give no sample";
}

TEST(HealthScan, ChunksFarBelowTheMedianSpeedAreSlow) {
  constexpr std::uint64_t chunk = 1'000'000;
  struct Case {
    std::string name;
    std::map<std::uint64_t, double> speeds;  // chunk number -> MB/s
    std::set<std::uint64_t> unreadable;      // 512-byte blocks
    Verdict verdict;
    std::vector<Region> slow;
  };
  const Case cases[] = {
      // Median of 20, 20, 20, 3 is index 2 of the sorted four: 20; 3 < 4.
      {"one slow chunk", {{3, 3}}, {}, Verdict::slowAreas, {{3 * chunk, chunk}}},
      {"just above the threshold is not slow", {{3, 4.01}}, {}, Verdict::healthy, {}},
      {"neighbouring slow chunks merge",
       {{4, 1}, {5, 2}, {6, 3.9}},
       {},
       Verdict::slowAreas,
       {{4 * chunk, 3 * chunk}}},
      {"unreadable wins over slow", {{1, 1}}, {5000}, Verdict::unreadableAreas, {{chunk, chunk}}},
  };
  for (const Case& c : cases) {
    const std::uint64_t chunks = c.speeds.size() > 1 ? 8 : 4;
    SimulatedDevice device = emptyCard(chunks * chunk, 500);
    device.unreadableBlocks() = c.unreadable;
    FaultyDevice faulty(device);
    testing::FakeClock time;
    paceReads(faulty, time, chunk, c.speeds);
    HealthScan scan;
    scan.chunkBytes = chunk;
    scan.clock = time.clock();
    const HealthScan::Result result = scan.run(faulty, 500, CancellationFlag{});
    EXPECT_EQ(result.verdict, c.verdict) << c.name;
    EXPECT_EQ(result.slow, c.slow) << c.name;
    EXPECT_EQ(result.unreadable.empty(), c.unreadable.empty()) << c.name;
  }
}

TEST(HealthScan, EmptySourceIsHealthyAndCancellationStopsAtTheNextChunk) {
  MemorySource empty(Bytes{});
  testing::ProgressLog log;
  const HealthScan::Result result =
      HealthScan{}.run(empty, 512, CancellationFlag{}, log.callback());
  EXPECT_EQ(result.verdict, Verdict::healthy);
  EXPECT_EQ(result.scannedBytes, 0u);
  EXPECT_TRUE(result.unreadable.empty() && result.slow.empty());
  EXPECT_EQ(result.read, SpeedSummary{});
  EXPECT_TRUE(log.reports.empty());

  SimulatedDevice device = emptyCard(8 * 4096, 512);
  FaultyDevice faulty(device);
  CancellationFlag flag;
  faulty.beforeRead = [&](std::uint64_t, std::size_t) {
    if (faulty.reads == 3) flag.cancel();
  };
  HealthScan scan;
  scan.chunkBytes = 4096;
  EXPECT_EQ(testing::errorText([&] { scan.run(faulty, 512, flag); }), "The test was stopped.");
  EXPECT_EQ(faulty.reads, 3);
}

}  // namespace
}  // namespace vellum

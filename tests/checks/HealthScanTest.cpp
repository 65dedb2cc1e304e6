#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <set>

#include "bytes/DeviceError.h"
#include "bytes/MemorySource.h"
#include "checks/CheckTestSupport.h"
#include "checks/HealthScan.h"

namespace vellum {
namespace {

using namespace testing;
using Region = HealthScan::Result::Region;
using Verdict = HealthScan::Result::Verdict;

// A card that reads zeros everywhere without holding any storage.
SimulatedDevice emptyCard(std::uint64_t size, std::int64_t blockSize) {
  return SimulatedDevice(size, 0, Overflow::discard, blockSize);
}

HealthScan withChunks(std::int64_t chunkBytes) {
  HealthScan scan;
  scan.chunkBytes = chunkBytes;
  return scan;
}

TEST(HealthScan, FailingDemoCardShowsItsBadSectorsMerged) {
  SimulatedDevice device = emptyCard(256 * kMiB, 512);
  device.unreadableBlocks() = {40000, 40001, 200000, 350123};
  ProgressLog log;
  const HealthScan::Result result =
      HealthScan{}.run(device, 512, CancellationFlag{}, log.callback());
  EXPECT_EQ(result.verdict, Verdict::unreadableAreas);
  EXPECT_EQ(result.scannedBytes, 256 * kMiB);
  EXPECT_EQ(
      result.unreadable,
      (std::vector<Region>{{40000 * 512, 1024}, {200000 * 512, 512}, {350123ull * 512, 512}}));
  EXPECT_EQ(result.read.curve.size(), 29u);  // 32 chunks of 8 MiB; failed ones give no sample
  ASSERT_EQ(log.reports.size(), 32u);
  EXPECT_EQ(log.reports.back().completed, 256 * kMiB);
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
    ProgressLog log;
    const auto result = withChunks(4096).run(faulty, c.sector, CancellationFlag{}, log.callback());
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
struct AbsorbingSource final : ByteSource {
  std::uint64_t length;
  std::set<std::uint64_t> bad;
  std::int64_t absorbed = 0;
  AbsorbingSource(std::uint64_t size, std::set<std::uint64_t> sectors)
      : length(size), bad(std::move(sectors)) {}
  std::uint64_t size() const override { return length; }
  std::int64_t badReads() const override { return absorbed; }
  std::string descriptionForReport() const override { return "absorbing"; }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override {
    const std::size_t n = static_cast<std::size_t>(
        std::min<std::uint64_t>(out.size(), length - std::min(offset, length)));
    std::fill_n(out.begin(), n, std::uint8_t{0});
    for (std::uint64_t sector = offset / 512; sector * 512 < offset + n; ++sector)
      absorbed += bad.contains(sector);
    return n;
  }
};

TEST(HealthScan, SectorsASourceAbsorbedAsZerosAreUnreadable) {
  AbsorbingSource source(16384, {3, 4, 20});
  const HealthScan::Result result = withChunks(4096).run(source, 512, CancellationFlag{});
  EXPECT_EQ(result.verdict, Verdict::unreadableAreas);
  EXPECT_EQ(result.unreadable, (std::vector<Region>{{1536, 1024}, {10240, 512}}));
  EXPECT_EQ(result.read.curve.size(), 2u) << "chunks with absorbed sectors give no sample";
}

TEST(HealthScan, ChunksFarBelowTheMedianSpeedAreSlow) {
  constexpr std::uint64_t chunk = 1'000'000;
  struct Case {
    std::string name;
    std::map<std::uint64_t, double> speeds;  // chunk number -> MB/s, 20 otherwise
    std::set<std::uint64_t> unreadable;      // 500-byte blocks
    Verdict verdict;
    std::vector<Region> slow;
  };
  const Case cases[] = {
      // Median of 20, 20, 20, 3 is index 2 of the sorted four: 20; 3 < 4.
      {"one slow chunk", {{3, 3}}, {}, Verdict::slowAreas, {{3 * chunk, chunk}}},
      {"just above the threshold is not slow", {{3, 4.01}}, {}, Verdict::healthy, {}},
      {"neighbours merge",
       {{4, 1}, {5, 2}, {6, 3.9}},
       {},
       Verdict::slowAreas,
       {{4 * chunk, 3 * chunk}}},
      {"unreadable wins over slow", {{1, 1}}, {5000}, Verdict::unreadableAreas, {{chunk, chunk}}},
  };
  for (const Case& c : cases) {
    SimulatedDevice device = emptyCard((c.speeds.size() > 1 ? 8 : 4) * chunk, 500);
    device.unreadableBlocks() = c.unreadable;
    FaultyDevice faulty(device);
    FakeClock time;
    faulty.beforeRead = [&time, &c](std::uint64_t offset, std::size_t length) {
      const auto it = c.speeds.find(offset / chunk);
      time.now += static_cast<double>(length) / ((it == c.speeds.end() ? 20 : it->second) * 1e6);
    };
    HealthScan scan = withChunks(chunk);
    scan.clock = time.clock();
    const HealthScan::Result result = scan.run(faulty, 500, CancellationFlag{});
    EXPECT_EQ(result.verdict, c.verdict) << c.name;
    EXPECT_EQ(result.slow, c.slow) << c.name;
    EXPECT_EQ(result.unreadable.empty(), c.unreadable.empty()) << c.name;
  }
}

TEST(HealthScan, EmptySourceIsHealthyAndCancellationStopsAtTheNextChunk) {
  MemorySource empty(Bytes{});
  ProgressLog log;
  const HealthScan::Result result =
      HealthScan{}.run(empty, 512, CancellationFlag{}, log.callback());
  EXPECT_EQ(std::tuple(result.verdict, result.scannedBytes, result.read),
            std::tuple(Verdict::healthy, 0u, SpeedSummary{}));
  EXPECT_TRUE(result.unreadable.empty() && result.slow.empty() && log.reports.empty());

  SimulatedDevice device = emptyCard(8 * 4096, 512);
  FaultyDevice faulty(device);
  CancellationFlag flag;
  atStep(faulty, &FaultyDevice::reads, 3, [&flag](std::uint64_t) { flag.cancel(); });
  EXPECT_EQ(errorText([&] { withChunks(4096).run(faulty, 512, flag); }), kStopped);
  EXPECT_EQ(faulty.reads, 3);
}

}  // namespace
}  // namespace vellum

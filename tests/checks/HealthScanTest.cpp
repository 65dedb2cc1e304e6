#include <map>

#include "checks/CheckTestSupport.h"
#include "checks/HealthScan.h"

namespace vellum {
namespace {

using ::testing::ThrowsMessage;

using namespace testing;
using Region = HealthScan::Result::Region;
using Verdict = HealthScan::Result::Verdict;
const HealthScan kSmallChunks{.chunkBytes = 4096, .clock = {}};

// Reads like a disk source: unreadable 512-byte sectors come back as zeros
// and are counted in badReads, never thrown.
struct AbsorbingSource final : ByteSource {
  std::set<std::uint64_t> bad;
  std::int64_t absorbed = 0;
  std::uint64_t size() const override { return 16384; }
  std::int64_t badReads() const override { return absorbed; }
  std::string descriptionForReport() const override { return "absorbing"; }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override {
    const std::size_t n = static_cast<std::size_t>(std::min(out.size(), 16384 - offset));
    std::fill_n(out.begin(), n, std::uint8_t{0});
    for (std::uint64_t sector = offset / 512; sector * 512 < offset + n; ++sector)
      absorbed += bad.contains(sector);
    return n;
  }
};

// The first chunk read fails as a whole; only the sectors that fail on their
// own become regions, and failed chunks give no speed sample.
TEST(HealthScan, UnreadableSectorsAreFoundAtSectorGranularity) {
  // clang-format off
  const std::tuple<std::uint64_t, std::set<std::uint64_t>, std::int64_t, std::vector<Region>,
                   std::size_t> cases[] = {
      // size, unreadable 512-byte blocks, sector size: regions, speed samples
      {8192, {}, 512, {}, 1},                                    // every sector reads on its own
      {8192, {2, 3}, 512, {{1024, 1024}}, 1},                    // touching sectors merge
      {8192, {3}, 2048, {{0, 2048}}, 1},                         // retries cover whole sectors
      {4096 + 700, {9}, 512, {{4608, 188}}, 0},                  // a short last piece
      {16384, {1, 15, 16}, 512, {{512, 512}, {7680, 1024}}, 1},  // regions in different chunks
  };
  // clang-format on
  for (const auto& [size, badBlocks, sector, expected, samples] : cases) {
    SimulatedDevice device(size, 0, Overflow::discard, 512);  // zeros, no storage
    device.unreadableBlocks() = badBlocks;
    FaultyDevice faulty(device);
    faulty.beforeRead = [](std::uint64_t offset, std::size_t length) {
      if (offset == 0 && length == 4096) throw DeviceError::readFailed(0, EIO);
    };
    const auto r = kSmallChunks.run(faulty, sector, CancellationFlag{});
    EXPECT_EQ(std::tuple(r.unreadable, r.read.curve.size(), r.scannedBytes, r.verdict),
              std::tuple(expected, samples, size,
                         expected.empty() ? Verdict::healthy : Verdict::unreadableAreas));
  }
  AbsorbingSource source;
  source.bad = {3, 4, 20};
  const HealthScan::Result absorbed = kSmallChunks.run(source, 512, CancellationFlag{});
  EXPECT_EQ(
      std::tuple(absorbed.verdict, absorbed.unreadable, absorbed.read.curve.size()),
      std::tuple(Verdict::unreadableAreas, std::vector<Region>{{1536, 1024}, {10240, 512}}, 2u))
      << "sectors a source absorbed as zeros are unreadable; their chunks give no sample";
}

TEST(HealthScan, ChunksFarBelowTheMedianSpeedAreSlow) {
  constexpr std::uint64_t chunk = 1'000'000;
  // clang-format off
  const std::tuple<std::map<std::uint64_t, double>, std::set<std::uint64_t>, Verdict,
                   std::vector<Region>> cases[] = {
      // MB/s by chunk number (20 otherwise; negative: only the first read is that slow),
      // unreadable 500-byte blocks: verdict, slow regions
      // Median of 20, 20, 20, 3 is index 2 of the sorted four: 20; 3 < 4.
      {{{3, 3}}, {}, Verdict::slowAreas, {{3 * chunk, chunk}}},
      {{{3, 4.01}}, {}, Verdict::healthy, {}},  // just above the threshold
      {{{4, 1}, {5, 2}, {6, 3.9}}, {}, Verdict::slowAreas, {{4 * chunk, 3 * chunk}}},  // merged
      {{{1, 1}}, {5000}, Verdict::unreadableAreas, {{chunk, chunk}}},  // unreadable wins
      {{{2, -0.5}, {5, 1}}, {}, Verdict::slowAreas, {{5 * chunk, chunk}}},  // a hiccup is not slow
  };
  // clang-format on
  for (const auto& [speeds, unreadable, verdict, slow] : cases) {
    SimulatedDevice device((speeds.size() > 1 ? 8 : 4) * chunk, 0, Overflow::discard, 500);
    device.unreadableBlocks() = unreadable;
    FaultyDevice faulty(device);
    double now = 1000;
    std::set<std::uint64_t> readBefore;
    faulty.beforeRead = [&, &speeds = speeds](std::uint64_t offset, std::size_t length) {
      const auto it = speeds.find(offset / chunk);
      double mbps = it == speeds.end() ? 20 : it->second;
      if (mbps < 0) mbps = readBefore.contains(offset) ? 20 : -mbps;
      readBefore.insert(offset);
      now += static_cast<double>(length) / (mbps * 1e6);
    };
    const HealthScan::Result result =
        HealthScan{.chunkBytes = chunk, .clock = [&now] { return now; }}.run(faulty, 500,
                                                                             CancellationFlag{});
    EXPECT_EQ(std::tuple(result.verdict, result.slow, result.unreadable.empty()),
              std::tuple(verdict, slow, unreadable.empty()));
  }
}

TEST(HealthScan, CancellationStopsAtTheNextChunk) {
  SimulatedDevice device(8 * 4096, 0, Overflow::discard, 512);
  FaultyDevice faulty(device);
  CancellationFlag flag;
  Step{Act::cancel, kReads, 3}.arm(faulty, flag);
  EXPECT_THAT([&] { kSmallChunks.run(faulty, 512, flag); },
              ThrowsMessage<std::exception>(kStopped));
  EXPECT_EQ(faulty.reads, 3);
}

}  // namespace
}  // namespace vellum

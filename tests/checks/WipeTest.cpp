#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <regex>

#include "CarveSamples.h"
#include "bytes/DeviceError.h"
#include "checks/CheckTestSupport.h"
#include "checks/Wipe.h"
#include "devices/WriteError.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using Method = Wipe::Method;

// An in-memory card set up byte by byte, seen by the wipe with blocks of
// blockSize. Writes at or past keepsBelow are lost without an error, as on a
// counterfeit card.
struct TestCard final : BlockDevice {
  SimulatedDevice memory;
  std::int64_t block;
  std::uint64_t keepsBelow = UINT64_MAX;
  TestCard(std::uint64_t size, std::int64_t blockSize)
      : memory(size, std::nullopt, Overflow::wrap, 1), block(blockSize) {}
  Bytes storage(std::uint64_t offset, std::uint64_t count) const {
    const auto start = memory.storage().begin() + static_cast<std::ptrdiff_t>(offset);
    return Bytes(start, start + static_cast<std::ptrdiff_t>(count));
  }
  std::uint64_t size() const override { return memory.size(); }
  std::int64_t badReads() const override { return 0; }
  std::string descriptionForReport() const override { return "test card"; }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override {
    return memory.readInto(offset, out);
  }
  std::int64_t blockSize() const override { return block; }
  void write(std::uint64_t offset, std::span<const std::uint8_t> data) override {
    checkWrite(offset, static_cast<std::int64_t>(data.size()));
    const auto kept =
        std::min<std::uint64_t>(data.size(), keepsBelow - std::min(offset, keepsBelow));
    if (kept > 0) memory.write(offset, data.first(static_cast<std::size_t>(kept)));
  }
  void synchronize() override {}
};

Wipe wipeWith(Method method, std::int64_t chunkBytes) {
  Wipe wipe;
  wipe.method = method;
  wipe.chunkBytes = chunkBytes;
  return wipe;
}

// The SplitMix64 stream from a state; a remainder under 8 bytes is zero.
Bytes splitMixStream(std::uint64_t state, std::uint64_t length) {
  Bytes out(static_cast<std::size_t>(length), 0);
  for (std::size_t k = 0; k < length / 8; ++k)
    putWord(out, 8 * k, mix(state + (k + 1) * kGamma));
  return out;
}

// mix() is a bijection; undoing it on the card's first word gives the seed
// the wipe drew (the first chunk starts from seed XOR 0).
std::uint64_t seedOf(const Bytes& firstWord) {
  const auto unshift = [](std::uint64_t y, int shift) {
    std::uint64_t x = y;
    for (int i = 0; i < 64 / shift + 1; ++i)
      x = y ^ (x >> shift);
    return x;
  };
  const auto inverse = [](std::uint64_t odd) {
    std::uint64_t x = odd;  // right to 3 bits; each step doubles that
    for (int i = 0; i < 6; ++i)
      x *= 2 - odd * x;
    return x;
  };
  std::uint64_t y = 0;
  for (int b = 7; b >= 0; --b)
    y = (y << 8) | firstWord[static_cast<std::size_t>(b)];
  y = unshift(y, 31) * inverse(0x94D0'49BB'1331'11EB);
  y = unshift(y, 27) * inverse(0xBF58'476D'1CE4'E5B9);
  return unshift(y, 30) - kGamma;
}

// Points TMPDIR at a fresh folder for one test, so the wipe's scratch folder
// can be watched.
struct ScopedTempDirectory {
  TempDir dir;
  std::optional<std::string> old =
      std::getenv("TMPDIR") ? std::optional<std::string>(std::getenv("TMPDIR")) : std::nullopt;
  ScopedTempDirectory() { ::setenv("TMPDIR", dir.path().c_str(), 1); }
  ~ScopedTempDirectory() { old ? ::setenv("TMPDIR", old->c_str(), 1) : ::unsetenv("TMPDIR"); }
  std::vector<fs::path> entries() const {
    return {fs::directory_iterator(dir.path()), fs::directory_iterator()};
  }
};

TEST(WipeTest, LeavesExactlyTheFillAndKeepsTheTrailingPartialBlock) {
  struct Layout {
    const char* name;
    std::uint64_t size;
    std::int64_t blockSize, chunkBytes;
    std::uint64_t wiped, chunk;  // whole blocks; what a chunk really is in whole blocks
  };
  const Layout layouts[] = {
      {"whole blocks", kMiB, 512, 64 * kKiB, kMiB, 64 * kKiB},
      {"trailing partial block", kMiB + 300, 512, 64 * kKiB, kMiB, 64 * kKiB},
      {"last chunk short", 200 * kKiB, 4096, 64 * kKiB, 200 * kKiB, 64 * kKiB},
      // 40-byte chunks hold three 12-byte blocks: four words and 4 zero bytes.
      {"chunk rounded down to blocks", 400, 12, 40, 396, 36},
  };
  std::set<std::uint64_t> seeds;  // each random run draws its own
  for (const Layout& layout : layouts) {
    for (const Method method : {Method::zeros, Method::random}) {
      SCOPED_TRACE(std::string(layout.name) + ", " + std::string(rawValue(method)));
      TestCard card(layout.size, layout.blockSize);
      const Bytes before = noise(static_cast<std::size_t>(layout.size), 3);
      card.memory.write(0, before);
      const Wipe::Result result = wipeWith(method, layout.chunkBytes).run(card, {});
      EXPECT_EQ(std::tuple(result.method, result.bytesOverwritten, result.isComplete()),
                std::tuple(method, layout.wiped, true));
      const std::uint64_t seed = seedOf(card.storage(0, 8));
      if (method == Method::random) seeds.insert(seed);
      for (std::uint64_t offset = 0; offset < layout.wiped; offset += layout.chunk) {
        const std::uint64_t n = std::min(layout.chunk, layout.wiped - offset);
        ASSERT_EQ(card.storage(offset, n),
                  method == Method::zeros ? Bytes(n, 0) : splitMixStream(seed ^ offset, n))
            << "chunk at " << offset;
      }
      const auto tail = static_cast<std::ptrdiff_t>(layout.size - layout.wiped);
      EXPECT_EQ(card.storage(layout.wiped, layout.size - layout.wiped),
                Bytes(before.end() - tail, before.end()));
    }
  }
  EXPECT_EQ(seeds.size(), std::size(layouts));
  EXPECT_FALSE(seeds.contains(0));
}

TEST(WipeTest, ReportsEachPassAndTimesTheWrites) {
  TestCard inner(256 * kKiB, 512);
  FaultyDevice device(inner);
  FakeClock clock;
  // Each 64 KiB write takes 2 ms except the third, which the clock cannot see.
  device.beforeWrite = [&](std::uint64_t, std::size_t) {
    clock.now += device.writes == 3 ? 0 : 0.002;
  };
  device.beforeSynchronize = [&] { clock.now += 1; };
  ProgressLog log;
  Wipe wipe = wipeWith(Method::zeros, 64 * kKiB);
  wipe.clock = clock.clock();
  const auto before = std::chrono::system_clock::now();
  const Wipe::Result result = wipe.run(device, {}, log.callback());
  const double fast = 65'536 / 0.002;
  EXPECT_NEAR(result.write.averageMBps, fast / 1e6 * 3 / 4, 1e-3);
  EXPECT_EQ(std::pair(result.write.curve.size(), result.write.minimumMBps), std::pair(4ul, 0.0));
  EXPECT_NEAR(result.duration, 1.006, 1e-9);
  EXPECT_TRUE(result.startedAt >= before && result.startedAt <= std::chrono::system_clock::now());

  using Phase = CheckProgress::Phase;
  ASSERT_GE(log.reports.size(), 9u);
  for (std::size_t i = 0; i < 4; ++i) {
    const std::uint64_t done = (i + 1) * 64 * kKiB;
    EXPECT_EQ(log.reports[i],
              (CheckProgress{Phase::wiping, done, 256 * kKiB, log.reports[i].bytesPerSecond}));
    EXPECT_NEAR(log.reports[i].bytesPerSecond.value_or(-1), i == 2 ? 0 : fast, 1e-3);
    EXPECT_EQ(log.reports[i + 4], (CheckProgress{Phase::verifying, done, 256 * kKiB, {}}));
  }
  for (std::size_t i = 8; i < log.reports.size(); ++i)
    EXPECT_EQ(log.reports[i],
              (CheckProgress{Phase::scanningForFiles, log.reports[i].completed, 256 * kKiB, {}}));
  EXPECT_EQ(log.reports.back().completed, 256 * kKiB);
}

TEST(WipeTest, AnythingLeftBehindMakesTheWipeIncomplete) {
  constexpr std::uint64_t kChunk = 64 * kKiB, kBlocksPerChunk = kChunk / 512;
  struct Row {
    const char* name;
    Method method;
    std::uint64_t size;
    std::int64_t blockSize;
    std::function<void(TestCard&, FaultyDevice&)> damage;
    std::int64_t writeErrors;
    std::uint64_t blocksNotErased;
    std::int64_t filesFound;
  };
  const Row rows[] = {
      {"a PNG in the trailing partial block, which is never written", Method::zeros, kMiB + 1024,
       4096, [](TestCard& card, FaultyDevice&) { card.memory.write(kMiB, samplePng()); }, 0, 0, 1},
      {"writes past 512 KiB lost, a JPEG beyond", Method::random, kMiB, 512,
       [](TestCard& card, FaultyDevice&) {
         card.keepsBelow = 512 * kKiB;
         card.memory.write(768 * kKiB, sampleJpeg());
       },
       0, 8 * kBlocksPerChunk, 1},
      {"one chunk's write fails", Method::random, kMiB, 512,
       [](TestCard&, FaultyDevice& device) {
         atStep(device, &FaultyDevice::writes, 4,
                [](std::uint64_t at) { throw WriteError::writeFailed(at, EIO); });
       },
       1, kBlocksPerChunk, 0},
      {"one byte changed on reading back", Method::random, kMiB, 512,
       [](TestCard&, FaultyDevice& device) {
         device.afterRead = [](std::uint64_t offset, std::span<std::uint8_t> bytes) {
           if (offset == 5 * kChunk && bytes.size() == kChunk) bytes[4000] ^= 0x10;
         };
       },
       0, kBlocksPerChunk, 0},
      {"one chunk can't be read back", Method::zeros, kMiB, 512,
       [](TestCard&, FaultyDevice& device) {
         device.beforeRead = [](std::uint64_t offset, std::size_t length) {
           if (offset == 2 * kChunk && length == kChunk) throw DeviceError::readFailed(offset, EIO);
         };
       },
       0, kBlocksPerChunk, 0},
  };
  for (const Row& row : rows) {
    TestCard card(row.size, row.blockSize);
    FaultyDevice device(card);
    row.damage(card, device);
    const Wipe::Result result = wipeWith(row.method, kChunk).run(device, {});
    EXPECT_EQ(std::tuple(result.writeErrors, result.blocksNotErased, result.recoverableFilesFound,
                         result.isComplete(), result.bytesOverwritten),
              std::tuple(row.writeErrors, row.blocksNotErased, row.filesFound, false, kMiB))
        << row.name;
  }
}

TEST(WipeTest, ScratchFolderIsFreshOwnerOnlyAndAlwaysRemoved) {
  const ScopedTempDirectory temp;
  const std::regex name(
      "vellum-wipe-verify-[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> seen;
  for (int run = 0; run < 2; ++run) {
    TestCard card(kMiB, 512);
    card.memory.write(256 * kKiB, samplePng());
    card.keepsBelow = 256 * kKiB;  // the PNG survives and is carved into the folder
    std::vector<fs::path> during;
    const auto watch = [&](const CheckProgress& progress) {
      if (progress.phase == CheckProgress::Phase::scanningForFiles && during.empty())
        during = temp.entries();
    };
    EXPECT_EQ(wipeWith(Method::zeros, 64 * kKiB).run(card, {}, watch).recoverableFilesFound, 1);
    ASSERT_EQ(during.size(), 1u);
    const std::string folder = during[0].filename().string();
    EXPECT_TRUE(std::regex_match(folder, name)) << folder;
    seen.insert(folder);
    EXPECT_TRUE(temp.entries().empty());
  }
  EXPECT_EQ(seen.size(), 2u);

  TestCard failing(kMiB, 512);  // a read error while looking for files ends the run
  failing.memory.unreadableBlocks().insert(300'000);
  EXPECT_EQ(errorText([&] { wipeWith(Method::zeros, 64 * kKiB).run(failing, {}); }),
            DeviceError::readFailed(300'000, EIO).description());
  EXPECT_TRUE(temp.entries().empty());
}

TEST(WipeTest, CancelStopsEveryPassAndRemovesTheScratchFolder) {
  constexpr std::uint64_t kChunk = 8 * kMiB, kSize = 48 * kMiB;  // six chunks
  enum class Pass { write, verify, carve };
  for (const Pass pass : {Pass::write, Pass::verify, Pass::carve}) {
    SCOPED_TRACE(static_cast<int>(pass));
    const ScopedTempDirectory temp;
    TestCard card(kSize, 512);
    const Bytes lastChunkBefore = noise(kChunk, 4);
    card.memory.write(kSize - kChunk, lastChunkBefore);
    FaultyDevice device(card);
    CancellationFlag cancel;
    int readsAfterCancel = 0;
    std::size_t foldersWhenStopped = 0;
    device.beforeWrite = [&](std::uint64_t offset, std::size_t) {
      if (pass == Pass::write && offset == 2 * kChunk) cancel.cancel();
    };
    device.beforeRead = [&](std::uint64_t offset, std::size_t length) {
      if (cancel.isCancelled()) return void(++readsAfterCancel);
      const bool verifying = length == kChunk;
      if ((pass == Pass::verify && verifying && offset == kChunk) ||
          (pass == Pass::carve && !verifying)) {
        cancel.cancel();
        foldersWhenStopped = temp.entries().size();
      }
    };
    EXPECT_EQ(errorText([&] { wipeWith(Method::zeros, kChunk).run(device, cancel); }), kStopped);
    EXPECT_EQ(readsAfterCancel, 0);
    EXPECT_TRUE(temp.entries().empty());
    EXPECT_EQ(card.storage(0, kChunk), Bytes(kChunk, 0));
    EXPECT_EQ(device.writes, pass == Pass::write ? 3 : 6);
    EXPECT_EQ(device.reads, pass == Pass::write ? 0 : pass == Pass::verify ? 2 : 7);
    EXPECT_EQ(foldersWhenStopped, pass == Pass::carve ? 1u : 0u);
    // Stopped while writing, the card is left partly overwritten.
    EXPECT_TRUE(pass != Pass::write || card.storage(kSize - kChunk, kChunk) == lastChunkBefore);
  }
}

TEST(WipeDeathTest, ZeroBlockOrChunkSizeStopsTheProgram) {
  TestCard noBlocks(4096, 0);
  EXPECT_DEATH(Wipe{}.run(noBlocks, {}), "precondition failed");
  TestCard card(4096, 512);
  EXPECT_DEATH(wipeWith(Method::zeros, 0).run(card, {}), "precondition failed");
}

}  // namespace
}  // namespace vellum

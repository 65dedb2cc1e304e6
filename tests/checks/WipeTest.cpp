#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>

#include "CarveSamples.h"
#include "bytes/DeviceError.h"
#include "checks/CheckTestSupport.h"
#include "checks/Wipe.h"
#include "devices/WriteError.h"
#include "support/FaultyDevice.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using testing::FaultyDevice;
using testing::noise;
using Method = Wipe::Method;

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;
constexpr std::uint64_t kGamma = 0x9E37'79B9'7F4A'7C15;

// An in-memory card that tests can set up byte by byte, seen by the wipe with
// blocks of blockSize. Writes at or past dropWritesFrom are lost without an
// error, as on a counterfeit card.
class TestCard final : public BlockDevice {
 public:
  TestCard(std::uint64_t size, std::int64_t blockSize)
      : memory_(size, std::nullopt, SimulatedDevice::Overflow::wrap, 1), blockSize_(blockSize) {}

  std::optional<std::uint64_t> dropWritesFrom;

  void put(std::uint64_t offset, const Bytes& bytes) { memory_.write(offset, bytes); }
  Bytes storage(std::uint64_t offset, std::uint64_t count) const {
    const Bytes& all = memory_.storage();
    return Bytes(all.begin() + static_cast<std::ptrdiff_t>(offset),
                 all.begin() + static_cast<std::ptrdiff_t>(offset + count));
  }
  // Byte offsets whose reads fail.
  std::set<std::uint64_t>& unreadable() { return memory_.unreadableBlocks(); }

  std::uint64_t size() const override { return memory_.size(); }
  std::int64_t badReads() const override { return 0; }
  std::string descriptionForReport() const override { return "test card"; }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override {
    return memory_.readInto(offset, out);
  }
  std::int64_t blockSize() const override { return blockSize_; }
  void write(std::uint64_t offset, std::span<const std::uint8_t> data) override {
    checkWrite(offset, static_cast<std::int64_t>(data.size()));
    const std::uint64_t end = std::min<std::uint64_t>(
        offset + data.size(), dropWritesFrom.value_or(offset + data.size()));
    if (end > offset) memory_.write(offset, data.first(static_cast<std::size_t>(end - offset)));
  }
  void synchronize() override {}

 private:
  SimulatedDevice memory_;
  std::int64_t blockSize_;
};

// A card of the given size full of reproducible noise.
std::unique_ptr<TestCard> noisyCard(std::uint64_t size, std::int64_t blockSize) {
  auto card = std::make_unique<TestCard>(size, blockSize);
  card->put(0, noise(static_cast<std::size_t>(size), 3));
  return card;
}

Wipe wipeWith(Method method, std::int64_t chunkBytes) {
  Wipe wipe;
  wipe.method = method;
  wipe.chunkBytes = chunkBytes;
  return wipe;
}

// The SplitMix64 stream written from state s: word k is the mix of
// s + (k + 1) * gamma, little-endian; a remainder under 8 bytes is zero.
std::uint64_t mix(std::uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58'476D'1CE4'E5B9;
  z = (z ^ (z >> 27)) * 0x94D0'49BB'1331'11EB;
  return z ^ (z >> 31);
}

Bytes splitMixStream(std::uint64_t state, std::uint64_t length) {
  Bytes out(static_cast<std::size_t>(length), 0);
  for (std::uint64_t k = 0; k + 1 <= length / 8; ++k) {
    const std::uint64_t word = mix(state + (k + 1) * kGamma);
    for (std::uint64_t b = 0; b < 8; ++b)
      out[static_cast<std::size_t>(8 * k + b)] = static_cast<std::uint8_t>(word >> (8 * b));
  }
  return out;
}

// mix() is a bijection; undoing it on the card's first word gives the seed
// the wipe drew (the first chunk starts from seed XOR 0).
std::uint64_t unshift(std::uint64_t y, int shift) {
  std::uint64_t x = y;
  for (int i = 0; i < 64 / shift + 1; ++i)
    x = y ^ (x >> shift);
  return x;
}

std::uint64_t inverse(std::uint64_t odd) {
  std::uint64_t x = odd;  // right to 3 bits; each step doubles that
  for (int i = 0; i < 6; ++i)
    x *= 2 - odd * x;
  return x;
}

std::uint64_t seedOf(const Bytes& firstWord) {
  std::uint64_t y = 0;
  for (int b = 7; b >= 0; --b)
    y = (y << 8) | firstWord[static_cast<std::size_t>(b)];
  y = unshift(y, 31) * inverse(0x94D0'49BB'1331'11EB);
  y = unshift(y, 27) * inverse(0xBF58'476D'1CE4'E5B9);
  return unshift(y, 30) - kGamma;
}

// Points the system's temporary directory at a fresh folder for one test, so
// the wipe's scratch folder can be watched.
class ScopedTempDirectory {
 public:
  ScopedTempDirectory() {
    if (const char* old = std::getenv("TMPDIR")) old_ = old;
    ::setenv("TMPDIR", dir_.path().c_str(), 1);
  }
  ~ScopedTempDirectory() {
    if (old_) {
      ::setenv("TMPDIR", old_->c_str(), 1);
    } else {
      ::unsetenv("TMPDIR");
    }
  }
  ScopedTempDirectory(const ScopedTempDirectory&) = delete;
  ScopedTempDirectory& operator=(const ScopedTempDirectory&) = delete;

  std::vector<fs::path> entries() const {
    std::vector<fs::path> found;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir_.path()))
      found.push_back(entry.path());
    return found;
  }

 private:
  testing::TempDir dir_;
  std::optional<std::string> old_;
};

TEST(WipeTest, LeavesExactlyTheFillAndKeepsTheTrailingPartialBlock) {
  struct Layout {
    const char* name;
    std::uint64_t size;
    std::int64_t blockSize;
    std::int64_t chunkBytes;
    std::uint64_t wiped;  // whole blocks
    std::uint64_t chunk;  // what a chunk really is, in whole blocks
  };
  const Layout layouts[] = {
      {"whole blocks", 1 * kMiB, 512, 64 * kKiB, 1 * kMiB, 64 * kKiB},
      {"trailing partial block", 1 * kMiB + 300, 512, 64 * kKiB, 1 * kMiB, 64 * kKiB},
      {"last chunk short", 200 * kKiB, 4096, 64 * kKiB, 200 * kKiB, 64 * kKiB},
      // 40-byte chunks hold three 12-byte blocks: four words and 4 zero bytes.
      {"chunk rounded down to blocks", 400, 12, 40, 396, 36},
  };
  std::set<std::uint64_t> seeds;  // each random run draws its own
  for (const Layout& layout : layouts) {
    for (const Method method : {Method::zeros, Method::random}) {
      SCOPED_TRACE(std::string(layout.name) + ", " + std::string(rawValue(method)));
      const auto card = noisyCard(layout.size, layout.blockSize);
      const Bytes before = card->storage(0, layout.size);
      CancellationFlag cancel;
      const Wipe::Result result = wipeWith(method, layout.chunkBytes).run(*card, cancel);

      EXPECT_EQ(result.method, method);
      EXPECT_EQ(result.bytesOverwritten, layout.wiped);
      EXPECT_EQ(result.writeErrors, 0);
      EXPECT_EQ(result.blocksNotErased, 0u);
      EXPECT_EQ(result.recoverableFilesFound, 0);
      EXPECT_TRUE(result.isComplete());

      const std::uint64_t seed = seedOf(card->storage(0, 8));
      if (method == Method::random) {
        EXPECT_NE(seed, 0u);
        seeds.insert(seed);
      }
      for (std::uint64_t offset = 0; offset < layout.wiped; offset += layout.chunk) {
        const std::uint64_t n = std::min(layout.chunk, layout.wiped - offset);
        const Bytes expected =
            method == Method::zeros ? Bytes(n, 0) : splitMixStream(seed ^ offset, n);
        ASSERT_EQ(card->storage(offset, n), expected) << "chunk at " << offset;
      }
      const std::uint64_t tail = layout.size - layout.wiped;
      EXPECT_EQ(card->storage(layout.wiped, tail),
                Bytes(before.end() - static_cast<std::ptrdiff_t>(tail), before.end()));
    }
  }
  EXPECT_EQ(seeds.size(), std::size(layouts));
}

TEST(WipeTest, ReportsEachPassAndTimesTheWrites) {
  TestCard inner(256 * kKiB, 512);
  FaultyDevice device(inner);
  testing::FakeClock clock;
  int writes = 0;
  // Each 64 KiB write takes 2 ms except the third, which the clock cannot see.
  device.beforeWrite = [&](std::uint64_t, std::size_t) { clock.now += writes++ == 2 ? 0 : 0.002; };
  device.beforeSynchronize = [&] { clock.now += 1; };
  testing::ProgressLog log;
  Wipe wipe = wipeWith(Method::zeros, 64 * kKiB);
  wipe.clock = clock.clock();
  CancellationFlag cancel;
  const auto before = std::chrono::system_clock::now();
  const Wipe::Result result = wipe.run(device, cancel, log.callback());

  const double fast = 65'536 / 0.002 / 1e6;
  EXPECT_EQ(result.write.curve.size(), 4u);
  EXPECT_NEAR(result.write.averageMBps, fast * 3 / 4, 1e-3);
  EXPECT_EQ(result.write.minimumMBps, 0);
  EXPECT_NEAR(result.duration, 1.006, 1e-9);
  EXPECT_GE(result.startedAt, before);
  EXPECT_LE(result.startedAt, std::chrono::system_clock::now());

  using Phase = CheckProgress::Phase;
  ASSERT_GE(log.reports.size(), 9u);
  for (std::uint64_t i = 0; i < 4; ++i) {
    const CheckProgress& wiping = log.reports[static_cast<std::size_t>(i)];
    EXPECT_EQ(wiping.phase, Phase::wiping);
    EXPECT_EQ(wiping.completed, (i + 1) * 64 * kKiB);
    EXPECT_EQ(wiping.total, 256 * kKiB);
    ASSERT_TRUE(wiping.bytesPerSecond.has_value());
    EXPECT_NEAR(*wiping.bytesPerSecond, i == 2 ? 0 : fast * 1e6, 1e-3);
    const CheckProgress& verifying = log.reports[static_cast<std::size_t>(i + 4)];
    EXPECT_EQ(verifying, (CheckProgress{Phase::verifying, (i + 1) * 64 * kKiB, 256 * kKiB, {}}));
  }
  for (std::size_t i = 8; i < log.reports.size(); ++i) {
    EXPECT_EQ(log.reports[i].phase, Phase::scanningForFiles);
    EXPECT_EQ(log.reports[i].total, 256 * kKiB);
    EXPECT_FALSE(log.reports[i].bytesPerSecond.has_value());
  }
  EXPECT_EQ(log.reports.back().completed, 256 * kKiB);
}

TEST(WipeTest, AnythingLeftBehindMakesTheWipeIncomplete) {
  constexpr std::uint64_t kChunk = 64 * kKiB;
  constexpr std::uint64_t kBlocksPerChunk = kChunk / 512;
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
      {"a PNG in the trailing partial block, which is never written", Method::zeros,
       1 * kMiB + 1024, 4096,
       [](TestCard& card, FaultyDevice&) { card.put(1 * kMiB, testing::samplePng()); }, 0, 0, 1},
      {"writes past 512 KiB lost, a JPEG beyond", Method::random, 1 * kMiB, 512,
       [](TestCard& card, FaultyDevice&) {
         card.dropWritesFrom = 512 * kKiB;
         card.put(768 * kKiB, testing::sampleJpeg());
       },
       0, 8 * kBlocksPerChunk, 1},
      {"one chunk's write fails", Method::random, 1 * kMiB, 512,
       [](TestCard&, FaultyDevice& device) {
         device.beforeWrite = [](std::uint64_t offset, std::size_t) {
           if (offset == 3 * kChunk) throw WriteError::writeFailed(offset, EIO);
         };
       },
       1, kBlocksPerChunk, 0},
      {"one byte changed on reading back", Method::random, 1 * kMiB, 512,
       [](TestCard&, FaultyDevice& device) {
         device.afterRead = [](std::uint64_t offset, std::span<std::uint8_t> bytes) {
           if (offset == 5 * kChunk && bytes.size() == kChunk) bytes[4000] ^= 0x10;
         };
       },
       0, kBlocksPerChunk, 0},
      {"one chunk can't be read back", Method::zeros, 1 * kMiB, 512,
       [](TestCard&, FaultyDevice& device) {
         device.beforeRead = [](std::uint64_t offset, std::size_t length) {
           if (offset == 2 * kChunk && length == kChunk) throw DeviceError::readFailed(offset, EIO);
         };
       },
       0, kBlocksPerChunk, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TestCard card(row.size, row.blockSize);
    FaultyDevice device(card);
    row.damage(card, device);
    CancellationFlag cancel;
    const Wipe::Result result = wipeWith(row.method, kChunk).run(device, cancel);
    EXPECT_EQ(result.writeErrors, row.writeErrors);
    EXPECT_EQ(result.blocksNotErased, row.blocksNotErased);
    EXPECT_EQ(result.recoverableFilesFound, row.filesFound);
    EXPECT_FALSE(result.isComplete());
    EXPECT_EQ(result.bytesOverwritten, 1 * kMiB);
  }
}

TEST(WipeTest, ScratchFolderIsFreshOwnerOnlyAndAlwaysRemoved) {
  const ScopedTempDirectory temp;
  const std::regex name(
      "vellum-wipe-verify-[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> seen;
  for (int run = 0; run < 2; ++run) {
    TestCard card(1 * kMiB, 512);
    card.put(256 * kKiB, testing::samplePng());
    card.dropWritesFrom = 256 * kKiB;  // the PNG survives and is carved into the folder
    CancellationFlag cancel;
    std::vector<fs::path> during;
    const auto watch = [&](const CheckProgress& progress) {
      if (progress.phase == CheckProgress::Phase::scanningForFiles && during.empty())
        during = temp.entries();
    };
    EXPECT_EQ(wipeWith(Method::zeros, 64 * kKiB).run(card, cancel, watch).recoverableFilesFound, 1);
    ASSERT_EQ(during.size(), 1u);
    const std::string folder = during[0].filename().string();
    EXPECT_TRUE(std::regex_match(folder, name)) << folder;
    struct stat status {};
    ASSERT_EQ(::stat(during[0].c_str(), &status), -1);  // already gone
    seen.insert(folder);
    EXPECT_TRUE(temp.entries().empty());
  }
  EXPECT_EQ(seen.size(), 2u);
}

TEST(WipeTest, CancelStopsEveryPassAndRemovesTheScratchFolder) {
  constexpr std::uint64_t kChunk = 8 * kMiB;
  constexpr std::uint64_t kSize = 48 * kMiB;  // six chunks; three reads for the engine
  enum class Pass { write, verify, carve };
  struct Row {
    const char* name;
    Pass pass;
  };
  for (const Row& row : {Row{"while writing", Pass::write}, Row{"while verifying", Pass::verify},
                         Row{"while looking for files", Pass::carve}}) {
    SCOPED_TRACE(row.name);
    const ScopedTempDirectory temp;
    const auto card = std::make_unique<TestCard>(kSize, 512);
    const Bytes lastChunkBefore = noise(kChunk, 4);
    card->put(kSize - kChunk, lastChunkBefore);
    FaultyDevice device(*card);
    CancellationFlag cancel;
    int readsAfterCancel = 0;
    std::vector<fs::path> folderWhenStopped;
    device.beforeWrite = [&](std::uint64_t offset, std::size_t) {
      if (row.pass == Pass::write && offset == 2 * kChunk) cancel.cancel();
    };
    device.beforeRead = [&](std::uint64_t offset, std::size_t length) {
      if (cancel.isCancelled()) {
        ++readsAfterCancel;
        return;
      }
      const bool verifying = length == kChunk;
      if ((row.pass == Pass::verify && verifying && offset == kChunk) ||
          (row.pass == Pass::carve && !verifying)) {
        cancel.cancel();
        folderWhenStopped = temp.entries();
      }
    };
    EXPECT_EQ(testing::errorText([&] { wipeWith(Method::zeros, kChunk).run(device, cancel); }),
              "The test was stopped.");
    EXPECT_EQ(readsAfterCancel, 0);
    EXPECT_TRUE(temp.entries().empty());
    EXPECT_EQ(card->storage(0, kChunk), Bytes(kChunk, 0));
    switch (row.pass) {
      case Pass::write:
        EXPECT_EQ(device.writes, 3);
        // The card is left partly overwritten.
        EXPECT_EQ(card->storage(kSize - kChunk, kChunk), lastChunkBefore);
        break;
      case Pass::verify:
        EXPECT_EQ(device.reads, 2);
        break;
      case Pass::carve:
        EXPECT_EQ(device.reads, 7);
        EXPECT_EQ(folderWhenStopped.size(), 1u);
        break;
    }
  }
}

TEST(WipeTest, AFailingCardEndsTheRunWhileLookingForFiles) {
  const ScopedTempDirectory temp;
  TestCard card(1 * kMiB, 512);
  card.unreadable().insert(300'000);
  CancellationFlag cancel;
  EXPECT_EQ(testing::errorText([&] { wipeWith(Method::zeros, 64 * kKiB).run(card, cancel); }),
            DeviceError::readFailed(300'000, EIO).description());
  EXPECT_TRUE(temp.entries().empty());
}

TEST(WipeTest, MethodNamesAndJson) {
  EXPECT_EQ(rawValue(Method::zeros), "zeros");
  EXPECT_EQ(rawValue(Method::random), "random");
  EXPECT_EQ(displayName(Method::zeros), "One pass of zeros");
  EXPECT_EQ(displayName(Method::random), "One pass of random data");
  EXPECT_EQ(wipeMethodFromRawValue("random"), Method::random);
  EXPECT_EQ(wipeMethodFromRawValue("zeros"), Method::zeros);
  EXPECT_EQ(wipeMethodFromRawValue("Zeros"), std::nullopt);
  EXPECT_EQ(wipeMethodFromRawValue("dod"), std::nullopt);

  Wipe::Result result;
  result.method = Method::random;
  result.bytesOverwritten = 268'435'456;
  result.writeErrors = 1;
  result.blocksNotErased = 16'384;
  result.recoverableFilesFound = 2;
  result.write = SpeedSummary({40.0});
  result.startedAt = std::chrono::system_clock::time_point(std::chrono::seconds(1'772'366'405)) +
                     std::chrono::milliseconds(750);
  result.duration = 12.5;
  EXPECT_EQ(nlohmann::json(result), nlohmann::json::parse(R"({
    "method": "random", "bytesOverwritten": 268435456, "writeErrors": 1,
    "blocksNotErased": 16384, "recoverableFilesFound": 2,
    "write": {"averageMBps": 40.0, "sustainedMBps": 40.0, "minimumMBps": 40.0, "curve": [40.0]},
    "startedAt": "2026-03-01T12:00:05Z", "duration": 12.5})"));
}

TEST(WipeDeathTest, ZeroBlockOrChunkSizeStopsTheProgram) {
  CancellationFlag cancel;
  TestCard noBlocks(4096, 0);
  EXPECT_DEATH(Wipe{}.run(noBlocks, cancel), "precondition failed");
  TestCard card(4096, 512);
  EXPECT_DEATH(wipeWith(Method::zeros, 0).run(card, cancel), "precondition failed");
}

}  // namespace
}  // namespace vellum

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>

#include "CarveSamples.h"
#include "checks/CheckTestSupport.h"
#include "checks/Wipe.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using ::testing::ThrowsMessage;

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
  return Wipe{.method = method, .chunkBytes = chunkBytes, .clock = {}};
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
  // size, block size, chunk bytes, bytes wiped (whole blocks), what a chunk really is
  const std::tuple<std::uint64_t, std::int64_t, std::int64_t, std::uint64_t, std::uint64_t>
      layouts[] = {{kMiB, 512, 64 * kKiB, kMiB, 64 * kKiB},
                   {kMiB + 300, 512, 64 * kKiB, kMiB, 64 * kKiB},         // trailing partial block
                   {200 * kKiB, 4096, 64 * kKiB, 200 * kKiB, 64 * kKiB},  // last chunk short
                   // 40-byte chunks hold three 12-byte blocks: four words and 4 zero bytes.
                   {400, 12, 40, 396, 36}};
  std::set<Bytes> seeds;  // each random run draws its own
  for (const auto& [size, blockSize, chunkBytes, wiped, chunk] : layouts) {
    for (const Method method : {Method::zeros, Method::random}) {
      SCOPED_TRACE(std::to_string(size) + " " + std::string(rawValue(method)));
      TestCard card(size, blockSize);
      const Bytes before = noise(static_cast<std::size_t>(size), 3);
      card.memory.write(0, before);
      const Wipe::Result result = wipeWith(method, chunkBytes).run(card, {});
      EXPECT_EQ(std::tuple(result.method, result.bytesOverwritten, result.isComplete()),
                std::tuple(method, wiped, true));
      // Zeros everywhere, or random data that differs from chunk to chunk
      // and from run to run, so no chunk of a random wipe repeats another.
      std::set<Bytes> chunks;
      for (std::uint64_t offset = 0; offset < wiped; offset += chunk) {
        const std::uint64_t n = std::min(chunk, wiped - offset);
        const Bytes now = part(card.memory.storage(), offset, n);
        if (method == Method::zeros) {
          ASSERT_EQ(now, Bytes(n, 0)) << "chunk at " << offset;
        } else {
          EXPECT_GT(std::count_if(now.begin(), now.end(), [](auto b) { return b != 0; }), n / 2);
          EXPECT_TRUE(chunks.insert(now).second) << "chunk at " << offset << " repeats";
        }
      }
      if (method == Method::random) seeds.insert(part(card.memory.storage(), 0, 8));
      EXPECT_EQ(part(card.memory.storage(), wiped, size - wiped),
                part(before, wiped, size - wiped));
    }
  }
  EXPECT_EQ(seeds.size(), std::size(layouts));
}

TEST(WipeTest, AnythingLeftBehindMakesTheWipeIncomplete) {
  constexpr std::uint64_t kChunk = 64 * kKiB, kPerChunk = kChunk / 512;
  using Damage = std::function<void(TestCard&, FaultyDevice&)>;
  const Damage lostPastHalf = [](TestCard& card, FaultyDevice&) {
    card.keepsBelow = 512 * kKiB;
    card.memory.write(768 * kKiB, sampleJpeg());
  };
  const auto fail = [](int FaultyDevice::*counter, int k) -> Damage {
    return [=](TestCard&, FaultyDevice& d) { failAt(d, counter, k); };
  };
  const Damage flipOnRead = [](TestCard&, FaultyDevice& d) {
    d.afterRead = [&d](auto, auto bytes) { bytes[4000] ^= d.reads == 6 ? 0x10 : 0; };
  };
  using enum Wipe::Method;
  // clang-format off
  const std::tuple<const char*, Method, std::uint64_t, std::int64_t, Damage, std::int64_t,
                   std::uint64_t, std::int64_t> rows[] = {
      // name, method, size, block size, damage, write errors, blocks not erased, files found
      {"a PNG in the never-written trailing partial block", zeros, kMiB + 1024, 4096,
       [](TestCard& card, FaultyDevice&) { card.memory.write(kMiB, samplePng()); }, 0, 0, 1},
      {"writes past 512 KiB lost, a JPEG beyond", random, kMiB, 512, lostPastHalf, 0, 8 * kPerChunk,
       1},
      {"the fourth chunk's write fails", random, kMiB, 512, fail(kWrites, 4), 1, kPerChunk, 0},
      {"one byte changed on reading back", random, kMiB, 512, flipOnRead, 0, kPerChunk, 0},
      {"the third chunk can't be read back", zeros, kMiB, 512, fail(kReads, 3), 0, kPerChunk, 0},
      {"the third chunk reads back short", zeros, kMiB, 512, [](TestCard&, FaultyDevice& d) {
         d.shortRead = [&d](std::uint64_t, std::size_t n) { return d.reads == 3 ? n / 2 : n; };
       }, 0, kPerChunk, 0},
      // The search reads unreadable sectors as zeros; its chunk already counts.
      {"an unreadable sector", zeros, kMiB, 512,
       [](TestCard& card, FaultyDevice&) { card.memory.unreadableBlocks().insert(300'000); }, 0,
       kPerChunk, 0},
      {"a sector that fails only during the search", zeros, kMiB, 512,
       [](TestCard&, FaultyDevice& d) {
         d.beforeRead = [&d](std::uint64_t offset, std::size_t length) {
           if (d.reads >= 16 && offset <= 300'000 && 300'000 < offset + length)
             throw DeviceError::readFailed(offset, EIO);
         };
       }, 0, 1, 0},
  };
  // clang-format on
  // Files found are carved into an owner-only scratch folder, removed whatever happens.
  const ScopedTempDirectory temp;
  for (const auto& [name, method, size, blockSize, damage, writeErrors, notErased, files] : rows) {
    TestCard card(size, blockSize);
    FaultyDevice device(card);
    damage(card, device);
    std::vector<fs::path> during;
    fs::perms mode{};
    const auto watch = [&](const CheckProgress& progress) {
      if (progress.phase != CheckProgress::Phase::scanningForFiles || !during.empty()) return;
      during = temp.entries();
      if (during.size() == 1) mode = fs::status(during[0]).permissions();
    };
    const Wipe::Result r = wipeWith(method, kChunk).run(device, {}, watch);
    EXPECT_EQ(std::tuple(r.writeErrors, r.blocksNotErased, r.recoverableFilesFound, r.isComplete(),
                         r.bytesOverwritten),
              std::tuple(writeErrors, notErased, files, false, kMiB))
        << name;
    EXPECT_TRUE(temp.entries().empty());
    if (files == 0) continue;
    ASSERT_EQ(during.size(), 1u);
    EXPECT_EQ(mode, fs::perms::owner_all);
  }
  // The scratch folder is made before anything is overwritten.
  for (const char* folder : {"/nonexistent/folder", "/proc/self"}) {
    ::setenv("TMPDIR", folder, 1);
    TestCard card(kMiB, 512);
    card.memory.write(0, Bytes(512, 7));
    EXPECT_THAT([&] { wipeWith(Method::zeros, kChunk).run(card, {}); },
                ThrowsMessage<std::exception>(::testing::AllOf(
                    ::testing::HasSubstr(folder), ::testing::HasSubstr("Nothing was erased."))));
    EXPECT_EQ(part(card.memory.storage(), 0, 512), Bytes(512, 7));
  }
}

TEST(WipeTest, CancelStopsEveryPassAndRemovesTheScratchFolder) {
  constexpr std::uint64_t kChunk = 8 * kMiB, kSize = 48 * kMiB;  // six chunks
  // Cancel at the third write, the second verify read, the first read looking for files.
  // clang-format off
  for (const auto& [counter, k, writes, reads] :
       {std::tuple{kWrites, 3, 3, 0}, {kReads, 2, 6, 2}, {kReads, 7, 6, 7}}) {
    // clang-format on
    const ScopedTempDirectory temp;
    TestCard card(kSize, 512);
    const Bytes lastChunkBefore = noise(kChunk, 4);
    card.memory.write(kSize - kChunk, lastChunkBefore);
    FaultyDevice device(card);
    CancellationFlag cancel;
    std::size_t folders = 0;
    atStep(device, counter, k, [&](std::uint64_t) {
      cancel.cancel();
      folders = temp.entries().size();
    });
    EXPECT_THAT([&] { wipeWith(Method::zeros, kChunk).run(device, cancel); },
                ThrowsMessage<std::exception>(kStopped));
    // Exact counts: nothing is read or written once the flag is seen.
    EXPECT_EQ(std::tuple(device.writes, device.reads), std::tuple(writes, reads)) << k;
    EXPECT_TRUE(temp.entries().empty());
    EXPECT_TRUE(k != 7 || folders == 1);
    EXPECT_EQ(part(card.memory.storage(), 0, kChunk), Bytes(kChunk, 0));
    // Stopped while writing, the card is left partly overwritten.
    EXPECT_TRUE(writes == 6 ||
                part(card.memory.storage(), kSize - kChunk, kChunk) == lastChunkBefore);
  }
}

TEST(WipeDeathTest, ZeroBlockOrChunkSizeStopsTheProgram) {
  TestCard noBlocks(4096, 0), card(4096, 512);
  EXPECT_DEATH(Wipe{}.run(noBlocks, {}), "precondition failed");
  EXPECT_DEATH(wipeWith(Method::zeros, 0).run(card, {}), "precondition failed");
}

}  // namespace
}  // namespace vellum

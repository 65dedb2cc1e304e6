#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "RealDisks.h"
#include "bytes/DeviceError.h"
#include "bytes/PositionedIo.h"
#include "platform/BlockDeviceSource.h"
#include "platform/RawDeviceAccess.h"

// Raw reads of files, loop disks and FUSE disks with failing sectors.

namespace vellum {
namespace {

using testing::FuseDisk;
using testing::LoopDevice;

// Bytes of [offset, offset + count): never zero, so a zeroed sector stands
// out, except in the given sectors, which read as zeros.
Bytes pattern(std::uint64_t offset, std::uint64_t count,
              const std::vector<std::uint64_t>& zeroSectors = {}, std::uint64_t sectorSize = 512) {
  Bytes bytes(count);
  for (std::uint64_t i = 0, at = offset; i < count; ++i, ++at) {
    const bool zero = std::ranges::find(zeroSectors, at / sectorSize) != zeroSectors.end();
    bytes[i] = zero ? 0 : static_cast<std::uint8_t>((at / 512 * 37 + at) % 255 + 1);
  }
  return bytes;
}

void writePattern(const std::string& path, std::uint64_t size) {
  const UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(pwriteFully(fd.get(), 0, pattern(0, size)).errnum, 0) << path;
}

BlockDeviceSource openSource(const std::string& path) {
  return BlockDeviceSource(UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), path);
}

TEST(BlockDeviceSource, OpenedAsRawSourceReadsAnyRangeOfA4096ByteSectorDisk) {
  VL_REQUIRE_LOOP_DEVICES();
  constexpr std::uint64_t kSize = 1 << 20;
  testing::TempDir dir;
  const std::string image = dir.file("disk.img");
  testing::createSparseFile(image, kSize);
  writePattern(image, kSize);
  const LoopDevice loop(image, {.sectorSize = 4096});
  const std::unique_ptr<ByteSource> opened = SourceOpener::open(loop.path());
  auto* source = dynamic_cast<BlockDeviceSource*>(opened.get());
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->blockSize(), 4096);
  EXPECT_EQ(source->size(), kSize);
  EXPECT_EQ(source->descriptionForReport(), loop.path());

  const std::tuple<std::uint64_t, std::int64_t, std::uint64_t> cases[] = {
      {0, 4096, 4096},    {700, 10, 10},
      {4095, 2, 2},       {1000, 10000, 10000},
      {kSize - 3, 10, 3}, {kSize - 4096, 4096, 4096},
      {kSize, 10, 0},     {123456, 300000, 300000},
  };
  for (const auto& [offset, count, expected] : cases)
    EXPECT_EQ(source->read(offset, count), pattern(offset, expected)) << offset;
  EXPECT_EQ(source->badReads(), 0);
}

TEST(BlockDeviceSource, UnreadableSectorsComeBackAsZerosAndAreCounted) {
  VL_REQUIRE_FUSE_DISKS();
  constexpr std::uint64_t kSize = 2 << 20;
  FuseDisk disk({.size = kSize, .unreadable = {{0, 0}, {2, 2}, {11, 11}, {1000, 1003}}});
  writePattern(disk.file(), kSize);
  const LoopDevice loop(disk.file(), {.directIo = true});
  BlockDeviceSource source = openSource(loop.path());
  ASSERT_EQ(source.blockSize(), 512);

  // 10 bytes at 700 need sector 1 only; its unreadable neighbours are never read.
  EXPECT_EQ(source.read(700, 10), pattern(700, 10));
  EXPECT_EQ(source.badReads(), 0);
  // Sectors 8..15 with sector 11 unreadable: 512 zeros in its place, one bad read.
  EXPECT_EQ(source.read(8 * 512, 8 * 512), pattern(8 * 512, 8 * 512, {11}));
  EXPECT_EQ(source.badReads(), 1);
  // An unaligned read that ends inside a bad sector.
  EXPECT_EQ(source.read(11 * 512 - 5, 10), pattern(11 * 512 - 5, 10, {11}));
  EXPECT_EQ(source.badReads(), 2);
  // The whole disk: every bad sector once, nothing else lost.
  EXPECT_EQ(source.read(0, kSize), pattern(0, kSize, {0, 2, 11, 1000, 1001, 1002, 1003}));
  EXPECT_EQ(source.badReads(), 2 + 7);

  // On a 4096-byte-sector disk a bad sector is one bad read too.
  FuseDisk modern({.size = kSize, .sectorSize = 4096, .unreadable = {{5, 5}}});
  writePattern(modern.file(), kSize);
  const LoopDevice modernLoop(modern.file(), {.sectorSize = 4096, .directIo = true});
  BlockDeviceSource big = openSource(modernLoop.path());
  ASSERT_EQ(big.blockSize(), 4096);
  EXPECT_EQ(big.read(0, 65536), pattern(0, 65536, {5}, 4096));
  EXPECT_EQ(big.badReads(), 1);
  EXPECT_EQ(big.read(5 * 4096 + 100, 10), Bytes(10, 0));  // a few bytes inside the bad sector
  EXPECT_EQ(big.badReads(), 2);
}

}  // namespace
}  // namespace vellum

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "DiskFixtures.h"
#include "bytes/DeviceError.h"
#include "bytes/PositionedIo.h"
#include "platform/BlockDeviceSource.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::FuseDisk;
using testing::LoopDevice;
using testing::TempDir;

// Never zero, so a zero-filled sector stands out.
std::uint8_t patternByte(std::uint64_t position) {
  return static_cast<std::uint8_t>((position / 512 * 37 + position) % 255 + 1);
}

Bytes pattern(std::uint64_t offset, std::uint64_t count) {
  Bytes bytes(count);
  for (std::uint64_t i = 0; i < count; ++i)
    bytes[i] = patternByte(offset + i);
  return bytes;
}

void writePattern(const std::string& path, std::uint64_t size) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_TRUE(fd.valid()) << path;
  const Bytes bytes = pattern(0, size);
  ASSERT_EQ(pwriteFully(fd.get(), 0, bytes).errnum, 0);
}

BlockDeviceSource openSource(const std::string& path) {
  return BlockDeviceSource(UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), path);
}

// The expected bytes of [offset, offset + count) with the given 512-byte
// sectors read as zeros.
Bytes withZeroedSectors(std::uint64_t offset, std::uint64_t count,
                        const std::vector<std::uint64_t>& sectors, std::uint64_t sectorSize) {
  Bytes bytes = pattern(offset, count);
  for (std::uint64_t i = 0; i < count; ++i) {
    for (const std::uint64_t sector : sectors) {
      if ((offset + i) / sectorSize == sector) bytes[i] = 0;
    }
  }
  return bytes;
}

TEST(BlockDeviceSource, RegularFileCountsAsDeviceOf512ByteSectors) {
  TempDir dir;
  const std::string path = dir.file("image.bin");
  testing::writeFile(path, std::string(1000, 'x'));
  writePattern(path, 1000);
  BlockDeviceSource source = openSource(path);
  EXPECT_EQ(source.blockSize(), 512);
  EXPECT_EQ(source.size(), 1000u);
  EXPECT_EQ(source.descriptionForReport(), path);
  EXPECT_EQ(source.read(990, 20), pattern(990, 10));  // short only at the end
  EXPECT_EQ(source.read(700, 10), pattern(700, 10));
  EXPECT_TRUE(source.read(1000, 10).empty());
  EXPECT_EQ(source.badReads(), 0);

  const std::string empty = dir.file("empty.bin");
  testing::writeFile(empty, "");
  try {
    openSource(empty);
    FAIL() << "an empty file is no device";
  } catch (const DeviceError& error) {
    EXPECT_EQ(error, DeviceError::notAFileOrDevice(empty));
    EXPECT_EQ(error.description(), empty + " is not a readable file or device.");
  }
}

TEST(BlockDeviceSource, ReadsAnyRangeOfA4096ByteSectorDisk) {
  VL_REQUIRE_LOOP_DEVICES();
  TempDir dir;
  const std::string image = dir.file("disk.img");
  constexpr std::uint64_t kSize = 1 << 20;
  testing::createSparseFile(image, kSize);
  writePattern(image, kSize);
  LoopDevice loop(image, {.sectorSize = 4096});
  BlockDeviceSource source = openSource(loop.path());
  EXPECT_EQ(source.blockSize(), 4096);
  EXPECT_EQ(source.size(), kSize);

  struct Case {
    std::uint64_t offset;
    std::int64_t count;
    std::uint64_t expected;
  };
  const Case cases[] = {
      {0, 4096, 4096},    {700, 10, 10},
      {4095, 2, 2},       {1000, 10000, 10000},
      {kSize - 3, 10, 3}, {kSize - 4096, 4096, 4096},
      {kSize, 10, 0},     {123456, 300000, 300000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.offset);
    EXPECT_EQ(source.read(c.offset, c.count), pattern(c.offset, c.expected));
  }
  EXPECT_EQ(source.badReads(), 0);
}

TEST(BlockDeviceSource, UnreadableSectorsComeBackAsZerosAndAreCounted) {
  VL_REQUIRE_FUSE_DISKS();
  constexpr std::uint64_t kSize = 2 << 20;
  FuseDisk disk({.size = kSize, .unreadable = {{0, 0}, {2, 2}, {11, 11}, {1000, 1003}}});
  writePattern(disk.file(), kSize);
  LoopDevice loop(disk.file(), {.directIo = true});
  BlockDeviceSource source = openSource(loop.path());
  ASSERT_EQ(source.blockSize(), 512);

  // 10 bytes at 700 need sector 1 only; its unreadable neighbours are never read.
  EXPECT_EQ(source.read(700, 10), pattern(700, 10));
  EXPECT_EQ(source.badReads(), 0);

  // Sectors 8..15 with sector 11 unreadable: 512 zeros in its place, one bad read.
  EXPECT_EQ(source.read(8 * 512, 8 * 512), withZeroedSectors(8 * 512, 8 * 512, {11}, 512));
  EXPECT_EQ(source.badReads(), 1);

  // An unaligned read that ends inside a bad sector.
  EXPECT_EQ(source.read(11 * 512 - 5, 10), withZeroedSectors(11 * 512 - 5, 10, {11}, 512));
  EXPECT_EQ(source.badReads(), 2);

  // The whole disk: every bad sector once, nothing else lost.
  const Bytes all = source.read(0, kSize);
  EXPECT_EQ(all, withZeroedSectors(0, kSize, {0, 2, 11, 1000, 1001, 1002, 1003}, 512));
  EXPECT_EQ(source.badReads(), 2 + 7);
}

TEST(BlockDeviceSource, UnreadableSectorOfA4096ByteSectorDiskIsOneBadRead) {
  VL_REQUIRE_FUSE_DISKS();
  constexpr std::uint64_t kSize = 1 << 20;
  FuseDisk disk({.size = kSize, .sectorSize = 4096, .unreadable = {{5, 5}}});
  writePattern(disk.file(), kSize);
  LoopDevice loop(disk.file(), {.sectorSize = 4096, .directIo = true});
  BlockDeviceSource source = openSource(loop.path());
  ASSERT_EQ(source.blockSize(), 4096);
  EXPECT_EQ(source.read(0, 65536), withZeroedSectors(0, 65536, {5}, 4096));
  EXPECT_EQ(source.badReads(), 1);
  // A few bytes inside the bad sector: zeros, one more bad read.
  EXPECT_EQ(source.read(5 * 4096 + 100, 10), Bytes(10, 0));
  EXPECT_EQ(source.badReads(), 2);
}

}  // namespace
}  // namespace vellum

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <numeric>

#include "bytes/DeviceError.h"
#include "bytes/FileSource.h"
#include "bytes/ZeroFillingSource.h"
#include "devices/FileDescriptorDevice.h"
#include "devices/SimulatedDevice.h"
#include "devices/WriteError.h"
#include "support/FaultyDevice.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using ::testing::Throws;
using ::testing::ThrowsMessage;

using testing::TempDir;
using testing::writeFile;
using Overflow = SimulatedDevice::Overflow;

Bytes filled(std::size_t n, std::uint8_t value) {
  return Bytes(n, value);
}

Bytes counting(std::size_t n, std::uint8_t start = 0) {
  Bytes b(n);
  std::iota(b.begin(), b.end(), start);
  return b;
}

TEST(CheckWrite, AlignmentBeforeRange) {
  SimulatedDevice device(4096, std::nullopt, Overflow::wrap, 512);
  EXPECT_NO_THROW(device.checkWrite(4096, 0));
  EXPECT_NO_THROW(device.checkWrite(3584, 512));
  EXPECT_THAT([&] { device.checkWrite(4096 + 512, 0); },
              Throws<WriteError>(WriteError::outOfRange(4608, 0, 4096)));
  EXPECT_THAT([&] { device.write(1, filled(512, 1)); },
              Throws<WriteError>(WriteError::unaligned(1, 512, 512)));
  // Both unaligned and past the end: alignment wins.
  EXPECT_THAT([&] { device.checkWrite(8193, 100); },
              Throws<WriteError>(WriteError::unaligned(8193, 100, 512)));
  EXPECT_THAT([&] { device.checkWrite(4096, 512); },
              ThrowsMessage<WriteError>(
                  "Write at 4096 of 512 bytes runs past the end of the device (4096 bytes)."));
}

TEST(SimulatedDevice, BlockStraddlingStorageEndReadsZerosThenWraps) {
  // Real capacity 1000 is not a block multiple: block 1 (512..1023) holds 488
  // stored bytes then zeros; block 2 starts again at physical 24.
  SimulatedDevice device(4096, 1000, Overflow::wrap, 512);
  device.write(0, counting(512));
  const Bytes block1 = device.read(512, 512);
  EXPECT_TRUE(std::all_of(block1.begin() + 488, block1.end(), [](auto b) { return b == 0; }));
  const Bytes block2 = device.read(1024, 4);
  EXPECT_EQ(block2, (Bytes{24, 25, 26, 27}));
}

TEST(SimulatedDevice, UnreadableBlockFailsAtItsOwnOffset) {
  SimulatedDevice device(8192, std::nullopt, Overflow::wrap, 512);
  device.unreadableBlocks() = {3};
  EXPECT_THAT([&] { (void)device.read(0, 4096); },
              Throws<DeviceError>(DeviceError::readFailed(1536, EIO)));
  EXPECT_THAT([&] { (void)device.read(1600, 10); },
              Throws<DeviceError>(DeviceError::readFailed(1600, EIO)));
  EXPECT_EQ(device.read(2048, 512).size(), 512u);
  device.unreadableBlocks().clear();
  EXPECT_EQ(device.read(0, 4096).size(), 4096u);
}

TEST(FileDescriptorDevice, OpenImageUsesWholeBlocksOnly) {
  TempDir dir;
  writeFile(dir.file("small.img"), std::string(1000, 'x'));
  const auto device = FileDescriptorDevice::openImage(dir.file("small.img"), 512);
  EXPECT_EQ(device->size(), 512u);
  EXPECT_EQ(device->blockSize(), 512);
  EXPECT_EQ(device->descriptionForReport(), dir.file("small.img"));
  EXPECT_EQ(device->read(500, 100).size(), 12u);
}

TEST(FileDescriptorDevice, OpenImageRefusals) {
  TempDir dir;
  EXPECT_THAT([&] { FileDescriptorDevice::openImage(dir.file("none"), 512); },
              Throws<WriteError>(WriteError::cannotOpen(dir.file("none"), ENOENT)));
  std::filesystem::create_directory(dir.file("folder"));
  // Opening a directory read-write fails in open() itself.
  EXPECT_THAT([&] { FileDescriptorDevice::openImage(dir.file("folder"), 512); },
              Throws<WriteError>(WriteError::cannotOpen(dir.file("folder"), EISDIR)));
  EXPECT_THAT(
      [&] { FileDescriptorDevice::openImage("/dev/null", 512); },
      Throws<WriteError>(WriteError::refused("/dev/null is not a regular disk image file.")));
}

// Writes and reads of every shape reach the file, whether the descriptor is
// direct (aligned, unaligned memory, sub-alignment blocks) or cached.
TEST(FileDescriptorDevice, TransfersOfEveryShapeReachTheFile) {
  TempDir dir;
  const std::string path = dir.file("card.img");
  writeFile(path, std::string(64 * 1024, '\0'));
  {
    const auto device = FileDescriptorDevice::openImage(path, 512);
    const Bytes big = counting(16 * 1024, 7);
    device->write(8192, big);                 // aligned offset, vector memory
    device->write(512, filled(512, 0x11));    // one 512-byte block
    device->write(1536, filled(1024, 0x22));  // inside one 4096-byte page
    device->write(3584, filled(1024, 0x33));  // 3584..4607 straddles 4096
    device->synchronize();
    EXPECT_EQ(device->read(8192, 16 * 1024), big);
    EXPECT_EQ(device->read(8193, 5), Bytes(big.begin() + 1, big.begin() + 6));
    EXPECT_EQ(device->read(512, 512), filled(512, 0x11));
    EXPECT_EQ(device->read(3584, 1024), filled(1024, 0x33));
  }
  FileSource check(path);
  EXPECT_EQ(check.read(512, 512), filled(512, 0x11));
  EXPECT_EQ(check.read(1536, 1024), filled(1024, 0x22));
  EXPECT_EQ(check.read(3584, 1024), filled(1024, 0x33));
  EXPECT_EQ(check.read(8192 + 100, 3), (Bytes{107, 108, 109}));
  EXPECT_EQ(check.size(), 64u * 1024);
}

// What the post-wipe search reads: sectors that fail or come back short read
// as zeros and are reported; a card that is gone still stops it.
TEST(ZeroFillingSource, FailingAndShortSectorsReadAsReportedZeros) {
  SimulatedDevice card(8 * 512, std::nullopt, Overflow::wrap, 512);
  card.write(0, filled(8 * 512, 7));
  card.unreadableBlocks() = {2};
  testing::FaultyDevice faulty(card);
  faulty.shortRead = [](std::uint64_t offset, std::size_t n) {
    return offset == 5 * 512 ? n - 1 : n;
  };
  ZeroFillingSource source(faulty, 512);
  std::vector<std::uint64_t> unreadable;
  source.onUnreadable = [&](std::uint64_t at) { unreadable.push_back(at); };
  Bytes expected = filled(8 * 512, 7);
  std::fill(expected.begin() + 2 * 512, expected.begin() + 3 * 512, 0);
  std::fill(expected.begin() + 5 * 512, expected.begin() + 6 * 512, 0);
  EXPECT_EQ(source.read(0, 8 * 512), expected);
  EXPECT_EQ(unreadable, (std::vector<std::uint64_t>{2 * 512, 5 * 512}));
  faulty.beforeRead = [](std::uint64_t at, std::size_t) {
    throw DeviceError::readFailed(at, ENODEV);
  };
  EXPECT_THROW(source.read(0, 512), DeviceError);
}

}  // namespace
}  // namespace vellum

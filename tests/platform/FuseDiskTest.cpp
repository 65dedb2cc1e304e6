#include <gtest/gtest.h>

#include <cerrno>

#include "DiskFixtures.h"
#include "Machine.h"
#include "bytes/DeviceError.h"
#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"
#include "platform/DeviceWriteAccess.h"

// The FUSE disk stands in for counterfeit and failing cards in the tests of
// the card checks; these tests pin down that it behaves like one when opened
// the way a real card is.

namespace vellum {
namespace {

using testing::FuseDisk;
using testing::LoopDevice;

constexpr std::uint64_t kMiB = 1 << 20;

std::unique_ptr<FileDescriptorDevice> openForWriting(const LoopDevice& loop) {
  return DeviceWriteAccess::open(DeviceGuard::inspect(loop.name(), Allowance::standard));
}

TEST(FuseDisk, BehavesLikeACounterfeitCardThatWrapsOrDropsWrites) {
  VL_REQUIRE_FUSE_DISKS();
  testing::ScopedEnv allowImages("VL_ALLOW_DISK_IMAGES", "1");
  const Bytes first(4096, 0x11);
  const Bytes beyond(4096, 0x22);
  for (const bool wrap : {true, false}) {
    SCOPED_TRACE(wrap ? "wrap" : "discard");
    FuseDisk disk({.size = 64 * kMiB, .realCapacity = 16 * kMiB, .wrap = wrap});
    LoopDevice loop(disk.file(), {.directIo = true});
    const auto device = openForWriting(loop);
    EXPECT_EQ(device->size(), 64 * kMiB);  // the claimed capacity

    device->write(4096, first);
    device->write(16 * kMiB + 4096, beyond);  // past the real capacity: accepted
    device->synchronize();
    if (wrap) {
      // The later write landed on the same flash and wins.
      EXPECT_EQ(device->read(4096, 4096), beyond);
      EXPECT_EQ(device->read(16 * kMiB + 4096, 4096), beyond);
      EXPECT_EQ(device->read(48 * kMiB + 4096, 4096), beyond);
    } else {
      EXPECT_EQ(device->read(4096, 4096), first);
      EXPECT_EQ(device->read(16 * kMiB + 4096, 4096), Bytes(4096, 0));
    }
  }
}

TEST(FuseDisk, FailsChosenSectorsWithIoErrors) {
  VL_REQUIRE_FUSE_DISKS();
  testing::ScopedEnv allowImages("VL_ALLOW_DISK_IMAGES", "1");
  FuseDisk disk({.size = 8 * kMiB, .unreadable = {{100, 101}}, .unwritable = {{200, 200}}});
  LoopDevice loop(disk.file(), {.directIo = true});
  const auto device = openForWriting(loop);

  try {
    device->read(96 * 512, 8 * 512);
    FAIL() << "read an unreadable sector";
  } catch (const DeviceError& error) {
    ASSERT_TRUE(error.is<DeviceError::ReadFailed>());
    EXPECT_EQ(error.as<DeviceError::ReadFailed>()->errnum, EIO);
  }
  EXPECT_EQ(device->read(102 * 512, 512), Bytes(512, 0));  // neighbours read fine

  try {
    device->write(200 * 512, Bytes(512, 1));
    FAIL() << "wrote an unwritable sector";
  } catch (const WriteError& error) {
    EXPECT_EQ(error, WriteError::writeFailed(200 * 512, EIO));
  }
  device->write(201 * 512, Bytes(512, 1));
}

}  // namespace
}  // namespace vellum

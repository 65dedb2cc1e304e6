#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/swap.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "RealDisks.h"
#include "devices/WriteError.h"
#include "platform/DiskEnumerator.h"

namespace vellum {
namespace {

using ::testing::ThrowsMessage;

namespace fs = std::filesystem;
using testing::ImageDisk;

std::string inspectRefusal(const std::string& name) {
  return testing::errorText<WriteError>([&] { DeviceGuard::inspect(name, Allowance::standard); });
}

// A file system mounted for one scope (lazily detached if still there).
struct ScopedMount {
  ScopedMount(const std::string& device, const std::string& at) : point(at) {
    fs::create_directories(point);
    mounted = ::mount(device.c_str(), point.c_str(), "ext4", 0, nullptr) == 0;
  }
  ~ScopedMount() {
    if (mounted) ::umount2(point.c_str(), MNT_DETACH);
  }
  std::string point;
  bool mounted = false;
};

TEST(LoopDevices, EnumeratedAndInspectedAsDiskImagesOrRefusedWhenSwapIsOn) {
  VL_REQUIRE_LOOP_DEVICES();
  const ImageDisk disk(64 << 20, 0, "card image.img");
  const std::string name = disk.loop.name();
  // The kernel's number for this medium, which the listing carries.
  std::uint64_t sequence = 0;
  std::ifstream("/sys/block/" + name + "/diskseq") >> sequence;
  ASSERT_NE(sequence, 0u);
  const ExternalDisk expected{name, "Disk Image card image.img", 64 << 20, {}, "", sequence};
  for (const bool images : {true, false}) {
    const std::vector<ExternalDisk> disks = DiskEnumerator::externalDisks(images);
    EXPECT_EQ(std::ranges::count(disks, expected), images ? 1 : 0);
  }
  {
    const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", std::nullopt);
    EXPECT_EQ(inspectRefusal(name), name +
                                        " is a virtual disk, not a card. To test the disk image "
                                        "behind it anyway, set VL_ALLOW_DISK_IMAGES=1.");
  }
  const DiskIdentity identity = disk.inspect();
  EXPECT_EQ(identity.sizeBytes, 64u << 20);
  EXPECT_EQ(identity.blockSize, 512);
  EXPECT_EQ(identity.busProtocol, "Disk Image");
  EXPECT_EQ(identity.mediaName, "Disk Image card image.img");
  EXPECT_TRUE(identity.ioRegistryPath.starts_with("/devices/virtual/block/" + name + "#diskseq="))
      << identity.ioRegistryPath;
  EXPECT_NO_THROW(DeviceGuard::revalidate(identity));
  EXPECT_EQ(inspectRefusal(name + "p1"),
            "Only whole disks (like sdb or mmcblk0) can be tested, not " + name + "p1.");

  // Active swap makes it a system disk.
  if (!findProgram("mkswap")) GTEST_SKIP() << "needs mkswap";
  testing::run({"mkswap", disk.loop.path()});
  struct SwapOn {
    std::string path;
    bool on = ::swapon(path.c_str(), 0) == 0;
    ~SwapOn() {
      if (on) ::swapoff(path.c_str());
    }
  } swap{disk.loop.path()};
  if (!swap.on) GTEST_SKIP() << "swapon refused here: " << errnoText(errno);
  EXPECT_TRUE(DeviceGuard::hostsSystemVolume(name));
  EXPECT_EQ(inspectRefusal(name), name + " holds a system volume. Vellum won't write to it.");
}

TEST(LoopDevices, RevalidateCatchesReattachAndResize) {
  VL_REQUIRE_LOOP_DEVICES();
  testing::TempDir dir;
  const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", "1");
  const std::string image = dir.file("card.img");
  testing::createSparseFile(image, 32 << 20);
  std::optional<testing::LoopDevice> loop;
  loop.emplace(image);
  const std::string device = loop->path(), name = loop->name();
  const std::string changed =
      "The disk at " + name +
      " changed since you selected it. Nothing was written. Select the card again.";

  // Same file, device name and size: only the disk sequence differs.
  const DiskIdentity before = DeviceGuard::inspect(name, Allowance::standard);
  loop.reset();
  // Detached: refused (as a virtual disk, or as changed when another process
  // attached its own image to the device meanwhile).
  EXPECT_THROW(DeviceGuard::revalidate(before), WriteError);
  if (!runProcess({"losetup", device, image}).status.succeeded())
    GTEST_SKIP() << "another process took " << device << " meanwhile";
  const struct Detach {
    std::string device;
    ~Detach() { runProcess({"losetup", "-d", device}); }
  } detach{device};
  EXPECT_THAT([&] { DeviceGuard::revalidate(before); }, ThrowsMessage<WriteError>(changed));

  const DiskIdentity reattached = DeviceGuard::inspect(name, Allowance::standard);
  fs::resize_file(image, 48 << 20);
  testing::run({"losetup", "-c", device});
  EXPECT_THAT([&] { DeviceGuard::revalidate(reattached); }, ThrowsMessage<WriteError>(changed));
  EXPECT_EQ(DeviceGuard::inspect(name, Allowance::standard).sizeBytes, 48u << 20);
}

TEST(LoopDevices, UnmountAllUnmountsAPartitionAndRefusesWhileBusy) {
  VL_REQUIRE_LOOP_DEVICES();
  if (!findProgram("mkfs.ext4")) GTEST_SKIP() << "needs mkfs.ext4 (e2fsprogs)";
  const ImageDisk disk(64 << 20);
  const std::string name = disk.loop.name(), partition = disk.partition();
  testing::run({"mkfs.ext4", "-q", "-L", "VELLUMTEST", partition});
  const std::string point = disk.dir.file("mnt point");
  const DiskIdentity identity = disk.inspect();
  const auto mounted = [&] { return DeviceGuard::mountedVolumes(name); };
  {
    const ScopedMount mount(partition, point);
    ASSERT_TRUE(mount.mounted);
    EXPECT_EQ(mounted(), (std::vector<std::string>{point}));
    const auto whole = DiskEnumerator::wholeDisk(point);
    ASSERT_TRUE(whole.has_value());
    EXPECT_EQ(*whole, (DiskEnumerator::WholeDisk{name, disk.loop.path(), 64u << 20}));
    for (const std::string& noDisk : {disk.dir.file("no such path"), std::string("/proc")})
      EXPECT_FALSE(DiskEnumerator::wholeDisk(noDisk).has_value()) << noDisk;
    // Listed with the mount point's name (no udev here to give the label).
    const std::vector<ExternalDisk> disks = DiskEnumerator::externalDisks(true);
    const auto it = std::ranges::find(disks, name, &ExternalDisk::deviceIdentifier);
    ASSERT_NE(it, disks.end());
    EXPECT_EQ(it->volumeNames, (std::vector<std::string>{"mnt point"}));

    {  // A process with a file open on the volume keeps it busy.
      UniqueFd file(::open((point + "/busy").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
      ASSERT_TRUE(file.valid());
      SpawnOptions options;
      options.standardInput = Stdio::from(file.get());
      const ChildProcess holder = ChildProcess::start({"sleep", "60"}, options);
      file.reset();
      EXPECT_THAT([&] { DeviceGuard::unmountAll(identity); },
                  ThrowsMessage<WriteError>("Couldn't unmount " + point +
                                            ". Close any apps using the card and try again."));
      EXPECT_EQ(mounted(), (std::vector<std::string>{point}));
    }  // the holder is killed and reaped here
    EXPECT_NO_THROW(DeviceGuard::unmountAll(identity));
    EXPECT_TRUE(mounted().empty());
    EXPECT_NO_THROW(DeviceGuard::revalidate(identity));
  }
  // A mount inside another goes first, or the outer one would stay busy.
  const ScopedMount outer(partition, point), inner(partition, point + "/lost+found"),
      second(partition, disk.dir.file("second"));
  ASSERT_TRUE(outer.mounted && inner.mounted && second.mounted);
  EXPECT_EQ(mounted().size(), 3u);
  EXPECT_NO_THROW(DeviceGuard::unmountAll(identity));
  EXPECT_TRUE(mounted().empty());
}

}  // namespace
}  // namespace vellum

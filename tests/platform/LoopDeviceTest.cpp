#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/swap.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "Machine.h"
#include "bytes/UniqueFd.h"
#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"
#include "platform/DiskEnumerator.h"
#include "platform/Process.h"
#include "support/TempDir.h"

// These tests use real loop devices and need root plus util-linux and
// e2fsprogs; they skip with the reason otherwise.

namespace vellum {
namespace {
namespace fs = std::filesystem;

std::string missingPrerequisite(std::initializer_list<const char*> tools) {
  if (::geteuid() != 0) return "needs root to attach loop devices";
  if (!fs::exists("/dev/loop-control")) return "no loop device support (/dev/loop-control)";
  for (const char* tool : tools) {
    if (!findProgram(tool)) return std::string("needs ") + tool;
  }
  return {};
}

#define SKIP_WITHOUT(...)                                          \
  do {                                                             \
    const std::string reason = missingPrerequisite({__VA_ARGS__}); \
    if (!reason.empty()) GTEST_SKIP() << reason;                   \
  } while (false)

void run(const std::vector<std::string>& argv) {
  const ProcessResult result = runProcess(argv);
  ASSERT_TRUE(result.status.succeeded()) << argv.front() << ": " << result.standardError;
}

// A loop device attached to a sparse image file, detached when destroyed.
class LoopDevice {
 public:
  LoopDevice(const std::string& image, std::uint64_t size) : image_(image) {
    fs::resize_file(createFile(image), size);
    attach();
  }
  ~LoopDevice() { detach(); }
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  const std::string& path() const { return path_; }
  std::string name() const { return fs::path(path_).filename().string(); }
  bool attached() const { return !path_.empty(); }

  void detach() {
    if (path_.empty()) return;
    runProcess({"losetup", "-d", path_});
    path_.clear();
  }
  void attach() {
    const ProcessResult result = runProcess({"losetup", "--find", "--show", image_});
    if (result.status.succeeded()) {
      path_ = result.standardOutput.substr(0, result.standardOutput.find('\n'));
    }
  }
  // Attaches the image to exactly this device again; false if another
  // process took it meanwhile.
  bool reattach(const std::string& device) {
    if (!runProcess({"losetup", device, image_}).status.succeeded()) return false;
    path_ = device;
    return true;
  }

 private:
  static const std::string& createFile(const std::string& path) {
    testing::writeFile(path, "");
    return path;
  }

  std::string image_;
  std::string path_;
};

// A file system mounted for one scope; detached lazily on the way out only as
// a last resort of the test's own cleanup.
class ScopedMount {
 public:
  ScopedMount(const std::string& device, const std::string& point) : point_(point) {
    fs::create_directories(point);
    mounted_ = ::mount(device.c_str(), point.c_str(), "ext4", 0, nullptr) == 0;
  }
  ~ScopedMount() {
    if (mounted_) ::umount2(point_.c_str(), MNT_DETACH);
  }
  ScopedMount(const ScopedMount&) = delete;
  ScopedMount& operator=(const ScopedMount&) = delete;
  bool mounted() const { return mounted_; }

 private:
  std::string point_;
  bool mounted_ = false;
};

bool waitForPath(const std::string& path) {
  for (int i = 0; i < 100 && !fs::exists(path); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return fs::exists(path);
}

std::string refusalOf(const auto& action) {
  try {
    action();
  } catch (const WriteError& error) {
    return error.description();
  }
  return "";
}

TEST(LoopDevices, EnumeratedAndInspectedAsDiskImages) {
  SKIP_WITHOUT("losetup");
  testing::TempDir dir;
  LoopDevice loop(dir.file("card image.img"), 64 << 20);
  ASSERT_TRUE(loop.attached());

  const ExternalDisk expected{loop.name(), "Disk Image card image.img", 64 << 20, {}};
  const auto listed = [&](bool images) {
    const std::vector<ExternalDisk> disks = DiskEnumerator::externalDisks(images);
    return std::find(disks.begin(), disks.end(), expected) != disks.end();
  };
  EXPECT_TRUE(listed(true));
  EXPECT_FALSE(listed(false));

  {
    const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", std::nullopt);
    EXPECT_EQ(refusalOf([&] { DeviceGuard::inspect(loop.name(), Allowance::standard); }),
              loop.name() + " is a virtual disk, not a card.");
  }
  const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", "1");
  const DiskIdentity identity = DeviceGuard::inspect(loop.name(), Allowance::standard);
  EXPECT_EQ(identity.sizeBytes, 64u << 20);
  EXPECT_EQ(identity.blockSize, 512);
  EXPECT_EQ(identity.busProtocol, "Disk Image");
  EXPECT_EQ(identity.mediaName, "Disk Image card image.img");
  EXPECT_TRUE(
      identity.ioRegistryPath.starts_with("/devices/virtual/block/" + loop.name() + "#diskseq="))
      << identity.ioRegistryPath;
  EXPECT_NO_THROW(DeviceGuard::revalidate(identity));
  EXPECT_EQ(refusalOf([&] { DeviceGuard::inspect(loop.name() + "p1", Allowance::standard); }),
            "Only whole disks (like sdb or mmcblk0) can be tested, not " + loop.name() + "p1.");
}

TEST(LoopDevices, ActiveSwapMakesADiskASystemDisk) {
  SKIP_WITHOUT("losetup", "mkswap");
  const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", "1");
  testing::TempDir dir;
  LoopDevice loop(dir.file("swap.img"), 16 << 20);
  ASSERT_TRUE(loop.attached());
  run({"mkswap", loop.path()});
  EXPECT_NO_THROW(DeviceGuard::inspect(loop.name(), Allowance::standard));

  struct SwapOn {
    std::string path;
    bool on = ::swapon(path.c_str(), 0) == 0;
    ~SwapOn() {
      if (on) ::swapoff(path.c_str());
    }
  } swap{loop.path()};
  if (!swap.on) GTEST_SKIP() << "swapon refused here: " << errnoText(errno);
  EXPECT_TRUE(DeviceGuard::hostsSystemVolume(loop.name()));
  EXPECT_EQ(refusalOf([&] { DeviceGuard::inspect(loop.name(), Allowance::standard); }),
            loop.name() + " holds a system volume. Vellum won't write to it.");
}

TEST(LoopDevices, RevalidateCatchesReattachAndResize) {
  SKIP_WITHOUT("losetup");
  const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", "1");
  testing::TempDir dir;
  LoopDevice loop(dir.file("card.img"), 32 << 20);
  ASSERT_TRUE(loop.attached());
  const std::string device = loop.path();
  const std::string changed = "The disk at " + loop.name() +
                              " changed since you selected it. Nothing was written. Select the "
                              "card again.";

  // Same file, same device name, same size: only the disk sequence differs.
  const DiskIdentity before = DeviceGuard::inspect(loop.name(), Allowance::standard);
  loop.detach();
  // Detached: refused (as a virtual disk, or as changed when another process
  // attached its own image to the device meanwhile).
  EXPECT_NE(refusalOf([&] { DeviceGuard::revalidate(before); }), "");
  if (!loop.reattach(device)) GTEST_SKIP() << "another process took " << device << " meanwhile";
  EXPECT_EQ(refusalOf([&] { DeviceGuard::revalidate(before); }), changed);

  const DiskIdentity reattached = DeviceGuard::inspect(loop.name(), Allowance::standard);
  fs::resize_file(dir.file("card.img"), 48 << 20);
  run({"losetup", "-c", device});
  EXPECT_EQ(refusalOf([&] { DeviceGuard::revalidate(reattached); }), changed);
  EXPECT_EQ(DeviceGuard::inspect(loop.name(), Allowance::standard).sizeBytes, 48u << 20);
}

TEST(LoopDevices, UnmountAllUnmountsAPartitionAndRefusesWhileBusy) {
  SKIP_WITHOUT("losetup", "sfdisk", "partx", "mkfs.ext4");
  const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", "1");
  testing::TempDir dir;
  LoopDevice loop(dir.file("disk.img"), 64 << 20);
  ASSERT_TRUE(loop.attached());
  // sfdisk cannot make this kernel re-read a loop device's table (it warns and
  // exits non-zero); partx adds the partition instead.
  runProcess({"sfdisk", "--quiet", loop.path()}, "start=2048, type=83\n");
  run({"partx", "--update", loop.path()});
  const std::string partition = loop.path() + "p1";
  ASSERT_TRUE(waitForPath(partition)) << partition;
  run({"mkfs.ext4", "-q", "-L", "VELLUMTEST", partition});

  const std::string point = dir.file("mnt point");
  const DiskIdentity identity = DeviceGuard::inspect(loop.name(), Allowance::standard);
  {
    ScopedMount mount(partition, point);
    ASSERT_TRUE(mount.mounted());
    EXPECT_EQ(DeviceGuard::mountedVolumes(loop.name()), (std::vector<std::string>{point}));
    const auto whole = DiskEnumerator::wholeDisk(point);
    ASSERT_TRUE(whole.has_value());
    EXPECT_EQ(whole->identifier, loop.name());
    EXPECT_EQ(whole->size, 64u << 20);
    // Listed with the mount point's name (no udev here to give the label).
    const std::vector<ExternalDisk> disks = DiskEnumerator::externalDisks(true);
    const auto it = std::find_if(disks.begin(), disks.end(), [&](const ExternalDisk& d) {
      return d.deviceIdentifier == loop.name();
    });
    ASSERT_NE(it, disks.end());
    EXPECT_EQ(it->volumeNames, (std::vector<std::string>{"mnt point"}));

    // A process with a file open on the volume keeps it busy.
    {
      UniqueFd file(::open((point + "/busy").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
      ASSERT_TRUE(file.valid());
      SpawnOptions options;
      options.standardInput = Stdio::from(file.get());
      ChildProcess holder = ChildProcess::start({"sleep", "60"}, options);
      file.reset();
      EXPECT_EQ(refusalOf([&] { DeviceGuard::unmountAll(identity); }),
                "Couldn't unmount " + point + ". Close any apps using the card and try again.");
      EXPECT_EQ(DeviceGuard::mountedVolumes(loop.name()), (std::vector<std::string>{point}));
    }  // the holder is killed and reaped here

    EXPECT_NO_THROW(DeviceGuard::unmountAll(identity));
    EXPECT_TRUE(DeviceGuard::mountedVolumes(loop.name()).empty());
    EXPECT_NO_THROW(DeviceGuard::revalidate(identity));
  }

  // A mount inside another goes first, or the outer one would stay busy.
  {
    ScopedMount outer(partition, point);
    ASSERT_TRUE(outer.mounted());
    ScopedMount inner(partition, point + "/lost+found");
    ASSERT_TRUE(inner.mounted());
    ScopedMount second(partition, dir.file("second"));
    ASSERT_TRUE(second.mounted());
    EXPECT_EQ(DeviceGuard::mountedVolumes(loop.name()).size(), 3u);
    EXPECT_TRUE(DiskEnumerator::unmountDisk(loop.name()));
    EXPECT_TRUE(DeviceGuard::mountedVolumes(loop.name()).empty());
  }
}

}  // namespace
}  // namespace vellum

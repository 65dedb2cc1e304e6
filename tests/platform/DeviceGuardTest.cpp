#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "Machine.h"
#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"
#include "platform/Process.h"
#include "platform/Unmount.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::FakeSystem;
using Disk = FakeSystem::Disk;

// The refusal text of inspect, or "" when the disk passes.
std::string refusal(const std::string& name, Allowance allowance, const SystemPaths& paths) {
  try {
    DeviceGuard::inspect(name, allowance, paths);
    return "";
  } catch (const WriteError& error) {
    EXPECT_TRUE(error.is<WriteError::Refused>());
    return error.description();
  }
}

// The laptop plus disks that each trip exactly one later rule.
void buildGuardMachine(FakeSystem& fake) {
  testing::buildLaptop(fake);
  fake.usbDisk("sdf", "6", "Fake", "Huge", Disk{.dev = "8:80", .sectors = 7812500001})
      .usbDisk("sdg", "7", "Fake", "Exact", Disk{.dev = "8:96", .sectors = 7812500000})
      .usbDisk("sdh", "8", "Fake", "Giant", Disk{.dev = "8:112", .sectors = 125000000001})
      .usbDisk("sdi", "9", "A", "Boot", Disk{.dev = "8:128", .sectors = 100, .removable = "1"})
      .partition("sdi", "sdi1", 1, "8:129")
      .usbDisk("sdj", "10", "A", "Locked",
               Disk{.dev = "8:144", .sectors = 100, .removable = "1", .readOnly = "1"})
      .usbDisk("sdk", "11", "A", "Locked boot",
               Disk{.dev = "8:160", .sectors = 100, .removable = "1", .readOnly = "1"})
      .partition("sdk", "sdk1", 1, "8:161");
  fake.mountInfo(R"(27 1 259:2 / / rw,relatime shared:1 - ext4 /dev/nvme0n1p2 rw
28 27 259:1 / /boot/efi rw,relatime shared:2 - vfat /dev/nvme0n1p1 rw,fmask=0077
61 27 8:17 / /media/user/NO\040NAME rw,nosuid,nodev shared:40 - exfat /dev/sdb1 rw
62 27 8:129 / /boot rw - ext4 /dev/sdi1 rw
63 27 8:161 / /var rw - ext4 /dev/sdk1 rw
)");
}

TEST(DeviceGuard, RefusesInRuleOrderWithTheExactTexts) {
  FakeSystem fake;
  buildGuardMachine(fake);
  const testing::ScopedEnv noImages("VL_ALLOW_DISK_IMAGES", std::nullopt);
  const auto standard = Allowance::standard;
  const auto claimed = Allowance::claimedCapacity;
  const std::tuple<std::string, Allowance, std::string> cases[] = {
      {"sdb1", standard, "Only whole disks (like sdb or mmcblk0) can be tested, not sdb1."},
      {"sdz9", standard, "Only whole disks (like sdb or mmcblk0) can be tested, not sdz9."},
      {"nvme0n1p2", standard,
       "Only whole disks (like sdb or mmcblk0) can be tested, not nvme0n1p2."},
      {"mmcblk0p1", standard,
       "Only whole disks (like sdb or mmcblk0) can be tested, not mmcblk0p1."},
      {"/dev/sdb", standard, "Only whole disks (like sdb or mmcblk0) can be tested, not /dev/sdb."},
      {"../sdb", standard, "Only whole disks (like sdb or mmcblk0) can be tested, not ../sdb."},
      {"", standard, "Only whole disks (like sdb or mmcblk0) can be tested, not ."},
      {"sdq", standard, "sdq wasn't found. Was the card removed?"},
      {"sda", standard,
       "sda is an internal disk. Vellum only writes to memory cards and external drives."},
      {"mmcblk1", standard,
       "mmcblk1 is an internal disk. Vellum only writes to memory cards and external drives."},
      {"mmcblk1boot0", standard,
       "mmcblk1boot0 is an internal disk. Vellum only writes to memory cards and external "
       "drives."},
      // Internal comes before virtual and zero size.
      {"zram0", standard,
       "zram0 is an internal disk. Vellum only writes to memory cards and external drives."},
      {"loop0", standard, "loop0 is a virtual disk, not a card."},
      {"sdc", standard, "sdc reports a size of zero. Try reinserting the card."},
      {"sdf", standard,
       "sdf reports more than 4 TB. Vellum only erases drives that size after a Quick Check "
       "shows the capacity is fake. Run a Quick Check first."},
      {"sdf", claimed, ""},
      {"sdg", standard, ""},
      {"sdh", claimed, "sdh reports more than 64 TB. Vellum won't write to it."},
      {"nvme0n1", standard,
       "nvme0n1 is an internal disk. Vellum only writes to memory cards and external drives."},
      {"sdi", standard, "sdi holds a system volume. Vellum won't write to it."},
      // System volume comes before write protection.
      {"sdk", standard, "sdk holds a system volume. Vellum won't write to it."},
      {"sdj", standard,
       "sdj is write-protected. Slide the card's lock switch off and insert it again."},
      {"sdb", standard, ""},
      {"mmcblk0", standard, ""},  // a built-in slot: internal but removable
  };
  for (const auto& [name, allowance, expected] : cases) {
    EXPECT_EQ(refusal(name, allowance, fake.paths()), expected) << name;
  }
}

TEST(DeviceGuard, DiskImagesPassOnlyWithTheVariableExactlyOne) {
  FakeSystem fake;
  buildGuardMachine(fake);
  const std::string refused = "loop0 is a virtual disk, not a card.";
  for (const char* value : {"true", "yes", "1 ", "01", "", "2"}) {
    const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", value);
    EXPECT_EQ(refusal("loop0", Allowance::standard, fake.paths()), refused) << value;
  }
  const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", "1");
  EXPECT_EQ(refusal("loop0", Allowance::standard, fake.paths()), "");
  // Only disk images: other virtual disks stay refused.
  fake.disk("nbd0", "virtual", Disk{.dev = "43:0", .sectors = 100});
  EXPECT_EQ(refusal("nbd0", Allowance::standard, fake.paths()),
            "nbd0 is an internal disk. Vellum only writes to memory cards and external drives.");
}

TEST(DeviceGuard, IdentityRecordsWhatWasSeen) {
  FakeSystem fake;
  buildGuardMachine(fake);
  const DiskIdentity identity = DeviceGuard::inspect("sdb", Allowance::standard, fake.paths());
  const DiskIdentity expected{
      "sdb",
      62333952ull * 512,
      512,
      "Generic STORAGE DEVICE",
      "usb",
      "/devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0/host2/target2:0:0/2:0:0:0/block/"
      "sdb#diskseq=21",
      Allowance::standard};
  EXPECT_EQ(identity, expected);

  const DiskIdentity card =
      DeviceGuard::inspect("mmcblk0", Allowance::claimedCapacity, fake.paths());
  EXPECT_EQ(card.mediaName, "SD card SL16G");
  EXPECT_EQ(card.busProtocol, "mmc");
  EXPECT_EQ(card.allowance, Allowance::claimedCapacity);
}

TEST(DeviceGuard, RevalidateCatchesEveryChange) {
  const std::string changed =
      "The disk at sdb changed since you selected it. Nothing was written. Select the card again.";
  struct Case {
    const char* what;
    void (*change)(FakeSystem&);
    std::string expected;
  };
  const Case cases[] = {
      {"nothing", [](FakeSystem&) {}, ""},
      {"mounted elsewhere",
       [](FakeSystem& f) { f.mountInfo("61 1 8:17 / /mnt/x rw - exfat /dev/sdb1 rw\n"); }, ""},
      {"card swapped for an identical one",
       [](FakeSystem& f) { f.diskAttribute("sdb", "diskseq", "40"); }, changed},
      {"another size", [](FakeSystem& f) { f.diskAttribute("sdb", "size", "62333440"); }, changed},
      {"another block size",
       [](FakeSystem& f) { f.diskAttribute("sdb", "queue/logical_block_size", "4096"); }, changed},
      {"another reader",
       [](FakeSystem& f) {
         f.attribute("pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0/host2/target2:0:0/2:0:0:0", "model",
                     "OTHER");
       },
       changed},
      {"card removed", [](FakeSystem& f) { f.remove("sdb"); },
       "sdb wasn't found. Was the card removed?"},
      {"card locked", [](FakeSystem& f) { f.diskAttribute("sdb", "ro", "1"); },
       "sdb is write-protected. Slide the card's lock switch off and insert it again."},
  };
  for (const Case& c : cases) {
    FakeSystem fake;
    buildGuardMachine(fake);
    const DiskIdentity identity = DeviceGuard::inspect("sdb", Allowance::standard, fake.paths());
    c.change(fake);
    std::string message;
    try {
      DeviceGuard::revalidate(identity, fake.paths());
    } catch (const WriteError& error) {
      message = error.description();
    }
    EXPECT_EQ(message, c.expected) << c.what;
  }
}

TEST(DeviceGuard, CheckSizeLimitsAreInclusive) {
  const std::tuple<std::uint64_t, Allowance, bool> cases[] = {
      {4'000'000'000'000, Allowance::standard, true},
      {4'000'000'000'001, Allowance::standard, false},
      {4'000'000'000'001, Allowance::claimedCapacity, true},
      {64'000'000'000'000, Allowance::claimedCapacity, true},
      {64'000'000'000'001, Allowance::claimedCapacity, false},
      {0, Allowance::standard, true},
  };
  for (const auto& [size, allowance, passes] : cases) {
    bool passed = true;
    try {
      DeviceGuard::checkSize(size, "sdb", allowance);
    } catch (const WriteError&) {
      passed = false;
    }
    EXPECT_EQ(passed, passes) << size;
  }
}

TEST(DeviceGuard, MountedVolumesAndSystemVolumes) {
  FakeSystem fake;
  buildGuardMachine(fake);
  EXPECT_EQ(DeviceGuard::mountedVolumes("sdb", fake.paths()),
            (std::vector<std::string>{"/media/user/NO NAME"}));
  EXPECT_TRUE(DeviceGuard::mountedVolumes("sdd", fake.paths()).empty());
  EXPECT_TRUE(DeviceGuard::mountedVolumes("nosuch", fake.paths()).empty());
  EXPECT_FALSE(DeviceGuard::hostsSystemVolume("sdb", fake.paths()));
  EXPECT_TRUE(DeviceGuard::hostsSystemVolume("sdi", fake.paths()));
  EXPECT_TRUE(DeviceGuard::hostsSystemVolume("nvme0n1", fake.paths()));
  EXPECT_FALSE(DeviceGuard::hostsSystemVolume("nosuch", fake.paths()));
}

TEST(DeviceGuard, UnmountRefusalListsWhatStaysMounted) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the unmount path without root runs udisksctl";
  FakeSystem fake;
  fake.usbDisk("sdx", "2", "A", "B", Disk{.dev = "8:240", .sectors = 100, .removable = "1"})
      .partition("sdx", "sdx1", 1, "8:241")
      .partition("sdx", "sdx2", 2, "8:242");
  // Mount points that do not exist on this machine, so umount2 cannot touch
  // anything real and both stay in the table.
  fake.mountInfo(R"(70 1 8:241 / /nonexistent-vellum/CARD\040ONE rw - vfat /dev/sdx1 rw
71 70 8:242 / /nonexistent-vellum/CARD\040ONE/inner rw - vfat /dev/sdx2 rw
)");
  DiskIdentity identity;
  identity.deviceIdentifier = "sdx";
  try {
    DeviceGuard::unmountAll(identity, fake.paths());
    FAIL() << "expected a refusal";
  } catch (const WriteError& error) {
    EXPECT_EQ(error.description(),
              "Couldn't unmount /nonexistent-vellum/CARD ONE, /nonexistent-vellum/CARD ONE/inner. "
              "Close any apps using the card and try again.");
  }
  fake.mountInfo("");
  EXPECT_NO_THROW(DeviceGuard::unmountAll(identity, fake.paths()));
}

TEST(DeviceGuard, UnmountThroughUdisksPerMountedVolumeJudgedByTheTable) {
  FakeSystem fake;
  fake.usbDisk("sdx", "2", "A", "B", Disk{.dev = "8:240", .sectors = 100, .removable = "1"})
      .partition("sdx", "sdx1", 1, "8:241")
      .partition("sdx", "sdx2", 2, "8:242")
      .partition("sdx", "sdx3", 3, "8:243");
  const std::string mounted = R"(70 1 8:242 / /media/u/TWO rw - vfat /dev/sdx2 rw
71 1 8:241 / /media/u/ONE rw - vfat /dev/sdx1 rw
)";
  // A stand-in udisksctl that logs its arguments, empties the mount table
  // when told to, and always fails: only the table may decide.
  testing::TempDir bin;
  const std::string log = bin.file("log");
  testing::writeFile(bin.file("udisksctl"), R"(#!/bin/sh
echo "$*" >> "$FAKE_UDISKS_LOG"
[ -n "$FAKE_UDISKS_TABLE" ] && : > "$FAKE_UDISKS_TABLE"
exit 1
)");
  ::chmod(bin.file("udisksctl").c_str(), 0755);
  const char* path = std::getenv("PATH");
  const testing::ScopedEnv searchPath("PATH", bin.path().string() + ":" + (path ? path : ""));
  const testing::ScopedEnv logTo("FAKE_UDISKS_LOG", log);

  {
    fake.mountInfo(mounted);
    const testing::ScopedEnv table("FAKE_UDISKS_TABLE", fake.paths().mountInfo.string());
    EXPECT_TRUE(unmountVolumes("sdx", UnmountMethod::udisks, fake.paths()).empty());
    EXPECT_EQ(runProcess({"cat", log}).standardOutput,
              "unmount -b /dev/sdx1\nunmount -b /dev/sdx2\n");
  }
  {
    fake.mountInfo(mounted);
    const testing::ScopedEnv table("FAKE_UDISKS_TABLE", std::nullopt);
    EXPECT_EQ(unmountVolumes("sdx", UnmountMethod::udisks, fake.paths()),
              (std::vector<std::string>{"/media/u/TWO", "/media/u/ONE"}));
  }
  {
    // Nothing mounted: udisksctl is not run at all.
    fake.mountInfo("");
    testing::writeFile(log, "");
    EXPECT_TRUE(unmountVolumes("sdx", UnmountMethod::udisks, fake.paths()).empty());
    EXPECT_EQ(runProcess({"cat", log}).standardOutput, "");
  }
  {
    // Without udisks installed, the platform's error is passed on.
    fake.mountInfo(mounted);
    const testing::ScopedEnv noPath("PATH", "/nonexistent");
    if (!findProgram("udisksctl")) {
      EXPECT_THROW(unmountVolumes("sdx", UnmountMethod::udisks, fake.paths()), ProcessError);
    }
  }
}

TEST(DiskIdentity, EncodesWithFieldNamesAndDecodesBack) {
  const DiskIdentity identity{"sdb",
                              31'914'983'424,
                              512,
                              "Generic STORAGE DEVICE",
                              "usb",
                              "/devices/x/block/sdb#diskseq=21",
                              Allowance::claimedCapacity};
  const nlohmann::json json = identity;
  EXPECT_EQ(json.dump(),
            R"({"allowance":"claimedCapacity","blockSize":512,"busProtocol":"usb",)"
            R"("deviceIdentifier":"sdb","ioRegistryPath":"/devices/x/block/sdb#diskseq=21",)"
            R"("mediaName":"Generic STORAGE DEVICE","sizeBytes":31914983424})");
  EXPECT_EQ(json.get<DiskIdentity>(), identity);

  nlohmann::json unknown = json;
  unknown["allowance"] = "unlimited";
  EXPECT_THROW(unknown.get<DiskIdentity>(), nlohmann::json::exception);
  nlohmann::json missing = json;
  missing.erase("ioRegistryPath");
  EXPECT_THROW(missing.get<DiskIdentity>(), nlohmann::json::exception);
  EXPECT_EQ(rawValue(Allowance::standard), "standard");
  EXPECT_EQ(allowanceFromRawValue("claimedCapacity"), Allowance::claimedCapacity);
  EXPECT_EQ(allowanceFromRawValue("Standard"), std::nullopt);
}

}  // namespace
}  // namespace vellum

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <nlohmann/json.hpp>

#include "Machine.h"
#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"
#include "platform/Process.h"
#include "platform/Unmount.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::errorText;
using testing::FakeSystem;
using Disk = FakeSystem::Disk;

// The refusal text of inspect, or "" when the disk passes.
std::string refusal(const std::string& name, Allowance allowance, const SystemPaths& paths) {
  return errorText<WriteError>([&] { DeviceGuard::inspect(name, allowance, paths); });
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

void addCardWithTwoVolumes(FakeSystem& fake) {
  fake.usbDisk("sdx", "2", "A", "B", Disk{.dev = "8:240", .sectors = 100, .removable = "1"})
      .partition("sdx", "sdx1", 1, "8:241")
      .partition("sdx", "sdx2", 2, "8:242");
}

TEST(DeviceGuard, RefusesInRuleOrderWithTheExactTexts) {
  FakeSystem fake;
  buildGuardMachine(fake);
  const testing::ScopedEnv noImages("VL_ALLOW_DISK_IMAGES", std::nullopt);
  const auto whole = [](const std::string& name) {
    return "Only whole disks (like sdb or mmcblk0) can be tested, not " + name + ".";
  };
  const auto internal = [](const std::string& name) {
    return name + " is an internal disk. Vellum only writes to memory cards and external drives.";
  };
  const auto standard = Allowance::standard;
  const auto claimed = Allowance::claimedCapacity;
  const std::tuple<std::string, Allowance, std::string> cases[] = {
      {"sdb1", standard, whole("sdb1")},
      {"/dev/sdb", standard, whole("/dev/sdb")},
      {"../sdb", standard, whole("../sdb")},
      {"", standard, whole("")},
      {"sdq", standard, "sdq wasn't found. Was the card removed?"},
      {"sda", standard, internal("sda")},
      {"mmcblk1boot0", standard, internal("mmcblk1boot0")},
      {"zram0", standard, internal("zram0")},  // internal comes before virtual and zero size
      {"nvme0n1", standard, internal("nvme0n1")},
      {"loop0", standard,
       "loop0 is a virtual disk, not a card. To test the disk image behind it "
       "anyway, set VL_ALLOW_DISK_IMAGES=1."},
      {"sdc", standard, "sdc reports a size of zero. Try reinserting the card."},
      {"sdf", standard,
       "sdf reports more than 4 TB. Vellum only erases drives that size after a Quick Check "
       "shows the capacity is fake. Run a Quick Check first."},
      {"sdf", claimed, ""},
      {"sdg", standard, ""},
      {"sdh", claimed, "sdh reports more than 64 TB. Vellum won't write to it."},
      {"sdi", standard, "sdi holds a system volume. Vellum won't write to it."},
      // System volume comes before write protection.
      {"sdk", standard, "sdk holds a system volume. Vellum won't write to it."},
      {"sdj", standard,
       "sdj is write-protected. Slide the card's lock switch off and insert it again."},
      {"sdb", standard, ""},
      {"mmcblk0", standard, ""},  // a built-in slot: internal but removable
  };
  for (const auto& [name, allowance, expected] : cases)
    EXPECT_EQ(refusal(name, allowance, fake.paths()), expected) << name;

  // Size limits are inclusive.
  for (const auto& [size, allowance, passes] : {std::tuple{4'000'000'000'000ull, standard, true},
                                                {4'000'000'000'001ull, standard, false},
                                                {4'000'000'000'001ull, claimed, true},
                                                {64'000'000'000'000ull, claimed, true},
                                                {64'000'000'000'001ull, claimed, false}}) {
    if (passes)
      EXPECT_NO_THROW(DeviceGuard::checkSize(size, "sdb", allowance)) << size;
    else
      EXPECT_THROW(DeviceGuard::checkSize(size, "sdb", allowance), WriteError) << size;
  }

  // Disk images pass only with the variable exactly "1"; other virtual disks never.
  for (const char* value : {"true", "1 ", ""}) {
    const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", value);
    EXPECT_FALSE(SystemPaths::environmentAllowsDiskImages()) << value;
  }
  EXPECT_EQ(
      refusal("loop0", standard, fake.paths()),
      "loop0 is a virtual disk, not a card." +
          std::string(" To test the disk image behind it anyway, set VL_ALLOW_DISK_IMAGES=1."));
  const testing::ScopedEnv env("VL_ALLOW_DISK_IMAGES", "1");
  EXPECT_TRUE(SystemPaths::environmentAllowsDiskImages());
  SystemPaths allowing = fake.paths();
  allowing.allowDiskImages = true;
  EXPECT_EQ(refusal("loop0", standard, allowing), "");
  fake.disk("nbd0", "virtual", Disk{.dev = "43:0", .sectors = 100});
  EXPECT_EQ(refusal("nbd0", standard, allowing), internal("nbd0"));
}

TEST(DeviceGuard, IdentityRecordsWhatWasSeenAndRevalidateCatchesEveryChange) {
  const std::string changed =
      "The disk at sdb changed since you selected it. Nothing was written. Select the card again.";
  const std::string scsi = "pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0/host2/target2:0:0/2:0:0:0";
  const std::pair<std::function<void(FakeSystem&)>, std::string> cases[] = {
      {[](FakeSystem&) {}, ""},
      {[](FakeSystem& f) { f.mountInfo("61 1 8:17 / /mnt/x rw - exfat /dev/sdb1 rw\n"); }, ""},
      {[](FakeSystem& f) { f.diskAttribute("sdb", "diskseq", "40"); }, changed},  // same model
      {[](FakeSystem& f) { f.diskAttribute("sdb", "size", "62333440"); }, changed},
      {[](FakeSystem& f) { f.diskAttribute("sdb", "queue/logical_block_size", "4096"); }, changed},
      {[&](FakeSystem& f) { f.attribute(scsi, "model", "OTHER"); }, changed},
      {[](FakeSystem& f) { f.remove("sdb"); }, "sdb wasn't found. Was the card removed?"},
      {[](FakeSystem& f) { f.diskAttribute("sdb", "ro", "1"); },
       "sdb is write-protected. Slide the card's lock switch off and insert it again."},
  };
  for (const auto& [change, expected] : cases) {
    FakeSystem fake;
    buildGuardMachine(fake);
    const DiskIdentity identity = DeviceGuard::inspect("sdb", Allowance::standard, fake.paths());
    EXPECT_EQ(identity, (DiskIdentity{"sdb", 62333952ull * 512, 512, "Generic STORAGE DEVICE",
                                      "usb", "/devices/" + scsi + "/block/sdb#diskseq=21",
                                      Allowance::standard, ""}));
    change(fake);
    EXPECT_EQ(errorText<WriteError>([&] { DeviceGuard::revalidate(identity, fake.paths()); }),
              expected);
  }
  FakeSystem fake;
  buildGuardMachine(fake);
  EXPECT_EQ(DeviceGuard::inspect("mmcblk0", Allowance::claimedCapacity, fake.paths()).allowance,
            Allowance::claimedCapacity);
  EXPECT_EQ(DeviceGuard::mountedVolumes("sdb", fake.paths()),
            (std::vector<std::string>{"/media/user/NO NAME"}));
  EXPECT_TRUE(DeviceGuard::mountedVolumes("nosuch", fake.paths()).empty());
  for (const auto& [name, system] :
       {std::pair{"sdb", false}, {"sdi", true}, {"nvme0n1", true}, {"nosuch", false}}) {
    EXPECT_EQ(DeviceGuard::hostsSystemVolume(name, fake.paths()), system) << name;
  }
}

TEST(DeviceGuard, UnmountRefusalListsWhatStaysMounted) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the unmount path without root runs udisksctl";
  FakeSystem fake;
  addCardWithTwoVolumes(fake);
  // Mount points that do not exist on this machine, so umount2 cannot touch
  // anything real and both stay in the table.
  fake.mountInfo(R"(70 1 8:241 / /nonexistent-vellum/CARD\040ONE rw - vfat /dev/sdx1 rw
71 70 8:242 / /nonexistent-vellum/CARD\040ONE/inner rw - vfat /dev/sdx2 rw
)");
  DiskIdentity identity;
  identity.deviceIdentifier = "sdx";
  EXPECT_EQ(errorText<WriteError>([&] { DeviceGuard::unmountAll(identity, fake.paths()); }),
            "Couldn't unmount /nonexistent-vellum/CARD ONE, /nonexistent-vellum/CARD ONE/inner. "
            "Close any apps using the card and try again.");
}

TEST(DeviceGuard, UnmountThroughUdisksPerMountedVolumeJudgedByTheTable) {
  FakeSystem fake;
  addCardWithTwoVolumes(fake);
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
  const auto unmount = [&](const std::string& table, std::optional<std::string> emptied) {
    fake.mountInfo(table);
    testing::writeFile(log, "");
    const testing::ScopedEnv emptiedTable("FAKE_UDISKS_TABLE", emptied);
    return unmountVolumes("sdx", UnmountMethod::udisks, fake.paths());
  };
  EXPECT_TRUE(unmount(mounted, fake.paths().mountInfo.string()).empty());
  EXPECT_EQ(runProcess({"cat", log}).standardOutput,
            "unmount -b /dev/sdx1\nunmount -b /dev/sdx2\n");
  EXPECT_EQ(unmount(mounted, std::nullopt),
            (std::vector<std::string>{"/media/u/TWO", "/media/u/ONE"}));
  // Nothing mounted: udisksctl is not run at all.
  EXPECT_TRUE(unmount("", std::nullopt).empty());
  EXPECT_EQ(runProcess({"cat", log}).standardOutput, "");
  // Without udisks installed, the platform's error is passed on.
  const testing::ScopedEnv noPath("PATH", "/nonexistent");
  if (!findProgram("udisksctl")) {
    EXPECT_THROW(unmount(mounted, std::nullopt), ProcessError);
  }
}

}  // namespace
}  // namespace vellum

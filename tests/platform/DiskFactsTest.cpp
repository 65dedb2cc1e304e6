#include <gtest/gtest.h>

#include "Machine.h"
#include "platform/DiskEnumerator.h"
#include "platform/DiskFacts.h"

namespace vellum {
namespace {

using testing::FakeSystem;
using Disk = FakeSystem::Disk;

// The facts that tell kinds of disk apart, as one line.
std::string traits(const DiskFactsReader& reader, const std::string& name) {
  const std::optional<DiskFacts> f = reader.facts(name);
  if (!f) return "missing";
  std::string line = f->busProtocol + "|" + f->mediaName + "|" + f->virtualOrPhysical;
  for (const auto& [on, word] : {std::pair{f->wholeDisk, " whole"},
                                 {f->internal, " internal"},
                                 {f->removableMedia, " removable"},
                                 {f->removableMediaOrExternalDevice, " outside"},
                                 {f->ejectable, " eject"},
                                 {f->osInternalMedia, " system"},
                                 {f->readOnly, " ro"}}) {
    if (on) line += word;
  }
  return line;
}

TEST(DiskFacts, ReadsEachKindOfDiskFromSysfs) {
  FakeSystem fake;
  testing::buildLaptop(fake);
  // A reader that leaves `removable` at 0, but udev knows it is an SD slot.
  fake.usbDisk("sdf", "6", "Realtek", "RTSJ",
               Disk{.dev = "8:80", .sectors = 100, .logicalBlockSize = 4096})
      .udev("8:80", "E:ID_DRIVE_FLASH_SD=1\nE:ID_DRIVE_FLASH_MS=1\n")
      .usbDisk("sdg", "7", "Realtek", "RTSJ", Disk{.dev = "8:96", .sectors = 100})
      .udev("8:96", "E:ID_DRIVE_FLASH_SD=0\n");
  const DiskFactsReader reader(fake.paths());
  const std::pair<const char*, const char*> table[] = {
      {"nvme0n1", "nvme|Samsung SSD 980 1TB|Physical whole internal system"},
      {"sda", "sata|ATA WDC WD10EZEX-08W|Physical whole internal"},
      {"mmcblk0", "mmc|SD card SL16G|Physical whole internal removable outside"},
      {"mmcblk1", "mmc|MMC DG4016|Physical whole internal"},
      {"mmcblk1boot0", "mmc|MMC DG4016|Physical whole internal ro"},
      {"sdb", "usb|Generic STORAGE DEVICE|Physical whole removable outside eject"},
      {"sdd", "usb|SanDisk Cruzer Blade|Physical whole removable outside eject"},
      {"sde", "usb|Samsung PSSD T7|Physical whole outside"},
      // A disk image is neither internal nor an external device.
      {"loop0", "Disk Image|Disk Image card.img|Virtual whole"},
      {"zram0", "||Virtual whole internal system"},  // active swap
      {"sdb1", "usb|Generic STORAGE DEVICE|Physical removable outside eject"},
      {"sdf", "usb|Realtek RTSJ|Physical whole removable outside"},
      {"sdg", "usb|Realtek RTSJ|Physical whole outside"},
  };
  for (const auto& [name, expected] : table)
    EXPECT_EQ(traits(reader, name), expected) << name;

  const DiskFacts sdb = *reader.facts("sdb");
  EXPECT_EQ(sdb.sizeBytes, 62333952ull * 512);
  EXPECT_EQ(sdb.device, (DeviceNumber{8, 16}));
  EXPECT_EQ(reader.facts("sdf")->deviceBlockSize, 4096);
  EXPECT_EQ(sdb.deviceTreePath,
            "/devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0/host2/target2:0:0/2:0:0:0/block/"
            "sdb#diskseq=21");

  // Names that are not plain kernel names never reach the file system.
  for (const char* bad : {"", ".", "..", "../block/sdb", "sdb/sdb1", "nosuch"}) {
    EXPECT_FALSE(reader.facts(bad).has_value()) << bad;
  }
}

TEST(DiskFacts, SystemUseAndMountsFollowDeviceNumbersThroughHoldersNeverNamePrefixes) {
  FakeSystem fake;
  int port = 1;
  const auto card = [&](const std::string& name, const std::string& dev) -> FakeSystem& {
    return fake.usbDisk(name, std::to_string(++port), "A", name,
                        Disk{.dev = dev, .sectors = 100, .removable = "1"});
  };
  card("sdh", "8:112").partition("sdh", "sdh1", 1, "8:113");
  card("sdi", "8:128")
      .partition("sdi", "sdi1", 1, "8:129")
      .disk("dm-0", "virtual", Disk{.dev = "253:0", .sectors = 90})
      .disk("dm-1", "virtual", Disk{.dev = "253:1", .sectors = 80})
      .holder("sdi1", "dm-0")
      .holder("dm-0", "dm-1");
  card("sdj", "8:144").partition("sdj", "sdj1", 1, "8:145").partition("sdj", "sdj2", 2, "8:146");
  card("sdk", "8:160");
  card("sdl", "8:176").partition("sdl", "sdl1", 1, "8:177");
  card("sda", "8:0").partition("sda", "sda1", 1, "8:1");
  card("sdaa", "65:160").partition("sdaa", "sdaa1", 1, "65:161");
  card("sdc", "8:32").partition("sdc", "sdc1", 1, "8:33");
  const std::string emmc = "platform/mmc/mmc_host/mmc0/mmc0:0001";
  fake.device(emmc, "mmc")
      .attribute(emmc, "type", "MMC")
      .disk("mmcblk0", emmc, Disk{.dev = "179:0", .sectors = 100})
      .disk("mmcblk0boot0", emmc, Disk{.dev = "179:8", .sectors = 10});
  fake.mountInfo(R"(27 1 8:113 / / rw - ext4 /dev/sdh1 rw
30 27 253:1 / /home rw - ext4 /dev/mapper/home rw
31 27 8:160 / /run/live/medium ro - iso9660 /dev/sdk ro
32 27 8:177 / /media/user/homework rw - ext4 /dev/sdl1 rw
33 27 8:177 /home /mnt/home\040copy rw - ext4 /dev/sdl1 rw
50 1 65:161 / /media/sdaa1 rw - vfat /dev/sdaa1 rw
51 1 179:8 / /media/boot0 rw - vfat /dev/mmcblk0boot0 rw
52 1 0:45 / /media/pool rw - btrfs /dev/sdc1 rw
53 1 0:46 / /media/fuse rw - fuse.sshfs /dev/sda1:/remote rw
)");
  fake.swaps("Filename Type Size Used Priority\n/dev/sdj2 partition 100 0 -2\n");
  const DiskFactsReader reader(fake.paths());

  // Root on a partition, /home on dm-1 on dm-0 on sdi1, swap on a partition.
  for (const char* name : {"sdh", "sdi", "sdj"})
    EXPECT_TRUE(reader.facts(name)->osInternalMedia);
  EXPECT_FALSE(reader.facts("sdk")->osInternalMedia);
  EXPECT_TRUE(reader.facts("sdk")->systemImage);
  // Bind mounts of a subfolder and names merely containing "home" don't count.
  EXPECT_FALSE(reader.facts("sdl")->osInternalMedia || reader.facts("sdl")->systemImage);
  // The holders' mounts are not the disk's own mounts.
  EXPECT_TRUE(reader.mountPoints("sdi").empty());
  EXPECT_EQ(reader.devicesOf("sdi", true),
            (std::vector<DeviceNumber>{{8, 128}, {8, 129}, {253, 0}, {253, 1}}));
  using Points = std::vector<std::string>;
  const std::pair<const char*, Points> mounts[] = {
      {"sdl", {"/media/user/homework", "/mnt/home copy"}},
      {"sda", {}},
      {"sdaa", {"/media/sdaa1"}},
      {"mmcblk0", {}},
      {"mmcblk0boot0", {"/media/boot0"}},
      {"sdc", {"/media/pool"}},  // an anonymous device number (btrfs): found by its source
  };
  for (const auto& [name, points] : mounts)
    EXPECT_EQ(reader.mountPoints(name), points) << name;
  const std::pair<DeviceNumber, std::optional<std::string>> owners[] = {
      {{0, 45}, "sdc"}, {{0, 46}, std::nullopt}, {{65, 161}, "sdaa"}, {{179, 8}, "mmcblk0boot0"}};
  for (const auto& [device, owner] : owners)
    EXPECT_EQ(reader.wholeDiskName(device), owner);
}

TEST(DiskEnumerator, ListsCardLikeDisksWithVolumeNamesAndStampsChanges) {
  FakeSystem fake;
  testing::buildLaptop(fake);
  const std::vector<ExternalDisk> disks = DiskEnumerator::externalDisks(false, fake.paths());
  // The last field is the kernel's disk sequence number.
  const std::vector<ExternalDisk> expected{
      {"mmcblk0", "SD card SL16G", 31116288ull * 512, {"EOS_DIGITAL"}, "", 3},
      {"sdb", "Generic STORAGE DEVICE", 62333952ull * 512, {"NO NAME"}, "", 21},
      {"sdd", "SanDisk Cruzer Blade", 30031872ull * 512, {"MY STICK"}, "", 23},
      {"sde", "Samsung PSSD T7", 976773168ull * 512, {"BACKUP", "TENTH"}, "", 24},
  };
  EXPECT_EQ(disks, expected);
  // Listed in natural order: numbers inside names compare as numbers.
  for (const auto& [before, after] : {std::pair{"loop2", "loop10"}, {"loop9", "sda"}}) {
    EXPECT_TRUE(DiskEnumerator::listedBefore(before, after)) << before;
    EXPECT_FALSE(DiskEnumerator::listedBefore(after, before)) << after;
  }

  const std::vector<ExternalDisk> withImages = DiskEnumerator::externalDisks(true, fake.paths());
  ASSERT_EQ(withImages.size(), 5u);
  EXPECT_EQ(withImages.front(),
            (ExternalDisk{"loop0", "Disk Image card.img", 524288ull * 512, {}, "", 30}));
  EXPECT_TRUE(withImages[1].isMemoryCard());  // SD card SL16G
  EXPECT_EQ(withImages[1].displayName(), "EOS_DIGITAL");

  const DiskFactsReader reader(fake.paths());
  const auto volumes = [&](const std::string& name) {
    std::string line;
    for (const VolumeFacts& volume : reader.volumes(name))
      line += volume.name + ":" + std::to_string(volume.partitionNumber) + " ";
    return line;
  };
  EXPECT_EQ(volumes("sde"), "sde1:1 sde2:2 sde10:10 ");  // in partition order
  // The stick without a partition table is its own volume; the empty slot and
  // an unformatted disk have none.
  EXPECT_EQ(volumes("sdd"), "sdd:0 ");
  EXPECT_EQ(volumes("sdc") + volumes("sdb1"), "");
  const std::vector<VolumeFacts> named{
      {"x1", {}, 1, "LABEL", {"/media/u/ignored"}},
      {"x2", {}, 2, "", {"/media/u/CARD", "/mnt/other"}},
      {"x3", {}, 3, "", {}},
      {"x4", {}, 4, "", {"/"}},
  };
  EXPECT_EQ(DiskEnumerator::volumeNames(named), (std::vector<std::string>{"LABEL", "CARD"}));

  // Hidden disks are never listed.
  fake.diskAttribute("sdd", "hidden", "1");
  EXPECT_EQ(DiskEnumerator::externalDisks(false, fake.paths()).size(), 3u);

  // The change stamp follows insertion, removal and media changes.
  const std::string before = DiskEnumerator::changeStamp(fake.paths());
  EXPECT_NE(before.find("sdb 21 62333952 0\n"), std::string::npos) << before;
  EXPECT_EQ(DiskEnumerator::changeStamp(fake.paths()), before);

  // A card inserted into the empty slot: new sequence number and size.
  fake.diskAttribute("sdc", "diskseq", "40").diskAttribute("sdc", "size", "31116288");
  const std::string inserted = DiskEnumerator::changeStamp(fake.paths());
  EXPECT_NE(inserted, before);
  fake.diskAttribute("sdb", "ro", "1");
  const std::string locked = DiskEnumerator::changeStamp(fake.paths());
  EXPECT_NE(locked, inserted);
  fake.remove("sdd");
  EXPECT_EQ(DiskEnumerator::changeStamp(fake.paths()).find("sdd "), std::string::npos);
}

// Facts with the named traits: "image" (a disk image), "virtual", "external",
// "system" (OS volume), "live" (a live-boot medium), "outside" (removable
// media or external device), "eject" (ejectable), "removable" (media).
DiskFacts withTraits(const std::string& traits) {
  const auto has = [&](const char* word) { return traits.find(word) != std::string::npos; };
  DiskFacts f;
  f.busProtocol = has("image") ? "Disk Image" : "usb";
  f.virtualOrPhysical = has("virtual") ? "Virtual" : "Physical";
  f.internal = !has("external");
  f.osInternalMedia = has("system");
  f.systemImage = has("live");
  f.removableMediaOrExternalDevice = has("outside");
  f.ejectable = has("eject");
  f.removableMedia = has("removable");
  return f;
}

TEST(DiskEnumerator, CardLikeRulesInOrder) {
  const std::tuple<const char*, bool, bool> cases[] = {
      {"image virtual system", true, true},  // images allowed
      {"image external", false, false},
      {"virtual external", true, false},
      {"external system", false, false},
      {"external live", false, false},
      {"outside", false, false},  // internal, external device but not ejectable
      {"outside eject", false, true},
      {"removable", false, true},  // a built-in reader
      {"external", false, true},
      {"", false, false},  // internal
  };
  for (const auto& [traits, allowImages, expected] : cases)
    EXPECT_EQ(DiskEnumerator::isMemoryCardLike(withTraits(traits), allowImages), expected)
        << traits;
}

}  // namespace
}  // namespace vellum

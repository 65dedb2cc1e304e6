#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Machine.h"
#include "platform/DiskEnumerator.h"
#include "platform/DiskFacts.h"

namespace vellum {
namespace {

using testing::FakeSystem;

struct Expected {
  std::string name;
  std::string busProtocol;
  std::string mediaName;
  bool internal;
  bool removableMedia;
  bool ejectable;
  std::string virtualOrPhysical;
  bool osInternalMedia;
};

TEST(DiskFacts, ReadsEachKindOfDiskFromSysfs) {
  FakeSystem fake;
  testing::buildLaptop(fake);
  const DiskFactsReader reader(fake.paths());
  const Expected table[] = {
      {"nvme0n1", "nvme", "Samsung SSD 980 1TB", true, false, false, "Physical", true},
      {"sda", "sata", "ATA WDC WD10EZEX-08W", true, false, false, "Physical", false},
      {"mmcblk0", "mmc", "SD card SL16G", true, true, false, "Physical", false},
      {"mmcblk1", "mmc", "MMC DG4016", true, false, false, "Physical", false},
      {"mmcblk1boot0", "mmc", "MMC DG4016", true, false, false, "Physical", false},
      {"sdb", "usb", "Generic STORAGE DEVICE", false, true, true, "Physical", false},
      {"sdd", "usb", "SanDisk Cruzer Blade", false, true, true, "Physical", false},
      {"sde", "usb", "Samsung PSSD T7", false, false, false, "Physical", false},
      {"loop0", "Disk Image", "Disk Image card.img", false, false, false, "Virtual", false},
      {"zram0", "", "", true, false, false, "Virtual", true},  // active swap
  };
  for (const Expected& e : table) {
    SCOPED_TRACE(e.name);
    const std::optional<DiskFacts> facts = reader.facts(e.name);
    ASSERT_TRUE(facts.has_value());
    EXPECT_TRUE(facts->wholeDisk);
    EXPECT_EQ(facts->busProtocol, e.busProtocol);
    EXPECT_EQ(facts->mediaName, e.mediaName);
    EXPECT_EQ(facts->internal, e.internal);
    EXPECT_EQ(facts->removableMedia, e.removableMedia);
    EXPECT_EQ(facts->ejectable, e.ejectable);
    // A disk image is neither internal nor an external device.
    EXPECT_EQ(facts->removableMediaOrExternalDevice,
              e.removableMedia || (!e.internal && e.busProtocol != "Disk Image"));
    EXPECT_EQ(facts->virtualOrPhysical, e.virtualOrPhysical);
    EXPECT_EQ(facts->osInternalMedia, e.osInternalMedia);
  }

  const DiskFacts sdb = *reader.facts("sdb");
  EXPECT_EQ(sdb.sizeBytes, 62333952ull * 512);
  EXPECT_EQ(sdb.device, (DeviceNumber{8, 16}));
  EXPECT_EQ(sdb.deviceTreePath,
            "/devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0/host2/target2:0:0/2:0:0:0/block/"
            "sdb#diskseq=21");
  EXPECT_TRUE(reader.facts("mmcblk1boot0")->readOnly);
  EXPECT_FALSE(reader.facts("sdb1")->wholeDisk);
  EXPECT_EQ(reader.facts("sdb1")->busProtocol, "usb");

  // Names that are not plain kernel names never reach the file system.
  for (const char* bad : {"", ".", "..", "../block/sdb", "sdb/sdb1", "nosuch"}) {
    EXPECT_FALSE(reader.facts(bad).has_value()) << bad;
  }
}

TEST(DiskFacts, RemovableMediaFromUdevAndLogicalBlockSize) {
  FakeSystem fake;
  // A reader that leaves `removable` at 0, but udev knows it is an SD slot.
  fake.usbDisk("sdf", "6", "Realtek", "RTSJ",
               FakeSystem::Disk{.dev = "8:80", .sectors = 100, .logicalBlockSize = 4096})
      .udev("8:80", "E:ID_DRIVE_FLASH_SD=1\nE:ID_DRIVE_FLASH_MS=1\n");
  fake.usbDisk("sdg", "7", "Realtek", "RTSJ", FakeSystem::Disk{.dev = "8:96", .sectors = 100})
      .udev("8:96", "E:ID_DRIVE_FLASH_SD=0\n");
  const DiskFactsReader reader(fake.paths());
  EXPECT_TRUE(reader.facts("sdf")->removableMedia);
  EXPECT_FALSE(reader.facts("sdf")->ejectable);
  EXPECT_EQ(reader.facts("sdf")->deviceBlockSize, 4096);
  EXPECT_FALSE(reader.facts("sdg")->removableMedia);
}

TEST(DiskFacts, SystemUseThroughPartitionsHoldersSwapAndLiveMedium) {
  FakeSystem fake;
  using Disk = FakeSystem::Disk;
  fake.usbDisk("sdh", "2", "A", "Root", Disk{.dev = "8:112", .sectors = 100, .removable = "1"})
      .partition("sdh", "sdh1", 1, "8:113");
  fake.usbDisk("sdi", "3", "A", "Crypt", Disk{.dev = "8:128", .sectors = 100, .removable = "1"})
      .partition("sdi", "sdi1", 1, "8:129")
      .disk("dm-0", "virtual", Disk{.dev = "253:0", .sectors = 90})
      .disk("dm-1", "virtual", Disk{.dev = "253:1", .sectors = 80})
      .holder("sdi1", "dm-0")
      .holder("dm-0", "dm-1");
  fake.usbDisk("sdj", "4", "A", "Swap", Disk{.dev = "8:144", .sectors = 100, .removable = "1"})
      .partition("sdj", "sdj1", 1, "8:145")
      .partition("sdj", "sdj2", 2, "8:146");
  fake.usbDisk("sdk", "5", "A", "Live", Disk{.dev = "8:160", .sectors = 100, .removable = "1"});
  fake.usbDisk("sdl", "6", "A", "Data", Disk{.dev = "8:176", .sectors = 100, .removable = "1"})
      .partition("sdl", "sdl1", 1, "8:177");
  fake.mountInfo(R"(27 1 8:113 / / rw - ext4 /dev/sdh1 rw
30 27 253:1 / /home rw - ext4 /dev/mapper/home rw
31 27 8:160 / /run/live/medium ro - iso9660 /dev/sdk ro
32 27 8:177 / /media/user/homework rw - ext4 /dev/sdl1 rw
33 27 8:177 /home /mnt/home\040copy rw - ext4 /dev/sdl1 rw
)");
  fake.swaps("Filename Type Size Used Priority\n/dev/sdj2 partition 100 0 -2\n");
  const DiskFactsReader reader(fake.paths());

  EXPECT_TRUE(reader.facts("sdh")->osInternalMedia);
  EXPECT_TRUE(reader.facts("sdi")->osInternalMedia);  // /home on dm-1 on dm-0 on sdi1
  EXPECT_TRUE(reader.facts("sdj")->osInternalMedia);  // swap partition
  EXPECT_FALSE(reader.facts("sdk")->osInternalMedia);
  EXPECT_TRUE(reader.facts("sdk")->systemImage);
  // Bind mounts of a subfolder and names merely containing "home" don't count.
  EXPECT_FALSE(reader.facts("sdl")->osInternalMedia);
  EXPECT_FALSE(reader.facts("sdl")->systemImage);
  EXPECT_EQ(reader.mountPoints("sdl"),
            (std::vector<std::string>{"/media/user/homework", "/mnt/home copy"}));
  // The holders' mounts are not the disk's own mounts.
  EXPECT_TRUE(reader.mountPoints("sdi").empty());
  EXPECT_EQ(reader.devicesOf("sdi", true),
            (std::vector<DeviceNumber>{{8, 128}, {8, 129}, {253, 0}, {253, 1}}));
}

TEST(DiskFacts, MountsMatchByDeviceNumberNeverByNamePrefix) {
  FakeSystem fake;
  using Disk = FakeSystem::Disk;
  fake.usbDisk("sda", "2", "A", "One", Disk{.dev = "8:0", .sectors = 100, .removable = "1"})
      .partition("sda", "sda1", 1, "8:1");
  fake.usbDisk("sdaa", "3", "A", "Two", Disk{.dev = "65:160", .sectors = 100, .removable = "1"})
      .partition("sdaa", "sdaa1", 1, "65:161");
  const std::string emmc = "platform/mmc/mmc_host/mmc0/mmc0:0001";
  fake.device(emmc, "mmc")
      .attribute(emmc, "type", "MMC")
      .disk("mmcblk0", emmc, Disk{.dev = "179:0", .sectors = 100})
      .disk("mmcblk0boot0", emmc, Disk{.dev = "179:8", .sectors = 10});
  fake.usbDisk("sdc", "4", "A", "Btrfs", Disk{.dev = "8:32", .sectors = 100, .removable = "1"})
      .partition("sdc", "sdc1", 1, "8:33");
  fake.mountInfo(R"(50 1 65:161 / /media/sdaa1 rw - vfat /dev/sdaa1 rw
51 1 179:8 / /media/boot0 rw - vfat /dev/mmcblk0boot0 rw
52 1 0:45 / /media/pool rw - btrfs /dev/sdc1 rw
53 1 0:46 / /media/fuse rw - fuse.sshfs /dev/sda1:/remote rw
)");
  const DiskFactsReader reader(fake.paths());
  EXPECT_TRUE(reader.mountPoints("sda").empty());
  EXPECT_EQ(reader.mountPoints("sdaa"), (std::vector<std::string>{"/media/sdaa1"}));
  EXPECT_TRUE(reader.mountPoints("mmcblk0").empty());
  EXPECT_EQ(reader.mountPoints("mmcblk0boot0"), (std::vector<std::string>{"/media/boot0"}));
  // Anonymous device numbers (btrfs) are found through the mount source.
  EXPECT_EQ(reader.mountPoints("sdc"), (std::vector<std::string>{"/media/pool"}));
  EXPECT_EQ(reader.wholeDiskName({0, 45}), "sdc");
  EXPECT_EQ(reader.wholeDiskName({0, 46}), std::nullopt);
  EXPECT_EQ(reader.wholeDiskName({65, 161}), "sdaa");
  EXPECT_EQ(reader.wholeDiskName({179, 8}), "mmcblk0boot0");
}

TEST(DiskEnumerator, ListsOnlyCardLikeDisksWithTheirVolumeNames) {
  FakeSystem fake;
  testing::buildLaptop(fake);
  const std::vector<ExternalDisk> disks = DiskEnumerator::externalDisks(false, fake.paths());
  const std::vector<ExternalDisk> expected{
      {"mmcblk0", "SD card SL16G", 31116288ull * 512, {"EOS_DIGITAL"}},
      {"sdb", "Generic STORAGE DEVICE", 62333952ull * 512, {"NO NAME"}},
      {"sdd", "SanDisk Cruzer Blade", 30031872ull * 512, {"MY STICK"}},
      {"sde", "Samsung PSSD T7", 976773168ull * 512, {"BACKUP", "TENTH"}},
  };
  EXPECT_EQ(disks, expected);

  const std::vector<ExternalDisk> withImages = DiskEnumerator::externalDisks(true, fake.paths());
  ASSERT_EQ(withImages.size(), 5u);
  EXPECT_EQ(withImages.front(),
            (ExternalDisk{"loop0", "Disk Image card.img", 524288ull * 512, {}}));
  EXPECT_TRUE(withImages[1].isMemoryCard());  // SD card SL16G
  EXPECT_EQ(withImages[1].displayName(), "EOS_DIGITAL");

  // Hidden disks are never listed.
  fake.diskAttribute("sdd", "hidden", "1");
  EXPECT_EQ(DiskEnumerator::externalDisks(false, fake.paths()).size(), 3u);
}

TEST(DiskEnumerator, ChangeStampFollowsInsertionRemovalAndMediaChanges) {
  FakeSystem fake;
  testing::buildLaptop(fake);
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

TEST(DiskEnumerator, VolumesInPartitionOrderWithNamesFromLabelsThenMountPoints) {
  FakeSystem fake;
  testing::buildLaptop(fake);
  const DiskFactsReader reader(fake.paths());
  const std::vector<VolumeFacts> volumes = reader.volumes("sde");
  ASSERT_EQ(volumes.size(), 3u);
  EXPECT_EQ(volumes[0].name, "sde1");
  EXPECT_EQ(volumes[1].name, "sde2");
  EXPECT_EQ(volumes[2].name, "sde10");
  EXPECT_EQ(volumes[2].partitionNumber, 10);

  // The stick without a partition table is its own volume; the empty slot and
  // an unformatted disk have none.
  ASSERT_EQ(reader.volumes("sdd").size(), 1u);
  EXPECT_EQ(reader.volumes("sdd")[0].partitionNumber, 0);
  EXPECT_TRUE(reader.volumes("sdc").empty());
  EXPECT_TRUE(reader.volumes("sdb1").empty());

  const std::vector<VolumeFacts> named{
      {"x1", {}, 1, "LABEL", {"/media/u/ignored"}},
      {"x2", {}, 2, "", {"/media/u/CARD", "/mnt/other"}},
      {"x3", {}, 3, "", {}},
      {"x4", {}, 4, "", {"/"}},
  };
  EXPECT_EQ(DiskEnumerator::volumeNames(named), (std::vector<std::string>{"LABEL", "CARD"}));
}

TEST(DiskEnumerator, CardLikeRulesInOrder) {
  struct Case {
    const char* what;
    DiskFacts info;
    bool allowImages;
    bool expected;
  };
  const auto facts = [](auto change) {
    DiskFacts f;
    f.virtualOrPhysical = "Physical";
    change(f);
    return f;
  };
  const Case cases[] = {
      {"image allowed", facts([](DiskFacts& f) {
         f.busProtocol = "Disk Image";
         f.virtualOrPhysical = "Virtual";
         f.osInternalMedia = true;
       }),
       true, true},
      {"image not allowed", facts([](DiskFacts& f) {
         f.busProtocol = "Disk Image";
         f.internal = false;
       }),
       false, false},
      {"virtual", facts([](DiskFacts& f) {
         f.virtualOrPhysical = "Virtual";
         f.internal = false;
       }),
       true, false},
      {"system", facts([](DiskFacts& f) {
         f.internal = false;
         f.osInternalMedia = true;
       }),
       false, false},
      {"live medium", facts([](DiskFacts& f) {
         f.internal = false;
         f.systemImage = true;
       }),
       false, false},
      {"internal, external device but not ejectable",
       facts([](DiskFacts& f) { f.removableMediaOrExternalDevice = true; }), false, false},
      {"internal, external device and ejectable", facts([](DiskFacts& f) {
         f.removableMediaOrExternalDevice = true;
         f.ejectable = true;
       }),
       false, true},
      {"built-in reader", facts([](DiskFacts& f) { f.removableMedia = true; }), false, true},
      {"external, not removable", facts([](DiskFacts& f) { f.internal = false; }), false, true},
      {"internal", facts([](DiskFacts&) {}), false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(DiskEnumerator::isMemoryCardLike(c.info, c.allowImages), c.expected) << c.what;
  }
}

TEST(DiskEnumerator, CardWordsAreWholeWords) {
  const std::pair<const char*, bool> cases[] = {
      {"Built In SDXC Reader", true},
      {"Generic Flash Disk", false},
      {"SDcard", false},
      {"Card-Reader", true},
      {"SD card SL16G", true},
      {"MMC DG4016", true},
      {"Lexar CFexpress", true},
      {"Generic STORAGE DEVICE", false},
      {"", false},
      {"microSD", true},
  };
  for (const auto& [mediaName, expected] : cases) {
    EXPECT_EQ((ExternalDisk{"sdb", mediaName, 1, {}}.isMemoryCard()), expected) << mediaName;
  }
}

TEST(DiskEnumerator, WholeDiskOfAVolumeFollowsItsDeviceNumber) {
  FakeSystem fake;
  testing::buildLaptop(fake);
  // Pretend the file system holding the fake tree is sdb1.
  struct stat st {};
  ASSERT_EQ(::stat(fake.root().c_str(), &st), 0);
  const std::string dev = std::to_string(DeviceNumber::fromDev(st.st_dev).major) + ":" +
                          std::to_string(DeviceNumber::fromDev(st.st_dev).minor);
  std::error_code ignored;
  std::filesystem::remove(fake.paths().sysRoot / "dev/block" / dev, ignored);
  fake.devLink(dev, "sdb1");
  const auto disk = DiskEnumerator::wholeDisk(fake.root(), fake.paths());
  ASSERT_TRUE(disk.has_value());
  EXPECT_EQ(*disk, (DiskEnumerator::WholeDisk{"sdb", "/dev/sdb", 62333952ull * 512}));

  EXPECT_FALSE(DiskEnumerator::wholeDisk("/no/such/path", fake.paths()).has_value());
  FakeSystem empty;
  EXPECT_FALSE(DiskEnumerator::wholeDisk(empty.root(), empty.paths()).has_value());
}

}  // namespace
}  // namespace vellum

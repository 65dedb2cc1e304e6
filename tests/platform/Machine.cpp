#include "Machine.h"

namespace vellum::testing {

void buildLaptop(FakeSystem& fake) {
  using Disk = FakeSystem::Disk;

  const std::string nvme = "pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0";
  fake.device("pci0000:00/0000:00:1d.0/0000:3d:00.0", "pci")
      .attribute("pci0000:00/0000:00:1d.0/0000:3d:00.0", "removable", "fixed")
      .device(nvme, "nvme")
      .attribute(nvme, "model", "Samsung SSD 980 1TB                     ")
      .disk("nvme0n1", nvme, Disk{.dev = "259:0", .sectors = 1953525168, .diskseq = "1"})
      .partition("nvme0n1", "nvme0n1p1", 1, "259:1")
      .partition("nvme0n1", "nvme0n1p2", 2, "259:2");

  const std::string sata = "pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0";
  fake.device("pci0000:00/0000:00:17.0", "pci")
      .attribute("pci0000:00/0000:00:17.0", "removable", "fixed")
      .device(sata, "scsi")
      .attribute(sata, "vendor", "ATA     ")
      .attribute(sata, "model", "WDC WD10EZEX-08W")
      .disk("sda", sata, Disk{.dev = "8:0", .sectors = 1953525168, .diskseq = "2"})
      .partition("sda", "sda1", 1, "8:1");

  const std::string sdSlot =
      "pci0000:00/0000:00:1c.0/0000:02:00.0/rtsx_pci_sdmmc.0/mmc_host/mmc0/mmc0:aaaa";
  fake.device("pci0000:00/0000:00:1c.0/0000:02:00.0", "pci")
      .device(sdSlot, "mmc")
      .attribute(sdSlot, "type", "SD")
      .attribute(sdSlot, "name", "SL16G")
      .disk("mmcblk0", sdSlot, Disk{.dev = "179:0", .sectors = 31116288, .diskseq = "3"})
      .partition("mmcblk0", "mmcblk0p1", 1, "179:1")
      .udev("179:1",
            "S:disk/by-label/EOS_DIGITAL\nE:ID_FS_TYPE=exfat\nE:ID_FS_LABEL=EOS_DIGITAL\n");

  const std::string emmc = "platform/fe310000.mmc/mmc_host/mmc1/mmc1:0001";
  fake.device("platform/fe310000.mmc", "platform")
      .device(emmc, "mmc")
      .attribute(emmc, "type", "MMC")
      .attribute(emmc, "name", "DG4016")
      .disk("mmcblk1", emmc, Disk{.dev = "179:8", .sectors = 30535680, .diskseq = "4"})
      .disk("mmcblk1boot0", emmc,
            Disk{.dev = "179:16", .sectors = 8192, .readOnly = "1", .diskseq = "5"})
      .disk("mmcblk1boot1", emmc,
            Disk{.dev = "179:24", .sectors = 8192, .readOnly = "1", .diskseq = "6"});

  fake.usbDisk("sdb", "2", "Generic", "STORAGE DEVICE",
               Disk{.dev = "8:16", .sectors = 62333952, .removable = "1", .diskseq = "21"})
      .partition("sdb", "sdb1", 1, "8:17");
  fake.usbDisk("sdc", "3", "Generic", "SD/MMC Reader",
               Disk{.dev = "8:32", .sectors = 0, .removable = "1", .diskseq = "22"});
  fake.usbDisk("sdd", "4", "SanDisk ", "Cruzer Blade    ",
               Disk{.dev = "8:48", .sectors = 30031872, .removable = "1", .diskseq = "23"})
      .udev("8:48", "E:ID_FS_TYPE=vfat\nE:ID_FS_LABEL=MY_STICK\nE:ID_FS_LABEL_ENC=MY\\x20STICK\n");
  fake.usbDisk("sde", "5", "Samsung", "PSSD T7",
               Disk{.dev = "8:64", .sectors = 976773168, .diskseq = "24"})
      .partition("sde", "sde1", 1, "8:65")
      .partition("sde", "sde2", 2, "8:66")
      .partition("sde", "sde10", 10, "8:74")
      .udev("8:66", "E:ID_FS_LABEL=BACKUP\n")
      .udev("8:74", "E:ID_FS_LABEL=TENTH\n");

  fake.disk("loop0", "virtual", Disk{.dev = "7:0", .sectors = 524288, .diskseq = "30"})
      .diskAttribute("loop0", "loop/backing_file", "/tmp/images/card.img");
  fake.disk("zram0", "virtual", Disk{.dev = "252:0", .sectors = 8388608, .diskseq = "31"});

  fake.mountInfo(R"(22 27 0:21 / /proc rw,relatime - proc proc rw
27 1 259:2 / / rw,relatime shared:1 - ext4 /dev/nvme0n1p2 rw
28 27 259:1 / /boot/efi rw,relatime shared:2 - vfat /dev/nvme0n1p1 rw,fmask=0077
40 27 8:1 / /srv/data rw,relatime - ext4 /dev/sda1 rw
61 27 8:17 / /media/user/NO\040NAME rw,nosuid,nodev shared:40 - exfat /dev/sdb1 rw
)");
  fake.swaps(
      "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
      "/dev/zram0                              partition\t8388604\t\t0\t\t100\n");
}

ScopedEnv::ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
  if (const char* old = std::getenv(name)) previous_ = old;
  if (value) {
    ::setenv(name, value->c_str(), 1);
  } else {
    ::unsetenv(name);
  }
}

ScopedEnv::~ScopedEnv() {
  if (previous_) {
    ::setenv(name_.c_str(), previous_->c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

}  // namespace vellum::testing

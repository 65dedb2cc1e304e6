#include "FakeSystem.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "support/TempDir.h"

namespace vellum::testing {
namespace fs = std::filesystem;

namespace {

fs::path makeRoot() {
  for (const fs::path& base : {fs::path("/dev/shm"), fs::temp_directory_path()}) {
    std::string pattern = (base / "vellum-sysfs-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) return pattern;
  }
  throw std::runtime_error("cannot create a folder for a fake sysfs tree");
}

}  // namespace

FakeSystem::FakeSystem() : root_(makeRoot()), paths_(SystemPaths::under(root_)) {
  for (const char* folder : {"sys/block", "sys/class/block", "sys/dev/block", "sys/devices/virtual",
                             "sys/bus", "run/udev/data", "proc/self"}) {
    fs::create_directories(root_ / folder);
  }
  writeFile(paths_.mountInfo.string(), "");
  writeFile(paths_.swaps.string(), "Filename\tType\tSize\tUsed\tPriority\n");
}

FakeSystem::~FakeSystem() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

FakeSystem& FakeSystem::device(const std::string& path, const std::string& subsystem) {
  const fs::path folder = paths_.sysRoot / "devices" / path;
  fs::create_directories(folder);
  if (!subsystem.empty() && !fs::is_symlink(folder / "subsystem")) {
    fs::create_directory_symlink(paths_.sysRoot / "bus" / subsystem, folder / "subsystem");
  }
  return *this;
}

FakeSystem& FakeSystem::attribute(const std::string& devicePath, const std::string& name,
                                  const std::string& value) {
  const fs::path file = paths_.sysRoot / "devices" / devicePath / name;
  fs::create_directories(file.parent_path());
  writeFile(file.string(), value + "\n");
  return *this;
}

std::string FakeSystem::blockFolder(const std::string& name) const {
  const auto it = folders_.find(name);
  if (it == folders_.end()) throw std::logic_error("no fake block device " + name);
  return it->second;
}

FakeSystem& FakeSystem::disk(const std::string& name, const std::string& parent, const Disk& disk) {
  device(parent);
  const fs::path folder = paths_.sysRoot / "devices" / parent / "block" / name;
  fs::create_directories(folder / "queue");
  fs::create_directories(folder / "holders");
  writeFile((folder / "dev").string(), disk.dev + "\n");
  writeFile((folder / "size").string(), std::to_string(disk.sectors) + "\n");
  writeFile((folder / "removable").string(), disk.removable + "\n");
  writeFile((folder / "ro").string(), disk.readOnly + "\n");
  writeFile((folder / "hidden").string(), disk.hidden + "\n");
  writeFile((folder / "diskseq").string(), disk.diskseq + "\n");
  writeFile((folder / "queue/logical_block_size").string(),
            std::to_string(disk.logicalBlockSize) + "\n");
  if (!parent.starts_with("virtual")) {
    fs::create_directory_symlink(paths_.sysRoot / "devices" / parent, folder / "device");
  }
  fs::create_directory_symlink(folder, paths_.sysRoot / "block" / name);
  fs::create_directory_symlink(folder, paths_.sysRoot / "class/block" / name);
  fs::create_directory_symlink(folder, paths_.sysRoot / "dev/block" / disk.dev);
  folders_[name] = folder.string();
  return *this;
}

FakeSystem& FakeSystem::partition(const std::string& diskName, const std::string& name, int number,
                                  const std::string& dev, std::uint64_t sectors) {
  const fs::path folder = fs::path(blockFolder(diskName)) / name;
  fs::create_directories(folder / "holders");
  writeFile((folder / "dev").string(), dev + "\n");
  writeFile((folder / "partition").string(), std::to_string(number) + "\n");
  writeFile((folder / "size").string(), std::to_string(sectors) + "\n");
  writeFile((folder / "ro").string(), "0\n");
  fs::create_directory_symlink(folder, paths_.sysRoot / "class/block" / name);
  fs::create_directory_symlink(folder, paths_.sysRoot / "dev/block" / dev);
  folders_[name] = folder.string();
  return *this;
}

FakeSystem& FakeSystem::holder(const std::string& lower, const std::string& holder) {
  fs::create_directory_symlink(blockFolder(holder),
                               fs::path(blockFolder(lower)) / "holders" / holder);
  return *this;
}

FakeSystem& FakeSystem::devLink(const std::string& dev, const std::string& name) {
  fs::create_directory_symlink(blockFolder(name), paths_.sysRoot / "dev/block" / dev);
  return *this;
}

FakeSystem& FakeSystem::diskAttribute(const std::string& name, const std::string& attribute,
                                      const std::string& value) {
  const fs::path file = fs::path(blockFolder(name)) / attribute;
  fs::create_directories(file.parent_path());
  writeFile(file.string(), value + "\n");
  return *this;
}

FakeSystem& FakeSystem::udev(const std::string& dev, const std::string& record) {
  writeFile((paths_.udevDataRoot / ("b" + dev)).string(), record);
  return *this;
}

FakeSystem& FakeSystem::mountInfo(const std::string& text) {
  writeFile(paths_.mountInfo.string(), text);
  return *this;
}

FakeSystem& FakeSystem::swaps(const std::string& text) {
  writeFile(paths_.swaps.string(), text);
  return *this;
}

void FakeSystem::remove(const std::string& name) {
  const std::string folder = blockFolder(name);
  for (const char* link : {"block", "class/block"})
    fs::remove(paths_.sysRoot / link / name);
  fs::remove_all(folder);
  folders_.erase(name);
}

FakeSystem& FakeSystem::usbDisk(const std::string& name, const std::string& port,
                                const std::string& vendor, const std::string& model,
                                const Disk& disk) {
  const std::string hub = "pci0000:00/0000:00:14.0/usb1";
  const std::string usbDevice = hub + "/1-" + port;
  const std::string host = usbDevice + "/1-" + port + ":1.0/host" + port;
  const std::string scsiDevice = host + "/target" + port + ":0:0/" + port + ":0:0:0";
  device("pci0000:00/0000:00:14.0", "pci");
  device(hub, "usb");
  device(usbDevice, "usb");
  attribute(usbDevice, "removable", "removable");
  device(usbDevice + "/1-" + port + ":1.0", "usb");
  device(host, "scsi");
  device(scsiDevice, "scsi");
  attribute(scsiDevice, "vendor", vendor);
  attribute(scsiDevice, "model", model);
  return this->disk(name, scsiDevice, disk);
}

FakeSystem& FakeSystem::sataDisk(const std::string& name, const Disk& disk) {
  const std::string scsiDevice = "pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0";
  device("pci0000:00/0000:00:17.0", "pci");
  attribute("pci0000:00/0000:00:17.0", "removable", "fixed");
  device(scsiDevice, "scsi");
  attribute(scsiDevice, "vendor", "ATA     ");
  attribute(scsiDevice, "model", "WDC WD10EZEX-08W");
  return this->disk(name, scsiDevice, disk);
}

FakeSystem& FakeSystem::loopDisk(const std::string& name, const std::string& backing,
                                 const Disk& disk) {
  this->disk(name, "virtual", disk);
  return diskAttribute(name, "loop/backing_file", backing);
}

}  // namespace vellum::testing

#include "FakeSystem.h"

#include <cstdlib>
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

// Writes value and a newline to folder/name, creating the folders on the way.
void put(const fs::path& folder, const std::string& name, const std::string& value) {
  fs::create_directories((folder / name).parent_path());
  writeFile((folder / name).string(), value + "\n");
}

}  // namespace

FakeSystem::FakeSystem() : root_(makeRoot()), paths_(SystemPaths::under(root_)) {
  for (const char* folder : {"sys/block", "sys/class/block", "sys/dev/block", "sys/devices/virtual",
                             "sys/bus", "run/udev/data", "proc/self"}) {
    fs::create_directories(root_ / folder);
  }
  mountInfo("");
  swaps("Filename\tType\tSize\tUsed\tPriority\n");
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
  put(paths_.sysRoot / "devices" / devicePath, name, value);
  return *this;
}

void FakeSystem::addBlock(const std::string& name, const fs::path& folder, const std::string& dev) {
  fs::create_directories(folder / "holders");
  put(folder, "dev", dev);
  fs::create_directory_symlink(folder, paths_.sysRoot / "class/block" / name);
  fs::create_directory_symlink(folder, paths_.sysRoot / "dev/block" / dev);
  folders_[name] = folder;
}

FakeSystem& FakeSystem::disk(const std::string& name, const std::string& parent, const Disk& disk) {
  device(parent);
  const fs::path folder = paths_.sysRoot / "devices" / parent / "block" / name;
  addBlock(name, folder, disk.dev);
  for (const auto& [file, value] :
       {std::pair<const char*, std::string>{"size", std::to_string(disk.sectors)},
        {"removable", disk.removable},
        {"ro", disk.readOnly},
        {"hidden", disk.hidden},
        {"diskseq", disk.diskseq},
        {"queue/logical_block_size", std::to_string(disk.logicalBlockSize)}}) {
    put(folder, file, value);
  }
  if (!parent.starts_with("virtual")) {
    fs::create_directory_symlink(paths_.sysRoot / "devices" / parent, folder / "device");
  }
  fs::create_directory_symlink(folder, paths_.sysRoot / "block" / name);
  return *this;
}

FakeSystem& FakeSystem::partition(const std::string& diskName, const std::string& name, int number,
                                  const std::string& dev) {
  const fs::path folder = folders_.at(diskName) / name;
  addBlock(name, folder, dev);
  put(folder, "partition", std::to_string(number));
  put(folder, "size", "1000");
  put(folder, "ro", "0");
  return *this;
}

FakeSystem& FakeSystem::holder(const std::string& lower, const std::string& holder) {
  fs::create_directory_symlink(folders_.at(holder), folders_.at(lower) / "holders" / holder);
  return *this;
}

FakeSystem& FakeSystem::diskAttribute(const std::string& name, const std::string& attribute,
                                      const std::string& value) {
  put(folders_.at(name), attribute, value);
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
  for (const char* link : {"block", "class/block"})
    fs::remove(paths_.sysRoot / link / name);
  fs::remove_all(folders_.at(name));
  folders_.erase(name);
}

FakeSystem& FakeSystem::usbDisk(const std::string& name, const std::string& port,
                                const std::string& vendor, const std::string& model,
                                const Disk& disk) {
  const std::string usbDevice = "pci0000:00/0000:00:14.0/usb1/1-" + port;
  const std::string host = usbDevice + "/1-" + port + ":1.0/host" + port;
  const std::string scsiDevice = host + "/target" + port + ":0:0/" + port + ":0:0:0";
  device("pci0000:00/0000:00:14.0", "pci").device("pci0000:00/0000:00:14.0/usb1", "usb");
  device(usbDevice, "usb").attribute(usbDevice, "removable", "removable");
  device(usbDevice + "/1-" + port + ":1.0", "usb").device(host, "scsi").device(scsiDevice, "scsi");
  attribute(scsiDevice, "vendor", vendor).attribute(scsiDevice, "model", model);
  return this->disk(name, scsiDevice, disk);
}

}  // namespace vellum::testing

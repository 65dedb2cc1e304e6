#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>

#include "platform/SystemPaths.h"
#include "support/TempDir.h"

namespace vellum::testing {

// A fake sysfs tree, udev database and /proc tables in a temporary folder,
// laid out the way the kernel lays them out: disks under sys/devices/... with
// links from sys/block, sys/class/block and sys/dev/block. Lives in /dev/shm
// when it can: building a tree takes hundreds of small file operations.
class FakeSystem {
 public:
  using path = std::filesystem::path;

  FakeSystem() : root_(makeRoot()), paths_(SystemPaths::under(root_)) {
    for (const char* folder : {"sys/block", "sys/class/block", "sys/dev/block",
                               "sys/devices/virtual", "sys/bus", "run/udev/data", "proc/self"}) {
      std::filesystem::create_directories(root_ / folder);
    }
    mountInfo("");
    swaps("Filename\tType\tSize\tUsed\tPriority\n");
  }
  ~FakeSystem() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  FakeSystem(const FakeSystem&) = delete;
  FakeSystem& operator=(const FakeSystem&) = delete;

  const SystemPaths& paths() const noexcept { return paths_; }

  // A device folder under sys/devices (created with its parents) whose
  // `subsystem` link names the given subsystem (empty: no link).
  FakeSystem& device(const std::string& devicePath, const std::string& subsystem = {}) {
    const path folder = paths_.sysRoot / "devices" / devicePath;
    std::filesystem::create_directories(folder);
    if (!subsystem.empty() && !std::filesystem::is_symlink(folder / "subsystem"))
      link(paths_.sysRoot / "bus" / subsystem, folder / "subsystem");
    return *this;
  }
  FakeSystem& attribute(const std::string& devicePath, const std::string& name,
                        const std::string& value) {
    put(paths_.sysRoot / "devices" / devicePath, name, value);
    return *this;
  }

  struct Disk {
    std::string dev;            // "8:16"
    std::uint64_t sectors = 0;  // 512-byte units
    std::string removable = "0";
    std::string readOnly = "0";
    std::string diskseq = "1";
    std::string hidden = "0";
    std::uint64_t logicalBlockSize = 512;
  };
  // A whole disk at sys/devices/{parent}/block/{name}; `device` links to
  // parent unless that is virtual.
  FakeSystem& disk(const std::string& name, const std::string& parent, const Disk& disk) {
    device(parent);
    const path folder = paths_.sysRoot / "devices" / parent / "block" / name;
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
    if (!parent.starts_with("virtual"))
      link(paths_.sysRoot / "devices" / parent, folder / "device");
    link(folder, paths_.sysRoot / "block" / name);
    return *this;
  }
  FakeSystem& partition(const std::string& diskName, const std::string& name, int number,
                        const std::string& dev) {
    const path folder = folders_.at(diskName) / name;
    addBlock(name, folder, dev);
    put(folder, "partition", std::to_string(number));
    put(folder, "size", "1000");
    put(folder, "ro", "0");
    return *this;
  }
  // Declares `holder` (an existing block device) stacked on `lower`.
  FakeSystem& holder(const std::string& lower, const std::string& holder) {
    link(folders_.at(holder), folders_.at(lower) / "holders" / holder);
    return *this;
  }
  FakeSystem& diskAttribute(const std::string& name, const std::string& attribute,
                            const std::string& value) {
    put(folders_.at(name), attribute, value);
    return *this;
  }
  FakeSystem& udev(const std::string& dev, const std::string& record) {
    writeFile((paths_.udevDataRoot / ("b" + dev)).string(), record);
    return *this;
  }
  FakeSystem& mountInfo(const std::string& text) {
    writeFile(paths_.mountInfo.string(), text);
    return *this;
  }
  FakeSystem& swaps(const std::string& text) {
    writeFile(paths_.swaps.string(), text);
    return *this;
  }
  void remove(const std::string& name) {
    for (const char* links : {"block", "class/block"})
      std::filesystem::remove(paths_.sysRoot / links / name);
    std::filesystem::remove_all(folders_.at(name));
    folders_.erase(name);
  }
  // A disk behind a USB mass-storage bridge on the given port.
  FakeSystem& usbDisk(const std::string& name, const std::string& port, const std::string& vendor,
                      const std::string& model, const Disk& disk) {
    const std::string usb = "pci0000:00/0000:00:14.0/usb1/1-" + port;
    const std::string host = usb + "/1-" + port + ":1.0/host" + port;
    const std::string scsi = host + "/target" + port + ":0:0/" + port + ":0:0:0";
    device("pci0000:00/0000:00:14.0", "pci").device("pci0000:00/0000:00:14.0/usb1", "usb");
    device(usb, "usb").attribute(usb, "removable", "removable");
    device(usb + "/1-" + port + ":1.0", "usb").device(host, "scsi").device(scsi, "scsi");
    attribute(scsi, "vendor", vendor).attribute(scsi, "model", model);
    return this->disk(name, scsi, disk);
  }

 private:
  static path makeRoot() {
    for (const path& base : {path("/dev/shm"), std::filesystem::temp_directory_path()}) {
      std::string pattern = (base / "vellum-sysfs-XXXXXX").string();
      if (::mkdtemp(pattern.data()) != nullptr) return pattern;
    }
    throw std::runtime_error("cannot create a folder for a fake sysfs tree");
  }
  // Writes value and a newline to folder/name, creating the folders on the way.
  static void put(const path& folder, const std::string& name, const std::string& value) {
    std::filesystem::create_directories((folder / name).parent_path());
    writeFile((folder / name).string(), value + "\n");
  }
  static void link(const path& target, const path& at) {
    std::filesystem::create_directory_symlink(target, at);
  }
  // Links folder as the named block device (and as its device number).
  void addBlock(const std::string& name, const path& folder, const std::string& dev) {
    std::filesystem::create_directories(folder / "holders");
    put(folder, "dev", dev);
    link(folder, paths_.sysRoot / "class/block" / name);
    link(folder, paths_.sysRoot / "dev/block" / dev);
    folders_[name] = folder;
  }

  path root_;
  SystemPaths paths_;
  std::map<std::string, path> folders_;  // kernel name -> folder
};

}  // namespace vellum::testing

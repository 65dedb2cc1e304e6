#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

#include "platform/SystemPaths.h"

namespace vellum::testing {

// A fake sysfs tree, udev database and /proc tables in a temporary folder,
// laid out the way the kernel lays them out: disks under sys/devices/... with
// links from sys/block, sys/class/block and sys/dev/block. Lives in /dev/shm
// when it can: building a tree takes hundreds of small file operations.
class FakeSystem {
 public:
  FakeSystem();
  ~FakeSystem() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  FakeSystem(const FakeSystem&) = delete;
  FakeSystem& operator=(const FakeSystem&) = delete;

  const SystemPaths& paths() const noexcept { return paths_; }

  // A device folder under sys/devices (created with its parents) whose
  // `subsystem` link names the given subsystem (empty: no link).
  FakeSystem& device(const std::string& path, const std::string& subsystem = {});
  FakeSystem& attribute(const std::string& devicePath, const std::string& name,
                        const std::string& value);

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
  FakeSystem& disk(const std::string& name, const std::string& parent, const Disk& disk);
  FakeSystem& partition(const std::string& diskName, const std::string& name, int number,
                        const std::string& dev);
  // Declares `holder` (an existing block device) stacked on `lower`.
  FakeSystem& holder(const std::string& lower, const std::string& holder);
  FakeSystem& diskAttribute(const std::string& name, const std::string& attribute,
                            const std::string& value);
  FakeSystem& udev(const std::string& dev, const std::string& record);
  FakeSystem& mountInfo(const std::string& text);
  FakeSystem& swaps(const std::string& text);
  void remove(const std::string& name);
  // A disk behind a USB mass-storage bridge on the given port.
  FakeSystem& usbDisk(const std::string& name, const std::string& port, const std::string& vendor,
                      const std::string& model, const Disk& disk);

 private:
  // Links folder as the named block device (and as its device number).
  void addBlock(const std::string& name, const std::filesystem::path& folder,
                const std::string& dev);

  std::filesystem::path root_;
  SystemPaths paths_;
  std::map<std::string, std::filesystem::path> folders_;  // kernel name -> folder
};

}  // namespace vellum::testing

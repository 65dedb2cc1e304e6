#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/DeviceNumber.h"
#include "platform/MountTable.h"
#include "platform/SystemPaths.h"

namespace vellum {

// One volume of a disk: a partition, or the disk itself when it carries a file
// system without a partition table.
struct VolumeFacts {
  std::string name;  // kernel name, such as "sdb1"
  DeviceNumber device;
  int partitionNumber = 0;               // 0 for a whole-disk file system
  std::string label;                     // file-system label; empty when unknown
  std::vector<std::string> mountPoints;  // in mount-table order

  bool operator==(const VolumeFacts&) const = default;
};

// The facts the guard and the card filter decide on, named after the disk
// properties they stand for, read from sysfs (and the udev database when it
// exists).
struct DiskFacts {
  std::string name;  // kernel name as asked, such as "sdb" or "sdb1"
  DeviceNumber device;
  bool wholeDisk = false;
  bool internal = true;  // not external: no usb/ieee1394 or removable ancestor
  bool removableMedia = false;
  bool removableMediaOrExternalDevice = false;
  bool ejectable = false;
  std::string virtualOrPhysical;  // "Virtual" or "Physical"
  std::string busProtocol;        // "Disk Image", "usb", "mmc", "nvme", "sata", ...; or empty
  bool osInternalMedia = false;   // carries a system mount point or active swap
  bool systemImage = false;       // holds a mounted live-boot medium
  std::uint64_t sizeBytes = 0;
  std::int64_t deviceBlockSize = 512;
  std::string mediaName;
  std::string serial;              // the medium's or device's serial number; empty when unknown
  std::string deviceTreePath;      // "/devices/...#diskseq=N"
  std::uint64_t diskSequence = 0;  // changes whenever the medium does; 0 when unknown
  bool readOnly = false;
  bool hidden = false;

  bool operator==(const DiskFacts&) const = default;
};

// The system mount points: a disk carrying one of them runs this system.
inline constexpr const char* kSystemMountPoints[] = {"/",    "/boot", "/boot/efi", "/efi",
                                                     "/usr", "/var",  "/home"};
// Where live-boot systems mount the medium they started from.
inline constexpr const char* kLiveMediumMountPoints[] = {
    "/run/live/medium", "/lib/live/mount/medium", "/cdrom", "/run/initramfs/live",
    "/run/archiso/bootmnt"};

// Reads disk facts from a sysfs tree. Never needs privileges and never blocks
// on a device (no device is opened). Cheap to construct; reads on each call,
// so every answer reflects the system at that moment.
class DiskFactsReader {
 public:
  explicit DiskFactsReader(SystemPaths paths = {});

  const SystemPaths& paths() const noexcept { return paths_; }

  // Names under /sys/block, sorted.
  std::vector<std::string> diskNames() const;
  // Facts of a disk or partition by kernel name; absent when no such block
  // device exists (or the name is not a plain kernel name).
  std::optional<DiskFacts> facts(const std::string& name) const;
  // Volumes of a whole disk in partition-number order, with their mounts.
  std::vector<VolumeFacts> volumes(const std::string& diskName) const;
  // Device numbers of the disk, its partitions and everything stacked on them
  // (holders, recursively).
  std::vector<DeviceNumber> devicesOf(const std::string& diskName, bool withHolders) const;
  // Mount points on the disk itself or one of its partitions, in mount-table
  // order.
  std::vector<std::string> mountPoints(const std::string& diskName) const;
  // The whole disk of a block device number: the device itself, or its parent
  // when it is a partition. Absent when sysfs does not know the number.
  std::optional<std::string> wholeDiskName(DeviceNumber device) const;

  // The mount table; anonymous device numbers (btrfs) replaced by the block
  // device their source names.
  std::vector<MountEntry> mounts() const;
  std::vector<DeviceNumber> activeSwapDevices() const;

 private:
  std::optional<DeviceNumber> deviceOfSource(const std::string& source) const;

  SystemPaths paths_;
};

}  // namespace vellum

#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devices/ExternalDisk.h"
#include "platform/DiskFacts.h"
#include "platform/SystemPaths.h"

namespace vellum {

// Lists the disks that look like memory cards or external drives. Advisory:
// whatever is picked must still pass the DeviceGuard. Never reports an error;
// a disk whose facts cannot be read is left out.
class DiskEnumerator {
 public:
  struct WholeDisk {
    std::string identifier;  // such as "sdb"
    std::string devicePath;  // "/dev/sdb"
    std::uint64_t size = 0;
    bool operator==(const WholeDisk&) const = default;
  };

  // Card-like disks in name order. Hidden and zero-size disks (an empty reader
  // slot) are skipped; virtual disks unless includeDiskImages.
  static std::vector<ExternalDisk> externalDisks(bool includeDiskImages,
                                                 const SystemPaths& paths = {});
  // The filter, in order: disk images answer allowDiskImages; virtual, system
  // and live-boot disks are not card-like; otherwise external or removable.
  // The order disks are listed in: names compared with their numbers as
  // numbers, so loop2 comes before loop10.
  static bool listedBefore(std::string_view a, std::string_view b);

  static bool isMemoryCardLike(const DiskFacts& info, bool allowDiskImages);
  // The whole disk holding the file system at path (a mount point or any file
  // on it); absent when it is not on a block device.
  static std::optional<WholeDisk> wholeDisk(const std::filesystem::path& forVolume,
                                            const SystemPaths& paths = {});

  // A cheap summary of the block devices present (name, disk sequence, size and
  // read-only flag of each, reading three small sysfs files per disk): polled
  // every few seconds where no hot-plug events arrive, and the list refreshed
  // whenever it changes.
  static std::string changeStamp(const SystemPaths& paths = {});

  // The names shown for a disk's volumes: label, else the last component of the
  // first mount point; volumes without either are left out.
  static std::vector<std::string> volumeNames(const std::vector<VolumeFacts>& volumes);
};

}  // namespace vellum

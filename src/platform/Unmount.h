#pragma once

#include <string>
#include <vector>

#include "platform/SystemPaths.h"

namespace vellum {

// How a disk's volumes are unmounted: `direct` with umount2 (needs root),
// `udisks` through udisksctl, which lets an ordinary desktop user unmount
// after polkit agrees. DeviceGuard::unmountAll picks by the effective user.
enum class UnmountMethod { direct, udisks };

// Tries to unmount every volume of the disk and returns the mount points still
// in the mount table afterwards (the only thing that counts). Throws
// ProcessError when udisksctl cannot be started.
std::vector<std::string> unmountVolumes(const std::string& diskName, UnmountMethod method,
                                        const SystemPaths& paths);

// A volume of a disk and where it was mounted.
struct MountedVolume {
  std::string device;      // "/dev/sdb1"
  std::string mountPoint;  // its first mount point
};

// The disk's volumes that are mounted now.
std::vector<MountedVolume> mountedVolumes(const std::string& diskName, const SystemPaths& paths);

// Mounts each volume again (at its old mount point with `direct`, where
// udisks chooses with `udisks`). Returns a sentence for each volume that
// could not be mounted; never throws.
std::vector<std::string> remountVolumes(const std::vector<MountedVolume>& volumes,
                                        UnmountMethod method);

}  // namespace vellum

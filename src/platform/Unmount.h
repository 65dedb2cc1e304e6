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

}  // namespace vellum

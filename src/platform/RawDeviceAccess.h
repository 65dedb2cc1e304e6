#pragma once

#include <memory>
#include <string>

#include "bytes/ByteSource.h"
#include "bytes/UniqueFd.h"
#include "platform/AuthOpen.h"

namespace vellum {

// Read-only descriptors for raw devices: a plain open() first (root and
// members of the disk group), the privileged helper when that is refused.
class RawDeviceAccess {
 public:
  // Throws DeviceError::cannotOpen (a plain open failing with anything but
  // EACCES/EPERM, or the helper failing to start) or
  // DeviceError::authorizationDenied (the helper passed nothing). Blocks while
  // the user authorizes.
  static UniqueFd openReadOnly(const std::string& path,
                               const AuthOpenCommand& helper = AuthOpenCommand::systemDefault());
};

// Picks the source for a path the user gives to the read-only features.
class SourceOpener {
 public:
  // A block or character device becomes a BlockDeviceSource (through
  // RawDeviceAccess), a regular file a FileSource; anything else fails with
  // DeviceError::notAFileOrDevice. A path that cannot be examined fails with
  // DeviceError::cannotOpen.
  static std::unique_ptr<ByteSource> open(
      const std::string& path, const AuthOpenCommand& helper = AuthOpenCommand::systemDefault());
};

}  // namespace vellum

#pragma once

#include <memory>

#include "devices/FileDescriptorDevice.h"
#include "platform/AuthOpen.h"
#include "platform/DiskIdentity.h"
#include "platform/SystemPaths.h"

namespace vellum {

// Opens a disk the guard has let through for writing, as a device that
// bypasses the page cache.
class DeviceWriteAccess {
 public:
  struct Options {
    AuthOpenCommand helper = AuthOpenCommand::systemDefault();
    // False: go straight to the helper (tests of the helper path as root).
    bool tryPlainOpen = true;
    SystemPaths paths;
  };

  // Revalidates the identity, unmounts every volume, revalidates again (the
  // unmount must not have changed which disk is behind the name), then opens
  // /dev/{name} read-write and exclusively: O_EXCL keeps anything from
  // mounting or opening it exclusively meanwhile, flock keeps udev away. On
  // EACCES/EPERM the privileged helper opens it. The opened size must equal
  // the identity's size. Throws WriteError (ProcessError when the unmount tool
  // cannot start). Blocks (unmounting, authorization): call from a worker.
  static std::unique_ptr<FileDescriptorDevice> open(const DiskIdentity& identity);
  static std::unique_ptr<FileDescriptorDevice> open(const DiskIdentity& identity,
                                                    const Options& options);
};

}  // namespace vellum

#pragma once

#include <memory>

struct udev;
struct udev_monitor;

namespace vellum {

// Tells when block devices come and go: a udev monitor on the block
// subsystem, fed by udevd when it runs and by the kernel otherwise (then
// before udev has named the disk's volumes).
class DiskMonitor {
 public:
  // None when no monitor can be made here; poll DiskEnumerator::changeStamp.
  static std::unique_ptr<DiskMonitor> open();
  ~DiskMonitor();
  DiskMonitor(const DiskMonitor&) = delete;
  DiskMonitor& operator=(const DiskMonitor&) = delete;

  // Readable when events wait.
  int fd() const;
  // Reads every waiting event; true when one of them added, removed or
  // changed a block device.
  bool drain();

 private:
  DiskMonitor(udev* context, udev_monitor* monitor) : context_(context), monitor_(monitor) {}
  udev* context_;
  udev_monitor* monitor_;
};

}  // namespace vellum

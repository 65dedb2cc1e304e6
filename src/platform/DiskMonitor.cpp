#include "platform/DiskMonitor.h"

#include <libudev.h>
#include <unistd.h>

namespace vellum {

std::unique_ptr<DiskMonitor> DiskMonitor::open() {
  udev* context = udev_new();
  if (!context) return nullptr;
  // Without udevd nobody forwards the kernel's events under the name "udev".
  const char* source = ::access("/run/udev/control", F_OK) == 0 ? "udev" : "kernel";
  udev_monitor* monitor = udev_monitor_new_from_netlink(context, source);
  if (!monitor || udev_monitor_filter_add_match_subsystem_devtype(monitor, "block", nullptr) < 0 ||
      udev_monitor_enable_receiving(monitor) < 0) {
    if (monitor) udev_monitor_unref(monitor);
    udev_unref(context);
    return nullptr;
  }
  return std::unique_ptr<DiskMonitor>(new DiskMonitor(context, monitor));
}

DiskMonitor::~DiskMonitor() {
  udev_monitor_unref(monitor_);
  udev_unref(context_);
}

int DiskMonitor::fd() const {
  return udev_monitor_get_fd(monitor_);
}

bool DiskMonitor::drain() {
  bool changed = false;
  // The monitor's socket is non-blocking: this stops when nothing waits.
  while (udev_device* device = udev_monitor_receive_device(monitor_)) {
    changed = true;
    udev_device_unref(device);
  }
  return changed;
}

}  // namespace vellum

#pragma once

#include <filesystem>

namespace vellum {

// Where the kernel and udev publish disk facts. The defaults are the live
// system; tests point them at a fake tree in a temporary folder.
struct SystemPaths {
  std::filesystem::path sysRoot{"/sys"};
  std::filesystem::path udevDataRoot{"/run/udev/data"};
  std::filesystem::path mountInfo{"/proc/self/mountinfo"};
  std::filesystem::path swaps{"/proc/swaps"};
  // Whether the guard lets loop devices over image files be written: set by
  // VL_ALLOW_DISK_IMAGES=1, read when the paths are made (once, by whoever
  // owns them), so the rules below never look at the environment themselves.
  bool allowDiskImages = environmentAllowsDiskImages();

  static bool environmentAllowsDiskImages();

  // The paths of a fake tree: root/sys, root/run/udev/data,
  // root/proc/self/mountinfo and root/proc/swaps.
  static SystemPaths under(const std::filesystem::path& root);
};

}  // namespace vellum

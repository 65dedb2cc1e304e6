#include "platform/SystemPaths.h"

#include <cstdlib>
#include <string_view>

namespace vellum {

bool SystemPaths::environmentAllowsDiskImages() {
  const char* value = std::getenv("VL_ALLOW_DISK_IMAGES");
  return value != nullptr && std::string_view(value) == "1";
}

SystemPaths SystemPaths::under(const std::filesystem::path& root) {
  SystemPaths paths;
  paths.sysRoot = root / "sys";
  paths.udevDataRoot = root / "run/udev/data";
  paths.mountInfo = root / "proc/self/mountinfo";
  paths.swaps = root / "proc/swaps";
  return paths;
}

}  // namespace vellum

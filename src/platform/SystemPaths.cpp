#include "platform/SystemPaths.h"

namespace vellum {

SystemPaths SystemPaths::under(const std::filesystem::path& root) {
  return {root / "sys", root / "run/udev/data", root / "proc/self/mountinfo", root / "proc/swaps"};
}

}  // namespace vellum

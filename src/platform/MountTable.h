#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/DeviceNumber.h"

namespace vellum {

// One line of /proc/self/mountinfo, with its octal escapes (\040 for a space,
// \011, \012, \134) undone.
struct MountEntry {
  int mountId = 0;
  int parentId = 0;
  DeviceNumber device;  // st_dev of the mounted file system
  std::string root;     // the folder of the file system that is mounted
  std::string mountPoint;
  std::string fileSystemType;
  std::string source;  // such as "/dev/sdb1"; "none" or a name for virtual file systems

  bool operator==(const MountEntry&) const = default;
};

// Pure parsers for the kernel's tables; lines that do not parse are skipped.
std::vector<MountEntry> parseMountInfo(std::string_view text);
// The file names of /proc/swaps (partitions or swap files), unescaped.
std::vector<std::string> parseSwaps(std::string_view text);
// Undoes the kernel's octal escapes ("\040" -> " "); other text is kept.
std::string unescapeOctal(std::string_view text);

}  // namespace vellum

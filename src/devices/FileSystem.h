#pragma once

#include <string_view>

namespace vellum {

// The file systems a card can be formatted with.
enum class FileSystem { exfat, fat32 };

// "exFAT" or "FAT32", as shown to the user.
constexpr std::string_view displayName(FileSystem fileSystem) {
  return fileSystem == FileSystem::exfat ? "exFAT" : "FAT32";
}

}  // namespace vellum

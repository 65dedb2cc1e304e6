#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bytes/ByteSource.h"
#include "devices/FileSystem.h"
#include "platform/DiskIdentity.h"
#include "platform/SystemPaths.h"

namespace vellum {

// Where a freshly formatted card puts things, following the SD Association's
// layout for its capacity: one MBR partition starting at the alignment
// boundary, and the file system's data area on a boundary too.
struct FormatLayout {
  FileSystem fileSystem = FileSystem::fat32;
  std::uint64_t clusterBytes = 0;    // 0: let mkfs.fat choose (small FAT32 volumes)
  std::uint64_t alignmentBytes = 0;  // partition start, and start of the data area
  std::uint8_t partitionType = 0;    // MBR partition type

  bool operator==(const FormatLayout&) const = default;
};

// The parts of a FAT boot sector that place the data area.
struct FatGeometry {
  std::uint32_t bytesPerSector = 0;
  std::uint32_t reservedSectors = 0;
  std::uint32_t fatCount = 0;
  std::uint32_t sectorsPerFat = 0;

  std::uint64_t dataAreaOffset() const {
    return (std::uint64_t{reservedSectors} + std::uint64_t{fatCount} * sectorsPerFat) *
           bytesPerSector;
  }
  bool operator==(const FatGeometry&) const = default;
};

// Gives a disk a fresh FAT32 or exFAT file system on a single MBR partition,
// with sfdisk, partx and mkfs.fat / mkfs.exfat (found once, run with argv
// lists, never through a shell).
class DiskFormatter {
 public:
  static constexpr std::uint64_t sizeThreshold = 32'000'000'000;  // above it: exFAT
  static constexpr std::string_view allowedNameCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
  static constexpr std::size_t maximumNameLength = 11;  // the FAT volume-label limit
  static constexpr std::string_view defaultName = "UNTITLED";

  // exFAT above 32,000,000,000 bytes, FAT32 up to and including it.
  static FileSystem recommended(std::uint64_t forSize);
  // Upper-cased, only allowed characters kept (others dropped, not replaced),
  // at most 11 of them; "UNTITLED" when nothing is left.
  static std::string sanitizedName(std::string_view name);

  // Revalidates the identity, unmounts the disk's volumes, writes a new
  // partition table with one partition spanning the disk and creates the file
  // system with the sanitized name. Throws WriteError (the guard's refusals;
  // "Formatting failed: " with the failing tool's error text), or
  // ProcessError when a tool is missing or cannot start. Blocks for the whole
  // format: call it from a worker. A failed format is not rolled back.
  // usableBytes, when given, ends the partition there: a card proven fake
  // gets a file system only over the capacity that really stores data.
  static void format(const DiskIdentity& identity, FileSystem as, std::string_view name,
                     const SystemPaths& paths = {},
                     std::optional<std::uint64_t> usableBytes = std::nullopt);

  // --- Pure pieces of the format, exposed for tests ---

  // The layout for a disk of diskBytes formatted with fileSystem (the user's
  // choice is kept; the capacity picks cluster size and alignment).
  static FormatLayout layout(FileSystem fileSystem, std::uint64_t diskBytes);
  // The sfdisk script: a DOS label and one partition from the alignment
  // boundary to the end of the disk.
  // With endBytes, the partition ends there (rounded down to the alignment).
  static std::string partitionScript(const FormatLayout& layout, std::int64_t sectorSize,
                                     std::optional<std::uint64_t> endBytes = std::nullopt);
  // mkfs arguments (program name first) for the new partition. reservedSectors
  // only matters for FAT32 (0: mkfs.fat's default).
  static std::vector<std::string> makeFileSystemArguments(const FormatLayout& layout,
                                                          const std::string& label,
                                                          const std::string& partitionPath,
                                                          std::int64_t sectorSize,
                                                          std::uint32_t reservedSectors);
  // Reads a FAT32 boot sector; absent when it is not one.
  static std::optional<FatGeometry> parseFatBootSector(std::span<const std::uint8_t> sector);
  // The reserved-sector count that puts the data area of a FAT with this
  // geometry on the alignment boundary (at least 32, as FAT32 wants), or on
  // the largest smaller power-of-two boundary when the count would not fit
  // the boot sector's 16-bit field.
  static std::uint32_t alignedReservedSectors(const FatGeometry& geometry,
                                              std::uint64_t alignmentBytes);
};

}  // namespace vellum

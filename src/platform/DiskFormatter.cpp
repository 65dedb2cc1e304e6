#include "platform/DiskFormatter.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

#include "bytes/Checked.h"
#include "bytes/PositionedIo.h"
#include "bytes/UniqueFd.h"
#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"
#include "platform/DiskFacts.h"
#include "platform/Process.h"

namespace vellum {
namespace {

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;
constexpr std::uint64_t kGiB = 1024 * kMiB;

// FAT32 needs at least 65,525 clusters; 32 KiB clusters reach that from about
// 2.1 GiB. Below, mkfs.fat picks a smaller cluster itself.
constexpr std::uint64_t kFat32Cluster = 32 * kKiB;
constexpr std::uint64_t kFat32MinimumClusters = 65'536;

// mkfs.fat's guess of the FAT size may change with the reserved count it is
// given; a few rounds settle it.
constexpr int kFatAlignmentRounds = 4;

std::string trimmed(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n\v\f";
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(kSpace) - first + 1));
}

std::uint32_t littleEndian(std::span<const std::uint8_t> bytes, std::size_t at, std::size_t width) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < width; ++i)
    value |= std::uint32_t{bytes[at + i]} << (8 * i);
  return value;
}

// The programs, looked up once.
struct Tools {
  std::optional<std::string> sfdisk = findProgram("sfdisk");
  std::optional<std::string> partx = findProgram("partx");
  std::optional<std::string> mkfsFat = findProgram("mkfs.fat");
  std::optional<std::string> mkfsExfat = findProgram("mkfs.exfat");

  static const Tools& get() {
    static const Tools tools;
    return tools;
  }
};

// Runs one step; a step that exits non-zero ends the format with its own
// error text (the tools print their banners on standard output).
void runStep(std::vector<std::string> argv, const std::optional<std::string>& program,
             const std::string& input = {}) {
  if (!program) throw ProcessError::cannotStart(argv.front(), ENOENT);
  argv.front() = *program;
  const ProcessResult result = runProcess(argv, input, {{"LC_ALL", "C"}}, true);
  if (!result.status.succeeded()) {
    throw WriteError::refused("Formatting failed: " + trimmed(result.standardError));
  }
}

// The kernel learns of the new partition from partx; its node appears a moment
// later (devtmpfs, then udev).
std::string waitForFirstPartition(const std::string& diskName, const SystemPaths& paths) {
  const DiskFactsReader reader(paths);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    for (const VolumeFacts& volume : reader.volumes(diskName)) {
      if (volume.partitionNumber != 1) continue;
      const std::string path = "/dev/" + volume.name;
      struct stat status {};
      if (::stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode) &&
          DeviceNumber::fromDev(status.st_rdev) == volume.device) {
        return path;
      }
    }
    if (std::chrono::steady_clock::now() > deadline) {
      throw WriteError::refused("Formatting failed: the new partition of " + diskName +
                                " did not appear.");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

std::optional<FatGeometry> readFatGeometry(const std::string& partitionPath) {
  UniqueFd fd(::open(partitionPath.c_str(), O_RDONLY | O_CLOEXEC));
  std::array<std::uint8_t, 512> sector{};
  if (!fd || preadFully(fd.get(), 0, sector).done != sector.size()) return std::nullopt;
  return DiskFormatter::parseFatBootSector(sector);
}

}  // namespace

FileSystem DiskFormatter::recommended(std::uint64_t forSize) {
  return forSize > sizeThreshold ? FileSystem::exfat : FileSystem::fat32;
}

namespace {

// The next code point of UTF-8 text (advancing at), or none for a malformed
// byte, which is skipped.
std::optional<char32_t> nextCodePoint(std::string_view text, std::size_t& at) {
  const auto lead = static_cast<unsigned char>(text[at++]);
  if (lead < 0x80) return lead;
  const int extra = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : -1;
  if (extra < 0 || at + static_cast<std::size_t>(extra) > text.size()) return std::nullopt;
  char32_t value = lead & (0x3F >> extra);
  for (int i = 0; i < extra; ++i) {
    const auto next = static_cast<unsigned char>(text[at]);
    if ((next & 0xC0) != 0x80) return std::nullopt;
    value = (value << 6) | (next & 0x3F);
    ++at;
  }
  return value;
}

// A character's upper case where it is written with ASCII letters; others
// become nothing (they are not allowed in a label anyway). Full case mapping
// includes the one-to-many cases: "straße" is STRASSE, the "ﬁ" ligature FI.
std::string_view upperCaseInAscii(char32_t c) {
  static constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  if (c >= 'a' && c <= 'z') return kLetters.substr(c - 'a', 1);
  if (c < 0x80) return {};
  switch (c) {
    case 0x00DF:  // ß
      return "SS";
    case 0x0131:  // dotless ı
      return "I";
    case 0x017F:  // long ſ
      return "S";
    case 0xFB00:
      return "FF";
    case 0xFB01:
      return "FI";
    case 0xFB02:
      return "FL";
    case 0xFB03:
      return "FFI";
    case 0xFB04:
      return "FFL";
    case 0xFB05:
    case 0xFB06:
      return "ST";
    default:
      return {};
  }
}

}  // namespace

std::string DiskFormatter::sanitizedName(std::string_view name) {
  // Upper case first (as a full case mapping does), then keep only what a
  // FAT or exFAT label in every camera accepts.
  std::string upper;
  for (std::size_t at = 0; at < name.size();) {
    const std::optional<char32_t> c = nextCodePoint(name, at);
    if (!c) continue;
    if (*c < 0x80 && !(*c >= 'a' && *c <= 'z')) {
      upper += static_cast<char>(*c);
    } else {
      upper += upperCaseInAscii(*c);
    }
  }
  std::string result;
  for (const char c : upper) {
    if (result.size() == maximumNameLength) break;
    if (allowedNameCharacters.find(c) != std::string_view::npos) result += c;
  }
  return result.empty() ? std::string(defaultName) : result;
}

FormatLayout DiskFormatter::layout(FileSystem fileSystem, std::uint64_t diskBytes) {
  FormatLayout result;
  result.fileSystem = fileSystem;
  std::uint64_t exfatCluster = 0;
  if (diskBytes <= 32 * kGiB) {
    result.alignmentBytes = 4 * kMiB;
    exfatCluster = 32 * kKiB;
  } else if (diskBytes <= 128 * kGiB) {
    result.alignmentBytes = 16 * kMiB;
    exfatCluster = 128 * kKiB;
  } else if (diskBytes <= 512 * kGiB) {
    result.alignmentBytes = 32 * kMiB;
    exfatCluster = 256 * kKiB;
  } else {
    result.alignmentBytes = 64 * kMiB;
    exfatCluster = 512 * kKiB;
  }
  if (fileSystem == FileSystem::exfat) {
    result.clusterBytes = exfatCluster;
    result.partitionType = 0x07;
  } else {
    const std::uint64_t partitionBytes =
        diskBytes > result.alignmentBytes ? diskBytes - result.alignmentBytes : 0;
    result.clusterBytes =
        partitionBytes / kFat32Cluster >= kFat32MinimumClusters ? kFat32Cluster : 0;
    result.partitionType = 0x0C;
  }
  return result;
}

std::string DiskFormatter::partitionScript(const FormatLayout& layout, std::int64_t sectorSize,
                                           std::optional<std::uint64_t> endBytes) {
  VL_PRECONDITION(sectorSize >= 1);
  static constexpr char kHex[] = "0123456789abcdef";
  const auto sector = static_cast<std::uint64_t>(sectorSize);
  const std::uint64_t startSector = layout.alignmentBytes / sector;
  std::string type{kHex[layout.partitionType >> 4], kHex[layout.partitionType & 0x0F]};
  std::string size;
  if (endBytes) {
    const std::uint64_t end = *endBytes / layout.alignmentBytes * layout.alignmentBytes;
    const std::uint64_t bytes = end > layout.alignmentBytes ? end - layout.alignmentBytes : 0;
    if (bytes == 0)
      throw WriteError::refused("The usable part of the card is too small to format.");
    size = ", size=" + std::to_string(bytes / sector);
  }
  return "label: dos\nstart=" + std::to_string(startSector) + size + ", type=" + type + "\n";
}

std::vector<std::string> DiskFormatter::makeFileSystemArguments(const FormatLayout& layout,
                                                                const std::string& label,
                                                                const std::string& partitionPath,
                                                                std::int64_t sectorSize,
                                                                std::uint32_t reservedSectors) {
  VL_PRECONDITION(sectorSize >= 1);
  if (layout.fileSystem == FileSystem::exfat) {
    return {"mkfs.exfat",
            "-L",
            label,
            "-c",
            std::to_string(layout.clusterBytes),
            "-b",
            std::to_string(layout.alignmentBytes),
            partitionPath};
  }
  std::vector<std::string> argv{"mkfs.fat", "-F", "32"};
  const auto sector = static_cast<std::uint64_t>(sectorSize);
  if (layout.clusterBytes != 0 && layout.clusterBytes >= sector) {
    // -s counts logical sectors, so a 4096-byte-sector disk gets -s 8.
    argv.insert(argv.end(), {"-s", std::to_string(layout.clusterBytes / sector)});
  }
  if (reservedSectors != 0) argv.insert(argv.end(), {"-R", std::to_string(reservedSectors)});
  argv.insert(argv.end(), {"-n", label, partitionPath});
  return argv;
}

std::optional<FatGeometry> DiskFormatter::parseFatBootSector(std::span<const std::uint8_t> sector) {
  if (sector.size() < 512 || sector[510] != 0x55 || sector[511] != 0xAA) return std::nullopt;
  FatGeometry geometry;
  geometry.bytesPerSector = littleEndian(sector, 11, 2);
  geometry.reservedSectors = littleEndian(sector, 14, 2);
  geometry.fatCount = sector[16];
  const std::uint32_t rootEntries = littleEndian(sector, 17, 2);
  const std::uint32_t sectorsPerFat16 = littleEndian(sector, 22, 2);
  geometry.sectorsPerFat = littleEndian(sector, 36, 4);
  // FAT32: no fixed root directory and the 16-bit FAT size left at zero.
  const bool powerOfTwo = geometry.bytesPerSector != 0 &&
                          (geometry.bytesPerSector & (geometry.bytesPerSector - 1)) == 0;
  if (!powerOfTwo || geometry.bytesPerSector < 512 || rootEntries != 0 || sectorsPerFat16 != 0 ||
      geometry.fatCount == 0 || geometry.sectorsPerFat == 0 || geometry.reservedSectors == 0) {
    return std::nullopt;
  }
  return geometry;
}

std::uint32_t DiskFormatter::alignedReservedSectors(const FatGeometry& geometry,
                                                    std::uint64_t alignmentBytes) {
  VL_PRECONDITION(geometry.bytesPerSector > 0 && alignmentBytes % geometry.bytesPerSector == 0);
  const std::uint64_t fats = std::uint64_t{geometry.fatCount} * geometry.sectorsPerFat;
  constexpr std::uint64_t kMinimumReserved = 32;
  constexpr std::uint64_t kMaximumReserved = 0xFFFF;  // the boot sector's 16-bit field
  // The smallest aligned data start that leaves room for 32 reserved sectors.
  // A large boundary (64 MiB is 131,072 sectors) can need more reserved
  // sectors than the field holds; the data area then goes to the largest
  // smaller power-of-two boundary that fits (at most 16 MiB on 512-byte
  // sectors, which always fits).
  for (std::uint64_t alignment = alignmentBytes / geometry.bytesPerSector; alignment >= 1;
       alignment /= 2) {
    const std::uint64_t dataStart =
        checkedAdd(fats + kMinimumReserved, alignment - 1) / alignment * alignment;
    const std::uint64_t reserved = dataStart - fats;
    if (reserved <= kMaximumReserved) return static_cast<std::uint32_t>(reserved);
  }
  VL_PRECONDITION(false);
}

void DiskFormatter::format(const DiskIdentity& identity, FileSystem as, std::string_view name,
                           const SystemPaths& paths, std::optional<std::uint64_t> usableBytes) {
  DeviceGuard::revalidate(identity, paths);
  // Nothing on Linux unmounts for us; the guard judges by the mount table.
  DeviceGuard::unmountAll(identity, paths);
  // Something holding the disk exclusively (another program testing it) would
  // make mkfs fail after the partition table is already gone: refuse first.
  if (const UniqueFd claim(::open(identity.devicePath().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
      !claim && errno == EBUSY) {
    throw DeviceGuard::inUse(identity.deviceIdentifier);
  }

  const Tools& tools = Tools::get();
  const std::string label = sanitizedName(name);
  const std::string disk = identity.devicePath();
  const std::uint64_t capacity = std::min(identity.sizeBytes, usableBytes.value_or(UINT64_MAX));
  const FormatLayout plan = layout(as, capacity);

  // --lock keeps udev and others off the disk while the table changes; the
  // wipes clear old file-system signatures so nothing recognises stale data.
  // The kernel hears of the partition from partx below.
  runStep({"sfdisk", "--lock", "--wipe", "always", "--wipe-partitions", "always",
           "--no-tell-kernel", disk},
          tools.sfdisk,
          partitionScript(plan, identity.blockSize,
                          usableBytes ? std::optional(capacity) : std::nullopt));
  runStep({"partx", "--update", disk}, tools.partx);
  const std::string partition = waitForFirstPartition(identity.deviceIdentifier, paths);

  const auto run = [&](std::uint32_t reserved) {
    std::vector<std::string> argv =
        makeFileSystemArguments(plan, label, partition, identity.blockSize, reserved);
    runStep(argv, as == FileSystem::exfat ? tools.mkfsExfat : tools.mkfsFat);
  };
  if (as == FileSystem::exfat) {
    // mkfs.exfat aligns the FAT and the cluster heap to the boundary itself.
    run(0);
    return;
  }
  // mkfs.fat only aligns the data area to a cluster; put it on the boundary by
  // choosing the reserved area's size for the FAT size mkfs.fat settles on.
  std::uint32_t reserved = 0;
  for (int round = 0; round < kFatAlignmentRounds; ++round) {
    run(reserved);
    const std::optional<FatGeometry> geometry = readFatGeometry(partition);
    if (!geometry || geometry->dataAreaOffset() % plan.alignmentBytes == 0) return;
    const std::uint32_t next = alignedReservedSectors(*geometry, plan.alignmentBytes);
    if (next == geometry->reservedSectors) return;  // as aligned as the field allows
    reserved = next;
  }
}

}  // namespace vellum

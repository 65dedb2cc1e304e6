#include "platform/DiskFacts.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "platform/UdevProperties.h"

namespace vellum {
namespace fs = std::filesystem;
namespace {

using Properties = std::map<std::string, std::string, std::less<>>;

constexpr unsigned kLoopMajor = 7;

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(first, last - first + 1));
}

std::optional<std::string> readText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// A sysfs attribute without its trailing newline; empty when missing.
std::string attribute(const fs::path& path) {
  return trimmed(readText(path).value_or(""));
}

std::uint64_t numberAttribute(const fs::path& path) {
  const std::string text = attribute(path);
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc() && end == text.data() + text.size() ? value : 0;
}

bool pathExists(const fs::path& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

fs::path canonicalOrEmpty(const fs::path& path) {
  std::error_code ec;
  fs::path result = fs::canonical(path, ec);
  return ec ? fs::path() : result;
}

// A plain kernel name: no path separators and nothing that walks upward.
bool isKernelName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

bool isUnder(const fs::path& path, const fs::path& folder) {
  const std::string p = path.string();
  const std::string f = folder.string();
  return p.size() > f.size() && p.compare(0, f.size(), f) == 0 && p[f.size()] == '/';
}

std::vector<std::string> entries(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The transport of a disk, from the subsystems of its ancestors in sysfs.
struct AncestorFacts {
  bool external = false;
  std::set<std::string> subsystems;
  bool ata = false;
};

AncestorFacts ancestorFacts(const fs::path& diskDir, const fs::path& devicesRoot) {
  AncestorFacts facts;
  for (fs::path dir = diskDir.parent_path(); isUnder(dir, devicesRoot); dir = dir.parent_path()) {
    const fs::path subsystemLink = dir / "subsystem";
    std::error_code ec;
    const fs::path target = fs::read_symlink(subsystemLink, ec);
    if (!ec) {
      const std::string subsystem = target.filename().string();
      facts.subsystems.insert(subsystem);
      if (subsystem == "usb" || subsystem == "ieee1394" || subsystem == "firewire") {
        facts.external = true;
      }
    }
    // PCI devices behind Thunderbolt or an external slot say "removable" here
    // (the block device's own attribute is 0 or 1, so it is not asked).
    if (attribute(dir / "removable") == "removable") facts.external = true;
    const std::string name = dir.filename().string();
    if (name.size() > 3 && name.starts_with("ata") &&
        std::all_of(name.begin() + 3, name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      facts.ata = true;
    }
  }
  return facts;
}

std::string busProtocolOf(const AncestorFacts& facts) {
  const auto has = [&](const char* s) { return facts.subsystems.count(s) != 0; };
  if (has("usb")) return "usb";
  if (has("ieee1394") || has("firewire")) return "ieee1394";
  if (has("mmc")) return "mmc";
  if (has("nvme")) return "nvme";
  if (facts.ata) return "sata";
  if (has("virtio")) return "virtio";
  if (has("scsi")) return "scsi";
  return {};
}

bool isSdSlot(const std::string& name, const fs::path& diskDir) {
  if (!name.starts_with("mmcblk")) return false;
  const std::string type = attribute(diskDir / "device/type");
  return type == "SD" || type == "SDcombo";
}

bool udevSaysFlashCard(const Properties& udev) {
  for (const auto& [key, value] : udev) {
    if (key.starts_with("ID_DRIVE_FLASH_") && value == "1") return true;
  }
  return false;
}

std::string joinTrimmed(const std::string& a, const std::string& b) {
  return trimmed(trimmed(a) + " " + trimmed(b));
}

std::string mediaNameOf(const std::string& diskName, const fs::path& diskDir,
                        const std::string& busProtocol) {
  if (busProtocol == "Disk Image") {
    std::string backing = attribute(diskDir / "loop/backing_file");
    return "Disk Image " + fs::path(backing).filename().string();
  }
  if (diskName.starts_with("mmcblk")) {
    const std::string type = attribute(diskDir / "device/type");
    const std::string cardName = attribute(diskDir / "device/name");
    if (type == "SD" || type == "SDcombo") return "SD card " + cardName;
    if (type == "MMC") return "MMC " + cardName;
    return cardName;
  }
  if (busProtocol == "nvme") return attribute(diskDir / "device/model");
  return joinTrimmed(attribute(diskDir / "device/vendor"), attribute(diskDir / "device/model"));
}

template <class T>
bool contains(const std::vector<T>& items, const T& item) {
  return std::find(items.begin(), items.end(), item) != items.end();
}

}  // namespace

DiskFactsReader::DiskFactsReader(SystemPaths paths) : paths_(std::move(paths)) {}

namespace {

struct Located {
  fs::path dir;      // the block device's own folder
  fs::path diskDir;  // its whole disk's folder (the same for a whole disk)
  bool partition = false;
};

std::optional<Located> locate(const SystemPaths& paths, const std::string& name) {
  if (!isKernelName(name)) return std::nullopt;
  fs::path dir = canonicalOrEmpty(paths.sysRoot / "class/block" / name);
  if (dir.empty()) dir = canonicalOrEmpty(paths.sysRoot / "block" / name);
  if (dir.empty() || !pathExists(dir / "dev")) return std::nullopt;
  Located located{dir, dir, pathExists(dir / "partition")};
  if (located.partition) located.diskDir = dir.parent_path();
  return located;
}

std::optional<DeviceNumber> deviceNumberOf(const fs::path& dir) {
  return DeviceNumber::parse(attribute(dir / "dev"));
}

Properties udevOf(const SystemPaths& paths, DeviceNumber device) {
  const std::optional<std::string> text = readText(paths.udevDataRoot / ("b" + device.toString()));
  return text ? parseUdevProperties(*text) : Properties{};
}

}  // namespace

std::vector<std::string> DiskFactsReader::diskNames() const {
  return entries(paths_.sysRoot / "block");
}

std::optional<DiskFacts> DiskFactsReader::facts(const std::string& name) const {
  const std::optional<Located> located = locate(paths_, name);
  if (!located) return std::nullopt;
  const std::optional<DeviceNumber> device = deviceNumberOf(located->dir);
  if (!device) return std::nullopt;
  const fs::path devicesRoot = canonicalOrEmpty(paths_.sysRoot / "devices");
  const fs::path sysRoot = canonicalOrEmpty(paths_.sysRoot);
  const std::string diskName = located->diskDir.filename().string();
  const std::optional<DeviceNumber> diskDevice = deviceNumberOf(located->diskDir);

  DiskFacts facts;
  facts.name = name;
  facts.device = *device;
  facts.wholeDisk = !located->partition && pathExists(paths_.sysRoot / "block" / name);

  const AncestorFacts ancestors = ancestorFacts(located->diskDir, devicesRoot);
  const bool isImage = pathExists(located->diskDir / "loop/backing_file");
  // Loop devices keep their node when detached; they are still no internal
  // disk, but without a backing file no longer a disk image either.
  const bool isLoop = diskDevice && diskDevice->major == kLoopMajor;
  facts.busProtocol = isImage ? "Disk Image" : busProtocolOf(ancestors);
  facts.virtualOrPhysical =
      isUnder(located->diskDir, devicesRoot / "virtual") ? "Virtual" : "Physical";

  const bool removable = attribute(located->diskDir / "removable") == "1";
  const Properties udev = diskDevice ? udevOf(paths_, *diskDevice) : Properties{};
  facts.removableMedia =
      removable || isSdSlot(diskName, located->diskDir) || udevSaysFlashCard(udev);
  // A disk image is backed by a file, not built into the machine: it is kept
  // out as a virtual disk (unless images are allowed), not as an internal one.
  facts.internal = !ancestors.external && !isLoop && !isImage;
  facts.removableMediaOrExternalDevice = facts.removableMedia || ancestors.external;
  facts.ejectable = removable;

  facts.sizeBytes = numberAttribute(located->dir / "size") * 512;
  const std::uint64_t logical = numberAttribute(located->diskDir / "queue/logical_block_size");
  facts.deviceBlockSize = logical != 0 ? static_cast<std::int64_t>(logical) : 512;
  facts.mediaName = mediaNameOf(diskName, located->diskDir, facts.busProtocol);
  // An SD card's own serial (its CID) where the slot exposes it, else what
  // udev knows of the device.
  facts.serial = attribute(located->diskDir / "device/serial");
  if (const auto it = udev.find("ID_SERIAL_SHORT"); facts.serial.empty() && it != udev.end()) {
    facts.serial = it->second;
  }

  facts.deviceTreePath = "/" + located->dir.lexically_relative(sysRoot).string();
  const std::string diskseq = attribute(located->diskDir / "diskseq");
  if (!diskseq.empty()) {
    facts.deviceTreePath += "#diskseq=" + diskseq;
    std::from_chars(diskseq.data(), diskseq.data() + diskseq.size(), facts.diskSequence);
  }
  facts.readOnly = attribute(located->dir / "ro") == "1";
  facts.hidden = attribute(located->diskDir / "hidden") == "1";

  const std::vector<DeviceNumber> stacked = devicesOf(diskName, true);
  for (const MountEntry& mount : mounts()) {
    if (!contains(stacked, mount.device)) continue;
    for (const char* point : kSystemMountPoints) {
      if (mount.mountPoint == point) facts.osInternalMedia = true;
    }
    for (const char* point : kLiveMediumMountPoints) {
      if (mount.mountPoint == point) facts.systemImage = true;
    }
  }
  for (const DeviceNumber& swap : activeSwapDevices()) {
    if (contains(stacked, swap)) facts.osInternalMedia = true;
  }
  return facts;
}

std::vector<DeviceNumber> DiskFactsReader::devicesOf(const std::string& diskName,
                                                     bool withHolders) const {
  std::vector<DeviceNumber> devices;
  const std::optional<Located> disk = locate(paths_, diskName);
  if (!disk) return devices;
  std::vector<fs::path> pending{disk->diskDir};
  for (const std::string& entry : entries(disk->diskDir)) {
    if (pathExists(disk->diskDir / entry / "partition")) pending.push_back(disk->diskDir / entry);
  }
  std::set<fs::path> seen;
  while (!pending.empty()) {
    const fs::path dir = pending.back();
    pending.pop_back();
    if (!seen.insert(dir).second) continue;
    if (const std::optional<DeviceNumber> number = deviceNumberOf(dir)) devices.push_back(*number);
    if (!withHolders) continue;
    for (const std::string& holder : entries(dir / "holders")) {
      if (const std::optional<Located> stacked = locate(paths_, holder)) {
        pending.push_back(stacked->dir);
      }
    }
  }
  std::sort(devices.begin(), devices.end());
  devices.erase(std::unique(devices.begin(), devices.end()), devices.end());
  return devices;
}

std::optional<DeviceNumber> DiskFactsReader::deviceOfSource(const std::string& source) const {
  if (!source.starts_with("/dev/")) return std::nullopt;
  if (const std::optional<Located> located = locate(paths_, source.substr(5))) {
    return deviceNumberOf(located->dir);
  }
  // Names such as /dev/mapper/home are links to the node.
  struct stat st {};
  if (::stat(source.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) {
    return DeviceNumber::fromDev(st.st_rdev);
  }
  return std::nullopt;
}

std::vector<MountEntry> DiskFactsReader::mounts() const {
  std::vector<MountEntry> table = parseMountInfo(readText(paths_.mountInfo).value_or(""));
  // File systems such as btrfs report an anonymous device number (major 0);
  // their source names the block device instead.
  for (MountEntry& mount : table) {
    if (mount.device.major != 0) continue;
    if (const std::optional<DeviceNumber> number = deviceOfSource(mount.source)) {
      mount.device = *number;
    }
  }
  return table;
}

std::vector<DeviceNumber> DiskFactsReader::activeSwapDevices() const {
  std::vector<DeviceNumber> devices;
  for (const std::string& name : parseSwaps(readText(paths_.swaps).value_or(""))) {
    if (name.starts_with("/dev/")) {
      if (const std::optional<Located> located = locate(paths_, name.substr(5))) {
        if (const std::optional<DeviceNumber> number = deviceNumberOf(located->dir)) {
          devices.push_back(*number);
          continue;
        }
      }
    }
    // A swap file lives on the file system of its device; a swap partition
    // under another name (/dev/mapper/...) is its own device.
    struct stat st {};
    if (::stat(name.c_str(), &st) == 0) {
      devices.push_back(DeviceNumber::fromDev(S_ISBLK(st.st_mode) ? st.st_rdev : st.st_dev));
    }
  }
  return devices;
}

std::vector<std::string> DiskFactsReader::mountPoints(const std::string& diskName) const {
  std::vector<std::string> points;
  const std::vector<DeviceNumber> devices = devicesOf(diskName, false);
  if (devices.empty()) return points;
  for (const MountEntry& mount : mounts()) {
    if (contains(devices, mount.device)) points.push_back(mount.mountPoint);
  }
  return points;
}

std::vector<VolumeFacts> DiskFactsReader::volumes(const std::string& diskName) const {
  std::vector<VolumeFacts> volumes;
  const std::optional<Located> disk = locate(paths_, diskName);
  if (!disk || disk->partition) return volumes;
  const std::vector<MountEntry> table = mounts();
  const auto describe = [&](const fs::path& dir, int number) -> std::optional<VolumeFacts> {
    const std::optional<DeviceNumber> device = deviceNumberOf(dir);
    if (!device) return std::nullopt;
    VolumeFacts volume;
    volume.name = dir.filename().string();
    volume.device = *device;
    volume.partitionNumber = number;
    const Properties udev = udevOf(paths_, *device);
    if (const auto it = udev.find("ID_FS_LABEL_ENC"); it != udev.end()) {
      volume.label = unescapeUdev(it->second);
    } else if (const auto plain = udev.find("ID_FS_LABEL"); plain != udev.end()) {
      volume.label = plain->second;
    }
    for (const MountEntry& mount : table) {
      if (mount.device == *device) volume.mountPoints.push_back(mount.mountPoint);
    }
    return volume;
  };
  for (const std::string& entry : entries(disk->diskDir)) {
    const fs::path dir = disk->diskDir / entry;
    if (!pathExists(dir / "partition")) continue;
    const auto number = static_cast<int>(numberAttribute(dir / "partition"));
    if (std::optional<VolumeFacts> volume = describe(dir, number)) {
      volumes.push_back(std::move(*volume));
    }
  }
  std::stable_sort(volumes.begin(), volumes.end(), [](const VolumeFacts& a, const VolumeFacts& b) {
    return a.partitionNumber < b.partitionNumber;
  });
  if (!volumes.empty()) return volumes;

  // No partition table: the disk is a volume itself when it carries a file
  // system (known to udev, or mounted).
  if (std::optional<VolumeFacts> whole = describe(disk->diskDir, 0)) {
    const std::optional<DeviceNumber> device = deviceNumberOf(disk->diskDir);
    const Properties udev = device ? udevOf(paths_, *device) : Properties{};
    const auto fsType = udev.find("ID_FS_TYPE");
    if ((fsType != udev.end() && !fsType->second.empty()) || !whole->mountPoints.empty()) {
      volumes.push_back(std::move(*whole));
    }
  }
  return volumes;
}

std::optional<std::string> DiskFactsReader::wholeDiskName(DeviceNumber device) const {
  fs::path dir = canonicalOrEmpty(paths_.sysRoot / "dev/block" / device.toString());
  if (dir.empty() && device.major == 0) {
    // An anonymous st_dev (btrfs): the mount table names the device behind it.
    for (const MountEntry& mount : parseMountInfo(readText(paths_.mountInfo).value_or(""))) {
      if (mount.device != device) continue;
      if (const std::optional<DeviceNumber> number = deviceOfSource(mount.source)) {
        dir = canonicalOrEmpty(paths_.sysRoot / "dev/block" / number->toString());
        break;
      }
    }
  }
  if (dir.empty()) return std::nullopt;
  const fs::path diskDir = pathExists(dir / "partition") ? dir.parent_path() : dir;
  std::string name = diskDir.filename().string();
  if (!pathExists(paths_.sysRoot / "block" / name)) return std::nullopt;
  return name;
}

}  // namespace vellum

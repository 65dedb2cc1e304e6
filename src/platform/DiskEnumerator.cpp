#include "platform/DiskEnumerator.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>

namespace vellum {

std::vector<ExternalDisk> DiskEnumerator::externalDisks(bool includeDiskImages,
                                                        const SystemPaths& paths) {
  std::vector<ExternalDisk> disks;
  const DiskFactsReader reader(paths);
  for (const std::string& name : reader.diskNames()) {
    const std::optional<DiskFacts> facts = reader.facts(name);
    if (!facts || facts->hidden || facts->sizeBytes == 0) continue;
    // "Physical only" unless images are wanted: virtual disks never listed.
    if (!includeDiskImages && facts->virtualOrPhysical == "Virtual") continue;
    if (!isMemoryCardLike(*facts, includeDiskImages)) continue;
    disks.push_back(ExternalDisk{name, facts->mediaName, facts->sizeBytes,
                                 volumeNames(reader.volumes(name)), facts->serial,
                                 facts->diskSequence});
  }
  std::sort(disks.begin(), disks.end(), [](const ExternalDisk& a, const ExternalDisk& b) {
    return listedBefore(a.deviceIdentifier, b.deviceIdentifier);
  });
  return disks;
}

bool DiskEnumerator::listedBefore(std::string_view a, std::string_view b) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < a.size() && j < b.size()) {
    if (isDigit(a[i]) && isDigit(b[j])) {
      // Whole numbers compare by value: fewer significant digits is smaller.
      std::size_t ai = i, bj = j;
      while (ai < a.size() && a[ai] == '0')
        ++ai;
      while (bj < b.size() && b[bj] == '0')
        ++bj;
      std::size_t aEnd = ai, bEnd = bj;
      while (aEnd < a.size() && isDigit(a[aEnd]))
        ++aEnd;
      while (bEnd < b.size() && isDigit(b[bEnd]))
        ++bEnd;
      if (aEnd - ai != bEnd - bj) return aEnd - ai < bEnd - bj;
      if (const int order = a.substr(ai, aEnd - ai).compare(b.substr(bj, bEnd - bj)); order != 0)
        return order < 0;
      i = aEnd;
      j = bEnd;
    } else {
      if (a[i] != b[j]) return a[i] < b[j];
      ++i;
      ++j;
    }
  }
  return a.size() - i < b.size() - j;
}

bool DiskEnumerator::isMemoryCardLike(const DiskFacts& info, bool allowDiskImages) {
  if (info.busProtocol == "Disk Image") return allowDiskImages;
  if (info.virtualOrPhysical == "Virtual") return false;
  if (info.osInternalMedia || info.systemImage) return false;
  const bool removable =
      info.removableMedia || (info.removableMediaOrExternalDevice && info.ejectable);
  // A built-in card reader reports its cards as internal but removable.
  return !info.internal || removable;
}

std::optional<DiskEnumerator::WholeDisk> DiskEnumerator::wholeDisk(
    const std::filesystem::path& forVolume, const SystemPaths& paths) {
  struct stat st {};
  if (::stat(forVolume.c_str(), &st) != 0) return std::nullopt;
  const DiskFactsReader reader(paths);
  const std::optional<std::string> name = reader.wholeDiskName(DeviceNumber::fromDev(st.st_dev));
  if (!name) return std::nullopt;
  const std::optional<DiskFacts> facts = reader.facts(*name);
  return WholeDisk{*name, "/dev/" + *name, facts ? facts->sizeBytes : 0};
}

std::string DiskEnumerator::changeStamp(const SystemPaths& paths) {
  std::string stamp;
  for (const std::string& name : DiskFactsReader(paths).diskNames()) {
    stamp += name;
    for (const char* attribute : {"diskseq", "size", "ro"}) {
      std::ifstream in(paths.sysRoot / "block" / name / attribute);
      std::string value;
      std::getline(in, value);
      stamp += ' ';
      stamp += value;
    }
    stamp += '\n';
  }
  return stamp;
}

std::vector<std::string> DiskEnumerator::volumeNames(const std::vector<VolumeFacts>& volumes) {
  std::vector<std::string> names;
  for (const VolumeFacts& volume : volumes) {
    if (!volume.label.empty()) {
      names.push_back(volume.label);
    } else if (!volume.mountPoints.empty()) {
      const std::string last =
          std::filesystem::path(volume.mountPoints.front()).filename().string();
      if (!last.empty()) names.push_back(last);
    }
  }
  return names;
}

}  // namespace vellum

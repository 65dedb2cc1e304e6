#include "platform/DeviceGuard.h"

#include <unistd.h>

#include <algorithm>
#include <regex>

#include "devices/WriteError.h"
#include "platform/DiskFacts.h"
#include "platform/Unmount.h"

namespace vellum {
namespace {

// Kernel names as they appear in /sys/block: no path, only name characters.
bool isPlainName(const std::string& name) {
  static const std::regex plain("^[A-Za-z0-9_.:-]+$");
  return name != "." && name != ".." && std::regex_match(name, plain);
}

// Partition names by the kernel's naming scheme, so sdb1 is refused as a
// partition even after the card is gone.
bool looksLikePartition(const std::string& name) {
  static const std::regex partition(
      "^((sd|vd|hd|xvd)[a-z]+[0-9]+|(mmcblk|loop|nbd|md|nvme[0-9]+n)[0-9]+p[0-9]+)$");
  return std::regex_match(name, partition);
}

std::string joined(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) {
    if (!text.empty()) text += ", ";
    text += item;
  }
  return text;
}

}  // namespace

DiskIdentity DeviceGuard::inspect(const std::string& deviceIdentifier, Allowance allowance,
                                  const SystemPaths& paths) {
  const std::string& name = deviceIdentifier;
  const DiskFactsReader reader(paths);
  if (!isPlainName(name) || looksLikePartition(name)) {
    throw WriteError::refused("Only whole disks (like sdb or mmcblk0) can be tested, not " + name +
                              ".");
  }
  const std::optional<DiskFacts> facts = reader.facts(name);
  if (!facts) throw WriteError::refused(name + " wasn't found. Was the card removed?");
  const std::uint64_t sizeBytes = facts->sizeBytes;
  const std::int64_t blockSize = facts->deviceBlockSize;
  if (!facts->wholeDisk) throw WriteError::refused(name + " is a partition, not a whole disk.");
  if (facts->internal && !facts->removableMedia) {
    throw WriteError::refused(name +
                              " is an internal disk. Vellum only writes to memory cards and "
                              "external drives.");
  }
  if (facts->virtualOrPhysical == "Virtual" &&
      !(facts->busProtocol == "Disk Image" && paths.allowDiskImages)) {
    // A disk image attached with losetup can be tested on purpose; say how.
    throw WriteError::refused(name + " is a virtual disk, not a card." +
                              (facts->busProtocol == "Disk Image"
                                   ? " To test the disk image behind it anyway, set "
                                     "VL_ALLOW_DISK_IMAGES=1."
                                   : ""));
  }
  if (sizeBytes == 0) {
    throw WriteError::refused(name + " reports a size of zero. Try reinserting the card.");
  }
  checkSize(sizeBytes, name, allowance);
  if (facts->osInternalMedia || facts->systemImage) {
    throw WriteError::refused(name + " holds a system volume. Vellum won't write to it.");
  }
  if (facts->readOnly) {
    throw WriteError::refused(name +
                              " is write-protected. Slide the card's lock switch off and insert "
                              "it again.");
  }
  return DiskIdentity{name,
                      sizeBytes,
                      blockSize,
                      facts->mediaName,
                      facts->busProtocol,
                      facts->deviceTreePath,
                      allowance,
                      facts->serial};
}

WriteError DeviceGuard::changed(const std::string& deviceIdentifier) {
  return WriteError::refused("The disk at " + deviceIdentifier +
                             " changed since you selected it. Nothing was written. Select the "
                             "card again.");
}

WriteError DeviceGuard::inUse(const std::string& deviceIdentifier) {
  return WriteError::refused(deviceIdentifier +
                             " is still in use. Close any apps using the card and try again.");
}

void DeviceGuard::revalidate(const DiskIdentity& identity, const SystemPaths& paths) {
  const DiskIdentity fresh = inspect(identity.deviceIdentifier, identity.allowance, paths);
  if (fresh != identity) {
    throw changed(identity.deviceIdentifier);
  }
}

void DeviceGuard::unmountAll(const DiskIdentity& identity, const SystemPaths& paths) {
  const std::vector<std::string> remaining =
      unmountVolumes(identity.deviceIdentifier,
                     ::geteuid() == 0 ? UnmountMethod::direct : UnmountMethod::udisks, paths);
  if (!remaining.empty()) {
    throw WriteError::refused("Couldn't unmount " + joined(remaining) +
                              ". Close any apps using the card and try again.");
  }
}

std::vector<std::string> DeviceGuard::mountedVolumes(const std::string& deviceIdentifier,
                                                     const SystemPaths& paths) {
  return DiskFactsReader(paths).mountPoints(deviceIdentifier);
}

void DeviceGuard::checkSize(std::uint64_t size, const std::string& name, Allowance allowance) {
  if (allowance == Allowance::standard && size > maximumSize) {
    throw WriteError::needsQuickCheck(name);
  }
  if (allowance == Allowance::claimedCapacity && size > maximumClaimedSize) {
    throw WriteError::refused(name + " reports more than 64 TB. Vellum won't write to it.");
  }
}

bool DeviceGuard::hostsSystemVolume(const std::string& deviceIdentifier, const SystemPaths& paths) {
  const std::optional<DiskFacts> facts = DiskFactsReader(paths).facts(deviceIdentifier);
  return facts && (facts->osInternalMedia || facts->systemImage);
}

}  // namespace vellum

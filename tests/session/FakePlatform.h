#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "devices/SimulatedDevice.h"
#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"
#include "session/DiskPlatform.h"
#include "support/FaultyDevice.h"
#include "support/TempDir.h"

namespace vellum::testing {

class FakePlatform;

// A disk opened for writing: when it is closed, a start that differs from
// what it was at opening drops the disk's volumes from the listing.
class ClosingDevice final : public FaultyDevice {
 public:
  ClosingDevice(FakePlatform& platform, std::string name);
  ~ClosingDevice() override;

 private:
  FakePlatform& platform_;
  std::string name_;
  Bytes start_;
};

// Disks held in memory. The guard's size rule is the real one; everything
// else a test sets per disk. Records what the session asked for. Like a real
// desktop, the listing changes under the caller: a disk whose start was
// overwritten loses its volumes when it is closed (the system re-reads its
// partition table), and a formatted disk shows its new volume.
class FakePlatform final : public DiskPlatform {
 public:
  struct Disk {
    ExternalDisk listed;
    std::unique_ptr<SimulatedDevice> device;
    std::string refusal;   // non-empty: the guard refuses with it
    std::string mediaNow;  // what the guard sees now (a swapped card differs)
  };

  Disk& add(const std::string& name, std::unique_ptr<SimulatedDevice> device) {
    Disk& disk = disks[name];
    disk.listed = ExternalDisk{name, "Card Reader", device->size(), {"PHOTOS"}, "", ++sequence};
    disk.mediaNow = disk.listed.mediaName;
    disk.device = std::move(device);
    return disk;
  }
  // Another medium of the same make in the same slot: the kernel gives the
  // name again, with a new disk sequence number.
  void swap(const std::string& name) {
    Disk& disk = disks.at(name);
    disk.device = std::make_unique<SimulatedDevice>(disk.device->size(), std::nullopt,
                                                    SimulatedDevice::Overflow::wrap, 512);
    disk.listed.diskSequence = ++sequence;
  }

  std::vector<ExternalDisk> externalDisks(bool) override {
    // A refresh may read the listing while a run's device closes.
    const std::lock_guard lock(listing);
    std::vector<ExternalDisk> list;
    for (const auto& [name, disk] : disks)
      list.push_back(disk.listed);
    return list;
  }
  DiskIdentity inspect(const std::string& name, Allowance allowance) override {
    const auto found = disks.find(name);
    if (found == disks.end()) throw WriteError::refused(name + " wasn't found.");
    Disk& disk = found->second;
    if (!disk.refusal.empty()) throw WriteError::refused(disk.refusal);
    DeviceGuard::checkSize(disk.device->size(), name, allowance);
    return DiskIdentity{name,      disk.device->size(),
                        512,       disk.mediaNow,
                        "usb",     "/fake#diskseq=" + std::to_string(disk.listed.diskSequence),
                        allowance, ""};
  }
  std::unique_ptr<BlockDevice> openForWriting(const DiskIdentity& identity) override {
    ++opensForWriting;
    opened.push_back(identity.deviceIdentifier);
    auto device = std::make_unique<ClosingDevice>(*this, identity.deviceIdentifier);
    if (onOpen) onOpen(*device);
    return device;
  }
  std::unique_ptr<ByteSource> openForReading(const std::string& name) override {
    opened.push_back(name);
    return std::make_unique<FaultyDevice>(*disks.at(name).device);
  }
  bool needsPassword(const std::string&, bool) override { return false; }
  std::optional<std::string> diskHolding(const std::filesystem::path& folder) override {
    if (folder.string().find("/on-card") != std::string::npos) return disks.begin()->first;
    return std::nullopt;
  }
  std::vector<MountedVolume> mountedVolumes(const std::string& name) override {
    return mounted.contains(name) ? std::vector{MountedVolume{"/dev/" + name + "1", "/media/x"}}
                                  : std::vector<MountedVolume>{};
  }
  std::vector<std::string> remount(const std::vector<MountedVolume>& volumes) override {
    remounted += static_cast<int>(volumes.size());
    return {};
  }
  void format(const DiskIdentity& identity, FileSystem fileSystem, const std::string& name,
              std::optional<std::uint64_t> usableBytes) override {
    formats.push_back({identity.deviceIdentifier, fileSystem, name, usableBytes});
    const std::lock_guard lock(listing);
    disks.at(identity.deviceIdentifier).listed.volumeNames = {name};
  }

  std::filesystem::path stateFolder() override { return stateDir.path(); }

  struct FormatCall {
    std::string disk;
    FileSystem fileSystem;
    std::string name;
    std::optional<std::uint64_t> usableBytes;
  };
  std::map<std::string, Disk> disks;
  std::uint64_t sequence = 0;
  std::mutex listing;               // guards the listed disks' volume names
  std::vector<std::string> opened;  // every disk opened, in order
  std::set<std::string> mounted;
  std::function<void(FaultyDevice&)> onOpen;
  int opensForWriting = 0;
  int remounted = 0;
  std::vector<FormatCall> formats;
  TempDir stateDir;
};

inline ClosingDevice::ClosingDevice(FakePlatform& platform, std::string name)
    : FaultyDevice(*platform.disks.at(name).device), platform_(platform), name_(std::move(name)) {
  const Bytes& storage = platform_.disks.at(name_).device->storage();
  start_.assign(storage.begin(),
                storage.begin() + std::min<std::ptrdiff_t>(std::ssize(storage), 65536));
}

inline ClosingDevice::~ClosingDevice() {
  const auto found = platform_.disks.find(name_);
  if (found == platform_.disks.end()) return;
  const Bytes& storage = found->second.device->storage();
  if (!std::equal(start_.begin(), start_.end(), storage.begin())) {
    const std::lock_guard lock(platform_.listing);
    found->second.listed.volumeNames.clear();
  }
}

}  // namespace vellum::testing

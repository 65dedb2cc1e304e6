#pragma once

#include <map>
#include <memory>
#include <string>

#include "devices/SimulatedDevice.h"
#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"
#include "session/DiskPlatform.h"
#include "support/FaultyDevice.h"
#include "support/TempDir.h"

namespace vellum::testing {

// Disks held in memory. The guard's size rule is the real one; everything
// else a test sets per disk. Records what the session asked for.
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
    disk.listed = ExternalDisk{name, "Card Reader", device->size(), {"PHOTOS"}};
    disk.mediaNow = disk.listed.mediaName;
    disk.device = std::move(device);
    return disk;
  }

  std::vector<ExternalDisk> externalDisks(bool) override {
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
    return DiskIdentity{name,    disk.device->size(), 512, disk.mediaNow, "usb",
                        "/fake", allowance,           ""};
  }
  std::unique_ptr<BlockDevice> openForWriting(const DiskIdentity& identity) override {
    ++opensForWriting;
    auto device = std::make_unique<FaultyDevice>(*disks.at(identity.deviceIdentifier).device);
    if (onOpen) onOpen(*device);
    return device;
  }
  std::unique_ptr<ByteSource> openForReading(const std::string& name) override {
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
  }

  std::filesystem::path stateFolder() override { return stateDir.path(); }

  struct FormatCall {
    std::string disk;
    FileSystem fileSystem;
    std::string name;
    std::optional<std::uint64_t> usableBytes;
  };
  std::map<std::string, Disk> disks;
  std::set<std::string> mounted;
  std::function<void(FaultyDevice&)> onOpen;
  int opensForWriting = 0;
  int remounted = 0;
  std::vector<FormatCall> formats;
  TempDir stateDir;
};

}  // namespace vellum::testing

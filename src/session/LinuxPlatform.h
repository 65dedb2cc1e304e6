#pragma once

#include "platform/DeviceWriteAccess.h"
#include "platform/FormatHelper.h"
#include "platform/SystemPaths.h"
#include "session/DiskPlatform.h"

namespace vellum {

// The disks of this machine: sysfs and udev for facts, the guard, the
// privileged helpers for opening and formatting when not root. Reads the
// environment once, when made.
class LinuxPlatform final : public DiskPlatform {
 public:
  LinuxPlatform();

  std::vector<ExternalDisk> externalDisks(bool includeDiskImages) override;
  DiskIdentity inspect(const std::string& name, Allowance allowance) override;
  std::unique_ptr<BlockDevice> openForWriting(const DiskIdentity& identity) override;
  std::unique_ptr<ByteSource> openForReading(const std::string& name) override;
  bool needsPassword(const std::string& name, bool writing) override;
  std::optional<std::string> diskHolding(const std::filesystem::path& folder) override;
  std::vector<MountedVolume> mountedVolumes(const std::string& name) override;
  std::vector<std::string> remount(const std::vector<MountedVolume>& volumes) override;
  void format(const DiskIdentity& identity, FileSystem fileSystem, const std::string& name,
              std::optional<std::uint64_t> usableBytes) override;
  std::filesystem::path stateFolder() override;

 private:
  DeviceWriteAccess::Options access_;
  FormatHelperCommand formatHelper_ = FormatHelperCommand::systemDefault();
};

}  // namespace vellum

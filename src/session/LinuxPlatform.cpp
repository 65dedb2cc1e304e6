#include "session/LinuxPlatform.h"

#include <unistd.h>

#include <cerrno>

#include "platform/DeviceGuard.h"
#include "platform/DiskEnumerator.h"
#include "platform/DiskFormatter.h"
#include "platform/FormatHelper.h"
#include "platform/RawDeviceAccess.h"
#include "platform/StateFolder.h"

namespace vellum {
namespace {

UnmountMethod unmountMethod() {
  return ::geteuid() == 0 ? UnmountMethod::direct : UnmountMethod::udisks;
}

}  // namespace

LinuxPlatform::LinuxPlatform() = default;

std::vector<ExternalDisk> LinuxPlatform::externalDisks(bool includeDiskImages) {
  // Where disk images may be written (VL_ALLOW_DISK_IMAGES), they are listed.
  return DiskEnumerator::externalDisks(includeDiskImages || access_.paths.allowDiskImages,
                                       access_.paths);
}

DiskIdentity LinuxPlatform::inspect(const std::string& name, Allowance allowance) {
  return DeviceGuard::inspect(name, allowance, access_.paths);
}

std::unique_ptr<BlockDevice> LinuxPlatform::openForWriting(const DiskIdentity& identity) {
  return DeviceWriteAccess::open(identity, access_);
}

std::unique_ptr<ByteSource> LinuxPlatform::openForReading(const std::string& name) {
  return SourceOpener::open("/dev/" + name, access_.helper);
}

bool LinuxPlatform::needsPassword(const std::string& name, bool writing) {
  const std::string path = "/dev/" + name;
  return ::access(path.c_str(), writing ? R_OK | W_OK : R_OK) != 0 && errno != ENOENT;
}

std::optional<std::string> LinuxPlatform::diskHolding(const std::filesystem::path& folder) {
  const auto disk = DiskEnumerator::wholeDisk(folder, access_.paths);
  if (!disk) return std::nullopt;
  return disk->identifier;
}

std::vector<MountedVolume> LinuxPlatform::mountedVolumes(const std::string& name) {
  return vellum::mountedVolumes(name, access_.paths);
}

std::vector<std::string> LinuxPlatform::remount(const std::vector<MountedVolume>& volumes) {
  return remountVolumes(volumes, unmountMethod());
}

void LinuxPlatform::format(const DiskIdentity& identity, FileSystem fileSystem,
                           const std::string& name, std::optional<std::uint64_t> usableBytes) {
  // Repartitioning needs root (partx, unmounting as root): others format
  // through the helper, which applies the guard's rules again as root.
  if (::geteuid() == 0) {
    DiskFormatter::format(identity, fileSystem, name, access_.paths, usableBytes);
    return;
  }
  formatThroughHelper(formatHelper_, FormatRequest::of(identity, fileSystem, name, usableBytes,
                                                       access_.paths.allowDiskImages));
}

std::filesystem::path LinuxPlatform::stateFolder() {
  return userStateFolder();
}

}  // namespace vellum

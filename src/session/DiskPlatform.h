#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bytes/ByteSource.h"
#include "devices/BlockDevice.h"
#include "devices/ExternalDisk.h"
#include "devices/FileSystem.h"
#include "platform/DiskIdentity.h"
#include "platform/Unmount.h"

namespace vellum {

// Everything a run asks of the system about disks. The session holds one;
// LinuxPlatform is the real one, tests give an in-memory fake. Every call may
// block (child processes, password prompts): call it from a worker.
class DiskPlatform {
 public:
  virtual ~DiskPlatform() = default;

  // The external disks, in listing order.
  virtual std::vector<ExternalDisk> externalDisks(bool includeDiskImages) = 0;
  // The guard's rules on a disk; throws WriteError with the refusal.
  virtual DiskIdentity inspect(const std::string& name, Allowance allowance) = 0;
  // Opens an inspected disk for writing: checked again, unmounted, opened
  // exclusively. Throws WriteError.
  virtual std::unique_ptr<BlockDevice> openForWriting(const DiskIdentity& identity) = 0;
  // Opens a whole disk for reading only, refusing while a writer holds it.
  virtual std::unique_ptr<ByteSource> openForReading(const std::string& name) = 0;
  // True when opening the disk will ask for an administrator password.
  virtual bool needsPassword(const std::string& name, bool writing) = 0;
  // The whole disk a folder lies on, symlinks followed; none when unknown.
  virtual std::optional<std::string> diskHolding(const std::filesystem::path& folder) = 0;
  // Volumes of the disk mounted now, and mounting them again afterwards;
  // remount returns one sentence per volume that could not be mounted.
  virtual std::vector<MountedVolume> mountedVolumes(const std::string& name) = 0;
  virtual std::vector<std::string> remount(const std::vector<MountedVolume>& volumes) = 0;
  // Partitions and formats the disk (checked again first). usableBytes limits
  // the partition to what a Quick Check verified. Throws WriteError.
  virtual void format(const DiskIdentity& identity, FileSystem fileSystem, const std::string& name,
                      std::optional<std::uint64_t> usableBytes) = 0;
  // The user's folder for what outlives a run (the Quick Check's undo journals).
  virtual std::filesystem::path stateFolder() = 0;
};

}  // namespace vellum

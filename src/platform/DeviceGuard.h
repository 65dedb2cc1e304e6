#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "devices/WriteError.h"
#include "platform/DiskIdentity.h"
#include "platform/SystemPaths.h"

namespace vellum {

// Decides whether a disk may be written at all and records what was seen of it.
// The single place that refuses partitions, internal, virtual, system and
// implausibly large disks. Every refusal is a WriteError::refused whose text is
// shown to the user as it stands. Stateless; blocks while unmounting, so call
// it from a worker, never the user-interface thread.
class DeviceGuard {
 public:
  using Allowance = vellum::Allowance;

  static constexpr std::uint64_t maximumSize = 4'000'000'000'000;          // 4 TB
  static constexpr std::uint64_t maximumClaimedSize = 64'000'000'000'000;  // 64 TB

  // Runs the rules in order (the first failure decides the message): whole-disk
  // name, present, whole disk, not internal, not virtual (disk images only with
  // VL_ALLOW_DISK_IMAGES=1), non-zero size, size limit, no system volume, not
  // write-protected. Throws WriteError.
  static DiskIdentity inspect(const std::string& deviceIdentifier, Allowance allowance,
                              const SystemPaths& paths = {});
  // Inspects again; throws the refusal unchanged, or a refusal saying the disk
  // changed when any field of the identity differs.
  static void revalidate(const DiskIdentity& identity, const SystemPaths& paths = {});
  // The refusals for a disk that is another medium than the one chosen, and
  // for one that something else holds open exclusively.
  static WriteError changed(const std::string& deviceIdentifier);
  static WriteError inUse(const std::string& deviceIdentifier);
  // Unmounts every volume of the disk (as root directly, deepest first, never
  // lazily; otherwise through udisks). Judged only by what is still mounted
  // afterwards. Throws WriteError, or ProcessError when the unmount tool cannot
  // be started.
  static void unmountAll(const DiskIdentity& identity, const SystemPaths& paths = {});
  // Mount points of the disk and its partitions, in mount-table order; empty
  // when the table cannot be read.
  static std::vector<std::string> mountedVolumes(const std::string& deviceIdentifier,
                                                 const SystemPaths& paths = {});
  // Throws WriteError::refused above 4 TB (standard) or 64 TB (claimedCapacity).
  static void checkSize(std::uint64_t size, const std::string& name, Allowance allowance);
  // True when the disk, a partition or anything stacked on them carries a
  // system mount point, a live-boot medium or active swap.
  static bool hostsSystemVolume(const std::string& deviceIdentifier, const SystemPaths& paths = {});
};

}  // namespace vellum

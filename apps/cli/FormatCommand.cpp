#include <cstdio>
#include <nlohmann/json.hpp>

#include "Cli.h"
#include "Commands.h"
#include "Options.h"
#include "devices/FileSystem.h"
#include "platform/DeviceGuard.h"
#include "platform/DiskFormatter.h"

namespace vellum::cli {
namespace {

FileSystem chosenFileSystem(const std::optional<std::string>& given, std::uint64_t diskSize) {
  if (!given) return DiskFormatter::recommended(diskSize);
  if (*given == "exfat") return FileSystem::exfat;
  if (*given == "fat32") return FileSystem::fat32;
  throw UsageError("--fs takes exfat or fat32, not " + *given + ".");
}

}  // namespace

int runFormat(const std::vector<std::string>& words) {
  const Options options(words, {"--json"}, {"--fs", "--name", "--confirm"}, 1, 1);
  std::string disk = options.positional()[0];
  if (disk.rfind("/dev/", 0) == 0) disk.erase(0, 5);

  const DiskIdentity identity = DeviceGuard::inspect(disk, Allowance::standard);
  const FileSystem fileSystem = chosenFileSystem(options.value("--fs"), identity.sizeBytes);
  const std::string label = DiskFormatter::sanitizedName(options.value("--name").value_or(""));
  // The word to type is the disk's own name, so a slip of the finger cannot
  // format another disk.
  if (!confirmErase(disk, disk, options.value("--confirm"))) return kUsage;

  const std::string type(displayName(fileSystem));
  if (!options.has("--json")) {
    std::fprintf(stderr, "Formatting %s as %s named %s...\n", disk.c_str(), type.c_str(),
                 label.c_str());
  }
  DiskFormatter::format(identity, fileSystem, label);
  if (options.has("--json")) {
    printJson({{"disk", disk}, {"fileSystem", type}, {"name", label}});
  } else {
    std::printf("Formatted %s as %s named %s.\n", disk.c_str(), type.c_str(), label.c_str());
  }
  return kGoodVerdict;
}

}  // namespace vellum::cli

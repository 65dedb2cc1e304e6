#include <cstdio>
#include <nlohmann/json.hpp>

#include "Cli.h"
#include "Commands.h"
#include "Options.h"
#include "Target.h"
#include "Terminal.h"
#include "devices/FileSystem.h"
#include "devices/WriteError.h"
#include "platform/DiskFormatter.h"
#include "summary/ResultSummary.h"
#include "summary/SummaryText.h"

namespace vellum::cli {
namespace {

FileSystem chosenFileSystem(const std::optional<std::string>& given, std::uint64_t diskSize) {
  if (!given) return DiskFormatter::recommended(diskSize);
  if (*given == "exfat") return FileSystem::exfat;
  if (*given == "fat32") return FileSystem::fat32;
  throw UsageError("--fs takes exfat or fat32, not " + *given + ".");
}

std::string_view jsonName(FileSystem fileSystem) {
  return fileSystem == FileSystem::exfat ? "exfat" : "fat32";
}

}  // namespace

int runFormat(const std::vector<std::string>& words) {
  const Options options(words, {"--json"}, {"--fs", "--name", "--confirm"}, 1, 1);
  const std::string& argument = options.positional()[0];
  // Check the option before the guard runs, so a typo costs nothing.
  if (const auto given = options.value("--fs")) chosenFileSystem(given, 0);
  if (argument.rfind("demo:", 0) == 0) {
    throw WriteError::refused("Simulated cards can't be formatted.");
  }
  if (!diskName(argument)) {
    throw WriteError::refused(argument +
                              " is not a disk. Only disks (like sdb) can be formatted; a disk "
                              "image file can be attached with losetup first.");
  }

  const Target target = inspectTarget(argument, CheckAction::format);
  const DiskIdentity& identity = *target.identity;
  // A card proven fake gets a file system only where it really stores data.
  const std::optional<std::uint64_t> usable = verifiedCapacity(identity.deviceIdentifier);
  const FileSystem fileSystem =
      chosenFileSystem(options.value("--fs"), usable.value_or(identity.sizeBytes));
  const std::string label = DiskFormatter::sanitizedName(options.value("--name").value_or(""));
  if (!confirmErase(identity.deviceIdentifier, target.confirmWord, options.value("--confirm"))) {
    return kUsage;
  }

  // A stop during formatting waits for the format to finish: stopped between
  // the partition table and the file system, the card would be unusable.
  CancellationFlag stop;
  {
    const SignalCancellation deferred(stop);
    const std::string type(displayName(fileSystem));
    if (!options.has("--json")) {
      std::fprintf(stderr, "Formatting %s as %s named %s\u2026\n",
                   identity.deviceIdentifier.c_str(), type.c_str(), label.c_str());
    }
    DiskFormatter::format(identity, fileSystem, label, {}, usable);
  }
  if (stop.isCancelled()) {
    std::fprintf(stderr, "Formatting was finished before stopping, so the %s is usable.\n",
                 target.noun().c_str());
  }
  if (options.has("--json")) {
    printJson({{"fileSystem", jsonName(fileSystem)}, {"name", label}});
  } else {
    std::fputs(renderText(ResultSummary(Formatted{fileSystem, label, usable}, target.card)).c_str(),
               stdout);
  }
  return kGoodVerdict;
}

}  // namespace vellum::cli

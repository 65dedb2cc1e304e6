#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Cli.h"
#include "Commands.h"
#include "Options.h"
#include "platform/DiskEnumerator.h"

namespace vellum::cli {
namespace {

nlohmann::json toJson(const ExternalDisk& disk) {
  return {{"deviceIdentifier", disk.deviceIdentifier},
          {"devicePath", disk.devicePath()},
          {"mediaName", disk.mediaName},
          {"sizeBytes", disk.sizeBytes},
          {"sizeDescription", disk.sizeDescription()},
          {"volumeNames", disk.volumeNames},
          {"displayName", disk.displayName()},
          {"isMemoryCard", disk.isMemoryCard()}};
}

std::string padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

}  // namespace

int runList(const std::vector<std::string>& words) {
  const Options options(words, {"--json", "--include-images"}, {}, 0, 0);
  const std::vector<ExternalDisk> disks =
      DiskEnumerator::externalDisks(options.has("--include-images"));
  if (options.has("--json")) {
    nlohmann::json list = nlohmann::json::array();
    for (const ExternalDisk& disk : disks)
      list.push_back(toJson(disk));
    printJson(list);
    return kGoodVerdict;
  }
  if (disks.empty()) {
    std::printf("No memory cards or external drives found.\n");
    return kGoodVerdict;
  }
  std::size_t nameWidth = 4;
  std::size_t sizeWidth = 4;
  for (const ExternalDisk& disk : disks) {
    nameWidth = std::max(nameWidth, disk.deviceIdentifier.size());
    sizeWidth = std::max(sizeWidth, disk.sizeDescription().size());
  }
  std::printf("%s  %s  %s  %s\n", padded("DISK", nameWidth).c_str(),
              padded("SIZE", sizeWidth).c_str(), "KIND ", "NAME");
  for (const ExternalDisk& disk : disks) {
    std::string name = disk.mediaName.empty() ? disk.deviceIdentifier : disk.mediaName;
    if (!disk.volumeNames.empty()) name += " (" + disk.displayName() + ")";
    std::printf("%s  %s  %s  %s\n", padded(disk.deviceIdentifier, nameWidth).c_str(),
                padded(disk.sizeDescription(), sizeWidth).c_str(),
                disk.isMemoryCard() ? "card " : "drive", name.c_str());
  }
  return kGoodVerdict;
}

}  // namespace vellum::cli

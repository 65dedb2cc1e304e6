#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vellum {

// One external disk as the card picker lists it. Equal only when every field
// is equal, so a disk that was renamed or reformatted counts as another disk.
struct ExternalDisk {
  std::string deviceIdentifier;  // whole-disk kernel name, such as "sdb"
  std::string mediaName;         // empty when unknown
  std::uint64_t sizeBytes = 0;
  std::vector<std::string> volumeNames;

  bool operator==(const ExternalDisk&) const = default;

  const std::string& id() const noexcept { return deviceIdentifier; }
  std::string devicePath() const { return "/dev/" + deviceIdentifier; }
  // Volume names joined with ", ", else the media name, else the identifier.
  std::string displayName() const;
  std::string sizeDescription() const;
  // True when a whole word of the media name is one of the card words
  // ("sd", "microsd", "reader", "cfexpress", ...).
  bool isMemoryCard() const;
};

}  // namespace vellum

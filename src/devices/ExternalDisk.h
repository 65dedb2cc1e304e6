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
  // What tells this medium from another under the same kernel name, which
  // the kernel reuses: the serial, and the disk sequence number, which
  // changes whenever the medium does. Empty and 0 when unknown.
  std::string serial;
  std::uint64_t diskSequence = 0;

  bool operator==(const ExternalDisk&) const = default;

  // The same medium as other, whatever its volumes are called now: the same
  // disk sequence number where both know it, else the same serial and size
  // where both know the serial, else the same name, size and media name.
  bool isSameMedium(const ExternalDisk& other) const;

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

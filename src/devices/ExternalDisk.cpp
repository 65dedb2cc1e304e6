#include "devices/ExternalDisk.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "bytes/ByteCountFormat.h"

namespace vellum {

std::string ExternalDisk::displayName() const {
  if (!volumeNames.empty()) {
    std::string joined;
    for (const std::string& name : volumeNames) {
      if (!joined.empty()) joined += ", ";
      joined += name;
    }
    return joined;
  }
  return mediaName.empty() ? deviceIdentifier : mediaName;
}

bool ExternalDisk::isSameMedium(const ExternalDisk& other) const {
  if (diskSequence != 0 && other.diskSequence != 0) {
    return diskSequence == other.diskSequence && deviceIdentifier == other.deviceIdentifier &&
           (serial.empty() || other.serial.empty() || serial == other.serial);
  }
  if (!serial.empty() && !other.serial.empty()) {
    return serial == other.serial && sizeBytes == other.sizeBytes;
  }
  return deviceIdentifier == other.deviceIdentifier && sizeBytes == other.sizeBytes &&
         mediaName == other.mediaName;
}

std::string ExternalDisk::sizeDescription() const {
  return formatByteCount(sizeBytes);
}

bool ExternalDisk::isMemoryCard() const {
  static constexpr std::array<std::string_view, 13> kCardWords{
      "sd", "sdhc",  "sdxc",      "sduc", "microsd", "card", "reader",
      "cf", "cfast", "cfexpress", "xqd",  "mmc",     "sxs"};
  std::string word;
  const auto isCardWord = [&] {
    return std::find(kCardWords.begin(), kCardWords.end(), word) != kCardWords.end();
  };
  for (const char c : mediaName) {
    const auto u = static_cast<unsigned char>(c);
    if (std::isalnum(u) != 0) {
      word += static_cast<char>(std::tolower(u));
    } else {
      if (isCardWord()) return true;
      word.clear();
    }
  }
  return isCardWord();
}

}  // namespace vellum

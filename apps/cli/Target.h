#pragma once

#include <memory>
#include <optional>
#include <string>

#include "devices/BlockDevice.h"
#include "summary/Card.h"

namespace vellum::cli {

// What a TARGET argument names: a demo card or a disk-image file.
struct Target {
  std::string argument;      // as the user typed it
  std::optional<Card> card;  // for summaries; absent for image files
  std::string confirmWord;   // what the user types to allow erasing
  std::unique_ptr<BlockDevice> device;
};

// Opens TARGET for writing (demo:genuine, demo:fake, demo:failing, or a
// regular disk-image file with 512-byte blocks). Throws UsageError or a
// WriteError with a message that names the target and says what to do.
Target openTarget(const std::string& argument);

// Opens TARGET for reading only (Health Scan, backups).
std::unique_ptr<ByteSource> openSource(const std::string& argument, std::optional<Card>& card);

}  // namespace vellum::cli

#include <gtest/gtest.h>

#include "devices/ExternalDisk.h"

namespace vellum {
namespace {

TEST(ExternalDisk, CardWordsAreWholeWords) {
  const std::pair<const char*, bool> cases[] = {
      {"Built In SDXC Reader", true},
      {"Generic Flash Disk", false},
      {"SDcard", false},
      {"Card-Reader", true},
      {"Generic- SD/MMC", true},
      {"SanDisk Extreme", false},
      {"microSD", true},
      {"", false},
      {"CFexpress Type B", true},
      {"Sony SxS", true},
      {"USB3.0 CRW-SD", true},
      {"Ultra Fit", false},
      {"SD card SL16G", true},
      {"MMC DG4016", true},
      {"Generic STORAGE DEVICE", false},
  };
  for (const auto& [media, card] : cases) {
    ExternalDisk disk{"sdb", media, 1, {}};
    EXPECT_EQ(disk.isMemoryCard(), card) << media;
  }
}

}  // namespace
}  // namespace vellum

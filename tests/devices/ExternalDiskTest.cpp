#include <gtest/gtest.h>

#include "devices/ExternalDisk.h"

namespace vellum {
namespace {

TEST(ExternalDisk, CardWordsAreWholeWords) {
  const std::pair<const char*, bool> cases[] = {
      {"Built In SDXC Reader", true},
      {"SDcard", false},
      {"Card-Reader", true},
      {"Generic- SD/MMC", true},
      {"SanDisk Extreme", false},
      {"microSD", true},
      {"", false},
      {"CFexpress Type B", true},
      {"USB3.0 CRW-SD", true},
      {"SD card SL16G", true},
  };
  for (const auto& [media, card] : cases) {
    ExternalDisk disk{"sdb", media, 1, {}, "", 0};
    EXPECT_EQ(disk.isMemoryCard(), card) << media;
  }
}

}  // namespace
}  // namespace vellum

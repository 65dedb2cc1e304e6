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

TEST(ExternalDisk, DisplayNamePrefersVolumesThenMediaThenIdentifier) {
  EXPECT_EQ((ExternalDisk{"sdb", "Reader", 1, {"CARD", "DATA"}}).displayName(), "CARD, DATA");
  EXPECT_EQ((ExternalDisk{"sdb", "Reader", 1, {}}).displayName(), "Reader");
  EXPECT_EQ((ExternalDisk{"sdb", "", 1, {}}).displayName(), "sdb");
  EXPECT_EQ((ExternalDisk{"sdb", "", 31'914'983'424, {}}).sizeDescription(), "31.9 GB");
  EXPECT_NE((ExternalDisk{"sdb", "R", 1, {"A"}}), (ExternalDisk{"sdb", "R", 1, {"B"}}));
}

}  // namespace
}  // namespace vellum

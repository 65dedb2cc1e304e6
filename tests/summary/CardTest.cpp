#include <gtest/gtest.h>

#include "summary/Card.h"

namespace vellum {
namespace {

const ExternalDisk kFlashDrive{"sdb", "Generic Flash Disk", 32'000'000'000, {"KINGSTON"}, "", 0};

TEST(CardTest, TextsOfDemoCardsAndDisks) {
  const struct {
    Card card;
    std::string texts;
  } rows[] = {
      // clang-format off
      {{SimulatedCard::genuine}, "sim-genuine|Demo card (genuine)|Simulated in memory|268.4 MB|card"},
      // The fake card shows what it claims, never its real 96 MiB.
      {{SimulatedCard::fake}, "sim-fake|Demo card (fake)|Simulated in memory|536.9 MB|card"},
      {{kFlashDrive}, "sdb|KINGSTON|sdb · Generic Flash Disk|32 GB|drive"},
      // Without a media name the detail is the bare identifier.
      {{ExternalDisk{"sdd", "", 8'000'000'000, {"A", "B"}, "", 0}}, "sdd|A, B|sdd|8 GB|drive"},
      // clang-format on
  };
  for (const auto& row : rows) {
    const Card& c = row.card;
    EXPECT_EQ(c.id() + "|" + c.title() + "|" + c.detail() + "|" + c.sizeDescription() + "|" +
                  std::string(nounFor(c)),
              row.texts);
    EXPECT_EQ(c.isDrive(), c.noun() == "drive");
  }
  EXPECT_EQ(nounFor(std::nullopt), "card");
}

}  // namespace
}  // namespace vellum

#include <gtest/gtest.h>

#include "summary/Card.h"

namespace vellum {
namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

const ExternalDisk kFlashDrive{"sdb", "Generic Flash Disk", 32'000'000'000, {"KINGSTON"}};

TEST(SimulatedCardTest, FakeWrapsGenuineKeepsBlocksApart) {
  const Bytes low(4096, 0x11), high(4096, 0xA5);
  const auto fake = makeDevice(SimulatedCard::fake);
  const auto genuine = makeDevice(SimulatedCard::genuine);
  for (const auto& device : {fake.get(), genuine.get()}) {
    device->write(0, low);
    device->write(96 * kMiB - 4096, low);
    // On the fake the first block past 96 MiB lands on the start.
    device->write(96 * kMiB, high);
    EXPECT_EQ(device->read(96 * kMiB - 4096, 4096), low);
    EXPECT_EQ(device->read(96 * kMiB, 4096), high);
  }
  EXPECT_EQ(fake->read(0, 4096), high);
  EXPECT_EQ(genuine->read(0, 4096), low);
  // The fake's claimed end maps to 512 MiB mod 96 MiB = 32 MiB.
  fake->write(512 * kMiB - 4096, high);
  EXPECT_EQ(fake->read(32 * kMiB - 4096, 4096), high);
}

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
      {{ExternalDisk{"sdd", "", 8'000'000'000, {"A", "B"}}}, "sdd|A, B|sdd|8 GB|drive"},
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

#include <gtest/gtest.h>

#include <cerrno>
#include <unordered_set>

#include "bytes/DeviceError.h"
#include "summary/Card.h"

namespace vellum {
namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

const ExternalDisk kFlashDrive{"sdb", "Generic Flash Disk", 32'000'000'000, {"KINGSTON"}};

// The offset of the first failed read, or none when the read succeeded.
std::optional<std::uint64_t> failedReadOffset(ByteSource& source, std::uint64_t offset,
                                              std::int64_t count) {
  try {
    source.read(offset, count);
  } catch (const DeviceError& error) {
    const auto* failed = error.as<DeviceError::ReadFailed>();
    EXPECT_NE(failed, nullptr) << error.description();
    EXPECT_EQ(failed ? failed->errnum : 0, EIO);
    return failed ? std::optional(failed->offset) : std::nullopt;
  }
  return std::nullopt;
}

TEST(SimulatedCardTest, RawValuesAndDemoDeviceParameters) {
  const struct {
    SimulatedCard card;
    const char* raw;
    std::uint64_t size, realCapacity;
    std::set<std::uint64_t> unreadable;
  } rows[] = {
      {SimulatedCard::genuine, "genuine", 256 * kMiB, 256 * kMiB, {}},
      {SimulatedCard::fake, "fake", 512 * kMiB, 96 * kMiB, {}},
      {SimulatedCard::failing, "failing", 256 * kMiB, 256 * kMiB, {40000, 40001, 200000, 350123}},
  };
  ASSERT_EQ(kAllSimulatedCards.size(), std::size(rows));
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].raw);
    EXPECT_EQ(kAllSimulatedCards[i], rows[i].card);
    EXPECT_EQ(rawValue(rows[i].card), rows[i].raw);
    EXPECT_EQ(simulatedCardFromRawValue(rows[i].raw), rows[i].card);
    const auto device = makeDevice(rows[i].card);
    EXPECT_EQ(device->size(), rows[i].size);
    EXPECT_EQ(claimedBytes(rows[i].card), rows[i].size);
    EXPECT_EQ(device->realCapacity(), rows[i].realCapacity);
    EXPECT_EQ(device->overflow(), SimulatedDevice::Overflow::wrap);
    EXPECT_EQ(device->blockSize(), 512);
    EXPECT_EQ(device->unreadableBlocks(), rows[i].unreadable);
  }
  for (const char* unknown : {"", "Genuine", "fake ", "sim-fake", "format"})
    EXPECT_EQ(simulatedCardFromRawValue(unknown), std::nullopt) << unknown;
}

TEST(SimulatedCardTest, FakeWrapsGenuineKeepsBlocksApartFailingFailsFourBlocks) {
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
  EXPECT_EQ(failedReadOffset(*genuine, 40000 * 512, 512), std::nullopt);

  const auto failing = makeDevice(SimulatedCard::failing);
  for (const std::uint64_t block : {40000u, 40001u, 200000u, 350123u})
    EXPECT_EQ(failedReadOffset(*failing, block * 512, 512), block * 512) << block;
  // A larger read that covers a bad block reports where it failed.
  EXPECT_EQ(failedReadOffset(*failing, 39990 * 512, 8192), 40000u * 512);
  for (const std::uint64_t block : {39999u, 40002u, 199999u, 200001u, 350122u, 350124u})
    EXPECT_EQ(failedReadOffset(*failing, block * 512, 512), std::nullopt) << block;
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
      {{SimulatedCard::failing}, "sim-failing|Demo card (failing)|Simulated in memory|268.4 MB|card"},
      {{kFlashDrive}, "sdb|KINGSTON|sdb · Generic Flash Disk|32 GB|drive"},
      {{ExternalDisk{"sdc", "Built In SDXC Reader", 63'864'569'856, {}}},
       "sdc|Built In SDXC Reader|sdc · Built In SDXC Reader|63.9 GB|card"},
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

TEST(CardTest, EqualityAndHashCoverEveryDiskField) {
  const Card base{kFlashDrive};
  auto changed = [](auto edit) {
    ExternalDisk disk = kFlashDrive;
    edit(disk);
    return Card{disk};
  };
  const Card variants[] = {
      changed([](ExternalDisk& d) { d.deviceIdentifier = "sdc"; }),
      changed([](ExternalDisk& d) { d.mediaName = "Generic Flash"; }),
      changed([](ExternalDisk& d) { d.sizeBytes += 512; }),
      changed([](ExternalDisk& d) { d.volumeNames = {"CAMERA"}; }),
      changed([](ExternalDisk& d) { d.volumeNames.push_back("DATA"); }),
      changed([](ExternalDisk& d) { d.volumeNames.clear(); }),
  };
  const std::hash<Card> hash;
  EXPECT_EQ(base, Card{kFlashDrive});
  EXPECT_EQ(hash(base), hash(Card{kFlashDrive}));
  for (const Card& other : variants) {
    EXPECT_NE(base, other) << other.disk()->deviceIdentifier;
    EXPECT_NE(hash(base), hash(other)) << other.disk()->deviceIdentifier;
  }
  // Demo cards equal only themselves and never a disk, even one named alike.
  const Card fakeDisk{ExternalDisk{"sim-fake", "", 0, {}}};
  EXPECT_NE(Card{SimulatedCard::fake}, Card{SimulatedCard::failing});
  EXPECT_NE(Card{SimulatedCard::fake}, fakeDisk);
  EXPECT_EQ(fakeDisk.id(), Card{SimulatedCard::fake}.id());
  std::unordered_set<Card> set{Card{SimulatedCard::genuine}, Card{SimulatedCard::fake},
                               Card{SimulatedCard::failing}, base, fakeDisk};
  EXPECT_EQ(set.size(), 5u);
  EXPECT_TRUE(set.contains(Card{SimulatedCard::fake}));
  EXPECT_FALSE(set.contains(variants[3]));
}

}  // namespace
}  // namespace vellum

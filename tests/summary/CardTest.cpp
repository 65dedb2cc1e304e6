#include <gtest/gtest.h>

#include <cerrno>
#include <unordered_set>

#include "bytes/DeviceError.h"
#include "summary/Card.h"

namespace vellum {
namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

const ExternalDisk kFlashDrive{"sdb", "Generic Flash Disk", 32'000'000'000, {"KINGSTON"}};
const ExternalDisk kSdReader{"sdc", "Built In SDXC Reader", 63'864'569'856, {}};

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

TEST(SimulatedCardTest, RawValuesRoundTripInOrder) {
  ASSERT_EQ(kAllSimulatedCards.size(), 3u);
  const char* expected[] = {"genuine", "fake", "failing"};
  for (std::size_t i = 0; i < kAllSimulatedCards.size(); ++i) {
    EXPECT_EQ(rawValue(kAllSimulatedCards[i]), expected[i]);
    EXPECT_EQ(simulatedCardFromRawValue(expected[i]), kAllSimulatedCards[i]);
  }
  for (const char* unknown : {"", "Genuine", "fake ", "sim-fake", "format"}) {
    EXPECT_EQ(simulatedCardFromRawValue(unknown), std::nullopt) << unknown;
  }
}

TEST(SimulatedCardTest, DemoDeviceParameters) {
  struct Row {
    SimulatedCard card;
    std::uint64_t size;
    std::uint64_t realCapacity;
    std::set<std::uint64_t> unreadable;
  };
  const Row rows[] = {
      {SimulatedCard::genuine, 256 * kMiB, 256 * kMiB, {}},
      {SimulatedCard::fake, 512 * kMiB, 96 * kMiB, {}},
      {SimulatedCard::failing, 256 * kMiB, 256 * kMiB, {40000, 40001, 200000, 350123}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(rawValue(row.card));
    const auto device = makeDevice(row.card);
    EXPECT_EQ(device->size(), row.size);
    EXPECT_EQ(claimedBytes(row.card), row.size);
    EXPECT_EQ(device->realCapacity(), row.realCapacity);
    EXPECT_EQ(device->overflow(), SimulatedDevice::Overflow::wrap);
    EXPECT_EQ(device->blockSize(), 512);
    EXPECT_EQ(device->unreadableBlocks(), row.unreadable);
  }
}

TEST(SimulatedCardTest, FakeCardWrapsWritesPastItsRealCapacity) {
  const auto device = makeDevice(SimulatedCard::fake);
  const Bytes low(4096, 0x11);
  const Bytes high(4096, 0xA5);
  device->write(0, low);
  device->write(96 * kMiB - 4096, low);
  // The first block past 96 MiB lands on the start, overwriting it.
  device->write(96 * kMiB, high);
  EXPECT_EQ(device->read(0, 4096), high);
  EXPECT_EQ(device->read(96 * kMiB, 4096), high);
  EXPECT_EQ(device->read(96 * kMiB - 4096, 4096), low);
  // And the claimed end maps to 512 MiB mod 96 MiB = 32 MiB.
  device->write(512 * kMiB - 4096, high);
  EXPECT_EQ(device->read(32 * kMiB - 4096, 4096), high);
}

TEST(SimulatedCardTest, GenuineCardKeepsEveryBlockApart) {
  const auto device = makeDevice(SimulatedCard::genuine);
  device->write(0, Bytes(4096, 0x11));
  device->write(96 * kMiB, Bytes(4096, 0x22));
  device->write(256 * kMiB - 4096, Bytes(4096, 0x33));
  EXPECT_EQ(device->read(0, 4096), Bytes(4096, 0x11));
  EXPECT_EQ(device->read(96 * kMiB, 4096), Bytes(4096, 0x22));
  EXPECT_EQ(device->read(256 * kMiB - 4096, 4096), Bytes(4096, 0x33));
  EXPECT_EQ(failedReadOffset(*device, 40000 * 512, 512), std::nullopt);
}

TEST(SimulatedCardTest, FailingCardFailsReadsOfItsFourBlocks) {
  const auto device = makeDevice(SimulatedCard::failing);
  for (const std::uint64_t block : {40000u, 40001u, 200000u, 350123u}) {
    EXPECT_EQ(failedReadOffset(*device, block * 512, 512), block * 512) << block;
  }
  // A larger read that covers a bad block reports where it failed.
  EXPECT_EQ(failedReadOffset(*device, 39990 * 512, 8192), 40000u * 512);
  // Its neighbours read fine.
  for (const std::uint64_t block : {39999u, 40002u, 199999u, 200001u, 350122u, 350124u}) {
    EXPECT_EQ(failedReadOffset(*device, block * 512, 512), std::nullopt) << block;
  }
}

TEST(CardTest, TextsOfDemoCardsAndDisks) {
  struct Row {
    Card card;
    std::string id, title, detail, size, noun;
    bool isDrive;
  };
  const Row rows[] = {
      {{SimulatedCard::genuine},
       "sim-genuine",
       "Demo card (genuine)",
       "Simulated in memory",
       "268.4 MB",
       "card",
       false},
      // The fake card shows what it claims, never its real 96 MiB.
      {{SimulatedCard::fake},
       "sim-fake",
       "Demo card (fake)",
       "Simulated in memory",
       "536.9 MB",
       "card",
       false},
      {{SimulatedCard::failing},
       "sim-failing",
       "Demo card (failing)",
       "Simulated in memory",
       "268.4 MB",
       "card",
       false},
      {{kFlashDrive}, "sdb", "KINGSTON", "sdb · Generic Flash Disk", "32 GB", "drive", true},
      {{kSdReader},
       "sdc",
       "Built In SDXC Reader",
       "sdc · Built In SDXC Reader",
       "63.9 GB",
       "card",
       false},
      // Without a media name the detail is the bare identifier.
      {{ExternalDisk{"sdd", "", 8'000'000'000, {"A", "B"}}},
       "sdd",
       "A, B",
       "sdd",
       "8 GB",
       "drive",
       true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.id);
    EXPECT_EQ(row.card.id(), row.id);
    EXPECT_EQ(row.card.title(), row.title);
    EXPECT_EQ(row.card.detail(), row.detail);
    EXPECT_EQ(row.card.sizeDescription(), row.size);
    EXPECT_EQ(row.card.noun(), row.noun);
    EXPECT_EQ(row.card.isDrive(), row.isDrive);
    EXPECT_EQ(nounFor(row.card), row.noun);
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
  EXPECT_EQ(Card{SimulatedCard::fake}, Card{SimulatedCard::fake});
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

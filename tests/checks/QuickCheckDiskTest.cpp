#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

#include <cstdint>
#include <string>

#include "DiskFixtures.h"
#include "checks/QuickCheck.h"
#include "devices/FileDescriptorDevice.h"
#include "support/TempDir.h"

// The Quick Check on real block devices: loop devices over FUSE disks that
// behave like counterfeit cards, in the geometries sellers use.

namespace vellum {
namespace {

using ::testing::ThrowsMessage;

using testing::FuseDisk;
using testing::LoopDevice;
using Overflow = SimulatedDevice::Overflow;
using Verdict = QuickCheck::Result::Verdict;
constexpr std::uint64_t MiB = 1 << 20, GiB = 1 << 30, GB = 1'000'000'000;

// withJournal: as for every real card, which brings the cache flush.
QuickCheck::Result quickCheck(const FuseDisk::Options& options, QuickCheck check = {},
                              bool withJournal = false) {
  const FuseDisk disk(options);
  const LoopDevice loop(disk.file(), {.directIo = true});
  UniqueFd fd(::open(loop.path().c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(fd.valid()) << loop.path();
  std::uint64_t size = 0;
  EXPECT_EQ(::ioctl(fd.get(), BLKGETSIZE64, &size), 0);
  FileDescriptorDevice device(std::move(fd), loop.path(), size, 512);
  // The first units hold data that must survive the check.
  const Bytes data = [] {
    Bytes bytes(MiB);
    for (std::size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
    return bytes;
  }();
  device.write(0, data);
  check.readSampleBytes = 8 * MiB;
  const testing::TempDir journals;
  std::optional<QuickCheck::JournalPlace> journal;
  if (withJournal) journal = QuickCheck::JournalPlace{journals.path(), {}};
  const QuickCheck::Result result = check.run(device, CancellationFlag{}, {}, journal);
  EXPECT_EQ(device.read(0, MiB), data) << "data not restored";
  return result;
}

// A fake whose controller keeps the last 64 MiB written in memory answers the
// read-back of every test block from there. Unless more than that is written
// in between, it passes as genuine.
TEST(QuickCheckOnDisks, AWriteCacheDoesNotHideAFake) {
  VL_REQUIRE_FUSE_DISKS();
  constexpr std::uint64_t cache = 64 * MiB;
  for (const auto& [claimed, real, overflow] : {std::tuple{2 * GiB, 192 * MiB, Overflow::wrap},
                                                {1 * GB, 300 * MiB, Overflow::discard},
                                                {64 * GB, 48 * MiB, Overflow::combined}}) {
    const FuseDisk::Options fake{
        .size = claimed, .realCapacity = real, .overflow = overflow, .cacheBytes = cache};
    const auto r = quickCheck(fake, {}, true);
    EXPECT_EQ(r.verdict, Verdict::counterfeit) << claimed;
    EXPECT_LE(r.verifiedBytes, real) << claimed;
    EXPECT_GE(r.verifiedBytes, real - real / 1000) << claimed;
    if (overflow == Overflow::wrap) {
      EXPECT_EQ(quickCheck(fake, QuickCheck{.cacheFlushBytes = 0, .clock = {}}, true).verdict,
                Verdict::genuine)
          << "the cache did not fool the check without its flush";
    }
  }
  const auto genuine = quickCheck({.size = 512 * MiB, .cacheBytes = cache}, {}, true);
  EXPECT_EQ(std::tuple(genuine.verdict, genuine.pointsIntact), std::tuple(Verdict::genuine, 1025));
}

// A state folder on a full disk: the journal can't be kept, so the check
// stops before writing anything, and says where.
TEST(QuickCheckOnDisks, AFullJournalDiskStopsTheCheckBeforeAnyWrite) {
  VL_REQUIRE_LOOP_DEVICES();  // root, for the mount
  const testing::TempDir dir;
  ASSERT_EQ(::mount("tmpfs", dir.path().c_str(), "tmpfs", 0, "size=1m"), 0) << errno;
  SimulatedDevice card(64 * MiB, std::nullopt, Overflow::wrap, 512);
  card.write(0, Bytes(64 * MiB, 0x77));
  const Bytes before = card.storage();
  const auto folder = dir.path() / "vellum-check";
  EXPECT_THAT(
      [&] {
        QuickCheck{}.run(card, CancellationFlag{}, {}, QuickCheck::JournalPlace{folder, {}});
      },
      ThrowsMessage<JournalError>(
          "Couldn't keep the undo journal in " + folder.string() +
          " (No space left on device), so nothing was written to the card. Free some "
          "space there or make the folder writable, then run the Quick Check again."));
  ::umount2(dir.path().c_str(), MNT_DETACH);
  EXPECT_TRUE(card.storage() == before);
}

}  // namespace
}  // namespace vellum

#include <gtest/gtest.h>

#include <fstream>

#include "FakePlatform.h"
#include "bytes/DeviceError.h"
#include "session/Session.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::FakePlatform;
using testing::TempDir;
using Verdict = QuickCheck::Result::Verdict;

template <class Result>
const Result& as(const CheckOutcome& outcome) {
  return std::get<Result>(outcome);
}

// The RunError a run ends with (the test fails when it gives an outcome).
RunError failure(Session& session, RunRequest request, const RunHooks& hooks = {},
                 const CancellationFlag& cancel = CancellationFlag{}) {
  try {
    session.run(request, cancel, hooks);
  } catch (const RunError& error) {
    return error;
  }
  ADD_FAILURE() << "the run gave an outcome";
  return RunError(RunError::Failed{""});
}

RunRequest request(CheckAction action, Card card) {
  RunRequest made;
  made.action = action;
  made.target = RunTarget::of(std::move(card));
  return made;
}

std::unique_ptr<SimulatedDevice> fakeDisk(std::uint64_t claimed, std::uint64_t real) {
  return std::make_unique<SimulatedDevice>(claimed, real, SimulatedDevice::Overflow::wrap, 512);
}

// A demo card is one device for the whole session: what a run writes, the
// next run sees. Nothing is opened on a disk for it.
TEST(Session, DemoCardsKeepWhatWasWritten) {
  FakePlatform platform;
  Session session(platform);
  SimulatedDevice& device = session.simulatedDevice(SimulatedCard::genuine);
  RunRequest full = request(CheckAction::full, Card{SimulatedCard::genuine});
  EXPECT_EQ(as<FullTest::Result>(session.run(full, CancellationFlag{}, {})).verdict,
            FullTest::Result::Verdict::genuine);
  EXPECT_EQ(&session.simulatedDevice(SimulatedCard::genuine), &device);
  EXPECT_NE(device.storage()[4096], 0);
  EXPECT_TRUE(failure(session, request(CheckAction::format, Card{SimulatedCard::fake}))
                  .is<RunError::Refused>());
  EXPECT_EQ(platform.opensForWriting, 0);
}

TEST(Session, BacksUpBeforeErasingAndErasesNothingWhenTheBackupFails) {
  FakePlatform platform;
  Session session(platform);
  platform.add("sdb", fakeDisk(64 << 20, 64 << 20));
  SimulatedDevice& disk = *platform.disks["sdb"].device;
  const std::vector<std::uint8_t> photo(512, 0xAB);
  disk.write(0, photo);
  const TempDir dir;
  const Card card{platform.disks["sdb"].listed};
  const CancellationFlag cancel;

  // A folder that doesn't exist: the backup fails and the card is untouched.
  RunRequest broken = request(CheckAction::wipe, card);
  broken.backupTo = dir.path() / "missing" / "backup.img";
  EXPECT_TRUE(failure(session, broken).is<RunError::BackupFailed>());
  // A backup onto the card being erased is refused before anything happens.
  RunRequest onCard = request(CheckAction::full, card);
  onCard.backupTo = "/media/on-card/backup.img";
  const RunError refused = failure(session, onCard);
  EXPECT_TRUE(refused.is<RunError::Refused>());
  EXPECT_EQ(refused.description(),
            "/media/on-card/backup.img is on the card that is about to be erased. Save the backup "
            "on another disk.");
  // A stopped backup: nothing erased either.
  CancellationFlag stopped;
  stopped.cancel();
  RunRequest cancelled = request(CheckAction::wipe, card);
  cancelled.backupTo = dir.path() / "stopped.img";
  EXPECT_EQ(failure(session, cancelled, {}, stopped).description(),
            "The backup was stopped before anything was written: nothing was erased.");
  EXPECT_EQ(platform.opensForWriting, 0);
  EXPECT_EQ(disk.storage()[0], 0xAB);

  // Declining the confirmation also stops before the backup.
  RunHooks declining;
  declining.confirm = [](const RunTarget& target) { return target.confirmWord() != "sdb"; };
  RunRequest declined = request(CheckAction::wipe, card);
  declined.backupTo = dir.path() / "declined.img";
  EXPECT_TRUE(failure(session, declined, declining).is<RunError::NotConfirmed>());
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "declined.img"));

  RunRequest wipe = request(CheckAction::wipe, card);
  wipe.backupTo = dir.path() / "backup.img";
  EXPECT_TRUE(as<Wipe::Result>(session.run(wipe, cancel, {})).isComplete());
  std::ifstream saved(dir.path() / "backup.img", std::ios::binary);
  std::vector<char> head(512);
  saved.read(head.data(), 512);
  EXPECT_EQ(static_cast<std::uint8_t>(head[0]), 0xAB);
  EXPECT_EQ(std::filesystem::file_size(dir.path() / "backup.img"), 64u << 20);
  EXPECT_EQ(disk.storage()[0], 0);
}

TEST(Session, OnlyACounterfeitQuickCheckLetsADiskOver4TBBeErased) {
  FakePlatform platform;
  Session session(platform);
  constexpr std::uint64_t k5TB = 5'000'000'000'000;
  platform.add("sdb", fakeDisk(k5TB, 32 << 20));  // fake: wraps at 32 MiB
  platform.add("sdc", fakeDisk(k5TB, 16 << 20));  // never checked
  platform.add("sdd", fakeDisk(64 << 20, 64 << 20));
  const CancellationFlag cancel;
  RunHooks declining;  // gets past the guard, then stops
  declining.confirm = [](const RunTarget&) { return false; };

  for (const char* name : {"sdb", "sdc"}) {
    const Card card{platform.disks[name].listed};
    const RunError before = failure(session, request(CheckAction::wipe, card), declining);
    EXPECT_TRUE(before.is<RunError::NeedsQuickCheck>()) << name;
    EXPECT_EQ(before.as<RunError::NeedsQuickCheck>()->disk, name);
  }
  RunRequest fake = request(CheckAction::quick, Card{platform.disks["sdb"].listed});
  EXPECT_EQ(as<QuickCheck::Result>(session.run(fake, cancel, {})).verdict, Verdict::counterfeit);
  EXPECT_EQ(session.provenFake("sdb"), std::optional<std::uint64_t>(32 << 20));
  EXPECT_TRUE(
      failure(session, request(CheckAction::full, Card{platform.disks["sdb"].listed}), declining)
          .is<RunError::NotConfirmed>());

  // The proven fake is formatted over the capacity that stores data only.
  RunRequest format = request(CheckAction::format, Card{platform.disks["sdb"].listed});
  EXPECT_EQ(std::get<Formatted>(session.run(format, cancel, {})).usableBytes,
            std::optional<std::uint64_t>(32 << 20));
  ASSERT_EQ(platform.formats.size(), 1u);
  EXPECT_EQ(platform.formats[0].fileSystem, FileSystem::fat32);
  EXPECT_EQ(platform.formats[0].name, "UNTITLED");

  // A demo card never counts as proven: it has no disk to unlock.
  RunRequest demo = request(CheckAction::quick, Card{SimulatedCard::fake});
  session.run(demo, cancel, {});
  EXPECT_FALSE(session.provenFake("sim-fake"));
  EXPECT_FALSE(session.provenFake("sdc"));
  RunRequest genuine = request(CheckAction::quick, Card{platform.disks["sdd"].listed});
  EXPECT_EQ(as<QuickCheck::Result>(session.run(genuine, cancel, {})).verdict, Verdict::genuine);
  EXPECT_FALSE(session.provenFake("sdd"));
  // Nor does a failing one: its capacity is real, only some of it is bad.
  platform.onOpen = [](testing::FaultyDevice& device) {
    device.afterRead = [&device](std::uint64_t offset, std::span<std::uint8_t> bytes) {
      if (device.writes > 0 && offset == 8 << 20 && !bytes.empty()) bytes[100] ^= 0xFF;
    };
  };
  EXPECT_EQ(as<QuickCheck::Result>(session.run(genuine, cancel, {})).verdict, Verdict::unreliable);
  EXPECT_FALSE(session.provenFake("sdd"));
}

TEST(Session, FailuresKeepTheirKind) {
  FakePlatform platform;
  Session session(platform);
  platform.add("sdb", fakeDisk(64 << 20, 64 << 20));
  const Card card{platform.disks["sdb"].listed};

  // A card swapped for another since it was listed is not written.
  platform.disks["sdb"].mediaNow = "Other Reader";
  const RunError swapped = failure(session, request(CheckAction::quick, card));
  EXPECT_EQ(swapped.description(),
            "The disk at sdb changed since you selected it. Nothing was written. Select the card "
            "again.");
  EXPECT_EQ(platform.opensForWriting, 0);
  platform.disks["sdb"].mediaNow = "Card Reader";

  platform.disks["sdb"].refusal = "sdb is write-protected.";
  EXPECT_TRUE(failure(session, request(CheckAction::quick, card)).is<RunError::Refused>());
  platform.disks["sdb"].refusal.clear();

  // Failed writes are counted into a result; a flush that fails ends the
  // run as a failing card.
  platform.onOpen = [](testing::FaultyDevice& device) {
    device.beforeSynchronize = [] { throw WriteError::writeFailed(0, EIO); };
  };
  const RunError failing = failure(session, request(CheckAction::full, card));
  EXPECT_TRUE(failing.is<RunError::DeviceFailing>()) << failing.description();
  EXPECT_EQ(failing.description(),
            "sdb: Write failed at offset 0: Input/output error. The card may be failing or "
            "write-protected.");

  // A stop during a Quick Check says the data was put back, and the volumes
  // it unmounted are mounted again.
  platform.onOpen = nullptr;
  platform.mounted.insert("sdb");
  CancellationFlag stop;
  RunHooks stopping;
  stopping.progress = [&](const CheckProgress&) { stop.cancel(); };
  std::vector<Notice> notices;
  stopping.notice = [&](const Notice& notice) { notices.push_back(notice); };
  const RunError cancelled = failure(session, request(CheckAction::quick, card), stopping, stop);
  EXPECT_TRUE(cancelled.is<RunError::Cancelled>());
  EXPECT_EQ(cancelled.description(),
            "Everything the Quick Check wrote was put back; the card holds your data as before.");
  EXPECT_EQ(platform.remounted, 1);
  // A harmless fact: it informs, it does not alarm.
  EXPECT_EQ(notices, (std::vector<Notice>{{Notice::Level::info, "Mounted its volume again."}}));
}

// A card pulled out in the middle of a Quick Check: the message says how to
// get the data back, nothing else writes to the card until then, and the
// restore gives back every byte.
TEST(Session, APulledCardIsRefusedUntilItsDataIsPutBack) {
  FakePlatform platform;
  Session session(platform);
  platform.add("sdb", fakeDisk(16 << 20, 16 << 20));
  SimulatedDevice& device = *platform.disks["sdb"].device;
  device.write(0, Bytes(16 << 20, 0x5A));
  const Bytes before = device.storage();
  const Card card{platform.disks["sdb"].listed};
  platform.mounted.insert("sdb");

  platform.onOpen = [](testing::FaultyDevice& faulty) {
    faulty.beforeWrite = [&faulty](std::uint64_t, std::size_t) {
      if (faulty.writes > 300) throw WriteError::removed("/dev/sdb");
    };
  };
  const RunError pulled = failure(session, request(CheckAction::quick, card));
  EXPECT_EQ(pulled.description(),
            "sdb was removed before the Quick Check had put back everything it wrote. Your data "
            "is kept in the undo journal: insert the card again, then choose Put Data Back.");
  EXPECT_FALSE(device.storage() == before);
  EXPECT_EQ(platform.remounted, 0) << "mounted again with test data on it";
  platform.onOpen = nullptr;

  RunTarget target = RunTarget::of(card);
  EXPECT_EQ(session.interruptedChecks(target).size(), 1u);
  for (const CheckAction action : {CheckAction::quick, CheckAction::wipe, CheckAction::format}) {
    EXPECT_EQ(failure(session, request(action, card)).description(),
              "sdb still holds test data from a Quick Check that was interrupted. To put its data "
              "back, choose Put Data Back first.");
  }
  // Another card of the same model in the same reader is left alone, and the
  // journal stays for the real one.
  const Bytes pulledCard = device.storage();
  const Bytes otherCard(16 << 20, 0x33);
  device.write(0, otherCard);
  const std::vector<Session::Restored> other = session.restore(target, {});
  ASSERT_EQ(other.size(), 1u);
  EXPECT_TRUE(other[0].kept);
  EXPECT_TRUE(device.storage() == otherCard);
  EXPECT_EQ(session.interruptedChecks(target).size(), 1u);

  device.write(0, pulledCard);
  const std::vector<Session::Restored> restored = session.restore(target, {});
  ASSERT_EQ(restored.size(), 1u);
  EXPECT_EQ(restored[0].report.restored, 300);
  EXPECT_TRUE(device.storage() == before);
  EXPECT_EQ(platform.remounted, 2);
  EXPECT_TRUE(session.interruptedChecks(target).empty());
  EXPECT_TRUE(session.restore(target, {}).empty());
}

}  // namespace
}  // namespace vellum

#include <sys/stat.h>

#include "checks/CheckTestSupport.h"
#include "checks/QuickCheck.h"
#include "checks/UndoJournal.h"
#include "support/TempDir.h"

// The undo journal: whenever a Quick Check stops dead (the card pulled out,
// the process gone), restoring from its journal gives the card back its bytes.

namespace vellum {
namespace {

using namespace testing;

const JournalCard kCard{"sdx", 0, "Test Reader", ""};

// Runs a Quick Check whose card "disappears" at write k: that write and all
// later ones fail as a pulled card's would. With tear, a large write first
// damages the start of what it was rewriting, as flash losing power can.
// Returns whether the check ended early.
bool runUntilPulled(SimulatedDevice& card, const std::filesystem::path& folder, int k, bool tear) {
  FaultyDevice faulty(card);
  faulty.beforeWrite = [&](std::uint64_t offset, std::size_t length) {
    if (faulty.writes < k) return;
    if (tear && faulty.writes == k && length > 4096) card.write(offset, Bytes(512, 0xEE));
    throw WriteError::removed("/dev/sdx");
  };
  QuickCheck check;
  check.readSampleBytes = 0;
  check.cacheFlushBytes = 2 * kMiB;
  JournalCard who = kCard;
  who.sizeBytes = card.size();
  try {
    check.run(faulty, CancellationFlag{}, {}, QuickCheck::JournalPlace{folder, who});
    return false;
  } catch (const WriteError& error) {
    EXPECT_TRUE(error.is<WriteError::Removed>()) << error.description();
    return true;
  }
}

// The writes of an uninterrupted check: their number, and which of them
// rewrite an area (the cache flush) rather than a single test point.
std::pair<int, std::vector<int>> writesOfACheck(std::uint64_t size, std::uint64_t real) {
  SimulatedDevice card(size, real, Overflow::wrap, 512);
  std::vector<int> areaWrites;
  FaultyDevice faulty(card);
  faulty.beforeWrite = [&](std::uint64_t, std::size_t length) {
    if (length > 4096) areaWrites.push_back(faulty.writes);
  };
  const TempDir folder;
  QuickCheck check;
  check.readSampleBytes = 0;
  check.cacheFlushBytes = 2 * kMiB;
  check.run(faulty, CancellationFlag{}, {}, QuickCheck::JournalPlace{folder.path(), kCard});
  return {faulty.writes, areaWrites};
}

TEST(UndoJournal, EveryInterruptedCheckIsUndoneFromItsJournal) {
  // A genuine card and a fake that wraps (several refinement rounds).
  for (const auto& [size, real] :
       {std::pair{16 * kMiB, 16 * kMiB}, std::pair{64 * kMiB, 6 * kMiB + 12 * kKiB}}) {
    const auto [writes, areaWrites] = writesOfACheck(size, real);
    ASSERT_GT(areaWrites.size(), 10u);
    std::set<int> moments;
    for (int i = 0; i < 20; ++i)
      moments.insert(1 + i * writes / 20);
    for (std::size_t i = 0; i < areaWrites.size(); i += areaWrites.size() / 6)
      moments.insert(areaWrites[i]);
    int tornAreas = 0;
    for (const int k : moments) {
      const TempDir folder;
      SimulatedDevice card(size, real, Overflow::wrap, 512);
      const Bytes before = fillWithNoise(card, static_cast<std::uint32_t>(k));
      ASSERT_TRUE(runUntilPulled(card, folder.path(), k, true)) << k;
      const std::vector<PendingJournal> journals = pendingJournals(folder.path());
      ASSERT_EQ(journals.size(), 1u) << k;
      EXPECT_EQ(journals[0].card.sizeBytes, size);
      const RestoreReport report = restoreFromJournal(journals[0], card);
      removeJournal(journals[0].path);
      EXPECT_TRUE(card.storage() == before) << "write " << k << " of a " << real << " card";
      EXPECT_TRUE(report.changedSince.empty()) << k;
      EXPECT_TRUE(pendingJournals(folder.path()).empty()) << k;
      tornAreas += report.areaBytesRestored > 0;
    }
    EXPECT_GE(tornAreas, 5) << size;
  }
}

TEST(UndoJournal, PlacesWrittenSinceAreLeftAloneAndRestoringTwiceIsHarmless) {
  const TempDir folder;
  SimulatedDevice card(8 * kMiB, std::nullopt, Overflow::wrap, 512);
  Bytes expected = fillWithNoise(card);
  ASSERT_TRUE(runUntilPulled(card, folder.path(), 600, false));
  // Unit 0 is always a test point; the user wrote over it before restoring.
  const Bytes mine = noise(4096, 99);
  card.write(0, mine);
  std::copy(mine.begin(), mine.end(), expected.begin());
  const PendingJournal journal = pendingJournals(folder.path()).at(0);
  const std::filesystem::path copy = folder.path() / "copy.undo";
  std::filesystem::copy_file(journal.path, copy);

  const RestoreReport report = restoreFromJournal(journal, card);
  EXPECT_TRUE(report.provenSameCard);
  EXPECT_EQ(report.changedSince, std::vector<std::uint64_t>{0});
  EXPECT_GT(report.restored, 0);
  EXPECT_TRUE(card.storage() == expected);

  // The same journal again (say, from a backup): nothing holds its blocks.
  const RestoreReport again = restoreFromJournal({copy, journal.card, journal.nonce}, card);
  EXPECT_EQ(std::tuple(again.restored, again.areaBytesRestored, again.provenSameCard),
            std::tuple(0, 0, false));
  EXPECT_TRUE(card.storage() == expected);
}

}  // namespace
}  // namespace vellum

#include <gtest/gtest.h>

#include "session/RunProgress.h"

namespace vellum {
namespace {

using Phase = CheckProgress::Phase;

// A Full Test after a backup: three steps, one figure that never goes back,
// and a phase that comes twice (reading) moves on only forwards.
TEST(RunProgress, StepsFollowThePhasesAndTheFigureNeverGoesBack) {
  RunProgress run(CheckAction::full, true);
  EXPECT_EQ(run.overall().steps, 3);
  EXPECT_FALSE(run.phase());

  run.update({Phase::reading, 50, 100, 1e6}, 1);
  EXPECT_EQ(run.overall().step, 1);
  EXPECT_DOUBLE_EQ(run.overall().fraction, 1.0 / 6);
  run.update({Phase::writing, 0, 100, 1e6}, 2);
  EXPECT_EQ(run.overall().step, 2);
  EXPECT_DOUBLE_EQ(run.overall().fraction, 1.0 / 3);
  // A late record of the backup, then the phase's own count starting over.
  run.update({Phase::reading, 99, 100, 1e6}, 3);
  EXPECT_EQ(run.overall().step, 2);
  run.update({Phase::writing, 100, 100, 1e6}, 4);
  run.update({Phase::verifying, 0, 100, 1e6}, 5);
  EXPECT_EQ(run.phase(), Phase::verifying);
  EXPECT_DOUBLE_EQ(run.overall().fraction, 2.0 / 3);
  run.update({Phase::verifying, 100, 100, 1e6}, 6);
  EXPECT_DOUBLE_EQ(run.overall().fraction, 1.0);

  // The Quick Check's sample read is its last step, after putting data back.
  RunProgress quick(CheckAction::quick, true);  // no backup before a Quick Check
  EXPECT_EQ(quick.overall().steps, 3);
  quick.update({Phase::reading, 1, 2, 1e6}, 1);
  EXPECT_EQ(quick.overall().step, 3);
  EXPECT_EQ(RunProgress(CheckAction::format, false).overall().steps, 1);
}

TEST(RunProgress, TimeLeftComesFromTheSmoothedPaceOnceThereIsEnoughOfIt) {
  RunProgress run(CheckAction::health, false);
  // 1% a second for two seconds: too early to say.
  run.update({Phase::reading, 1, 100, 1e6}, 1);
  run.update({Phase::reading, 2, 100, 1e6}, 2);
  EXPECT_FALSE(run.overall().secondsLeft);
  for (int second = 3; second <= 10; ++second)
    run.update({Phase::reading, static_cast<std::uint64_t>(second), 100, 1e6}, second);
  ASSERT_TRUE(run.overall().secondsLeft);
  EXPECT_NEAR(*run.overall().secondsLeft, 90, 1);
  // A stall of a second lowers the pace but does not swing the estimate wildly.
  run.update({Phase::reading, 10, 100, 1e6}, 11);
  EXPECT_GT(*run.overall().secondsLeft, 90);
  EXPECT_LT(*run.overall().secondsLeft, 150);
}

}  // namespace
}  // namespace vellum

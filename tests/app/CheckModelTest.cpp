#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QSettings>
#include <QTest>
#include <future>

#include "app/CheckModel.h"
#include "session/FakePlatform.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::FakePlatform;

void useSettings(std::initializer_list<std::pair<QString, QVariant>> values) {
  QSettings settings;
  settings.clear();
  for (const auto& [key, value] : values)
    settings.setValue(key, value);
  settings.sync();
}

// A model over an in-memory platform; `fake` stays valid as long as it.
struct Fixture {
  FakePlatform* fake = nullptr;
  std::unique_ptr<CheckModel> model;

  explicit Fixture(bool simulate) {
    useSettings({{"VLSimulateCards", simulate}});
    auto platform = std::make_unique<FakePlatform>();
    fake = platform.get();
    fake->add("sdb", makeDevice(SimulatedCard::fake));
    model = std::make_unique<CheckModel>(std::move(platform));
  }

  void refresh() {
    model->refresh();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !model->isRefreshing(); }, 10'000));
  }
  // Waits for the run to leave the running stage.
  void settle() {
    ASSERT_TRUE(QTest::qWaitFor([&] { return !model->isRunning(); }, 60'000));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !model->isRefreshing(); }, 10'000));
  }
};

// Progress is fed by hand while the run waits on the card opening.
TEST(CheckModelTest, ProgressKeepsTheLast400SamplesOfPhasesThatMoveData) {
  using Phase = CheckProgress::Phase;
  Fixture f(false);
  std::promise<void> opened;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  f.fake->onOpen = [&](testing::FaultyDevice&) {
    opened.set_value();
    released.wait();
  };
  f.refresh();
  const Card card = f.model->cards().at(0);
  f.model->run(card, CheckAction::full);
  EXPECT_EQ(f.model->statusLine(),
            "Waiting for access to the card. You may be asked for an administrator password.");
  EXPECT_EQ(f.model->stepStatus(), "Full Test is starting\u2026");
  f.model->run(card, CheckAction::wipe);  // one run at a time: ignored
  EXPECT_EQ(f.model->stage(), (CheckModel::Stage{CheckModel::Running{CheckAction::full, card}}));
  opened.get_future().wait();

  f.model->update({Phase::probing, 1, 10, 9e6});
  f.model->update({Phase::restoring, 1, 10, 9e6});
  f.model->update({Phase::writing, 1, 10, std::nullopt});
  EXPECT_TRUE(f.model->speedHistory().isEmpty());
  f.model->update({Phase::writing, 999, 1000, 5e6});
  EXPECT_EQ(f.model->speedHistory(), QList<double>{5.0});
  // The step bar gives the whole run's figure: writing is its first half.
  EXPECT_EQ(f.model->stepStatus(), "Full Test: 49%. Keep the card connected.");
  for (int sample = 1; sample <= 400; ++sample)
    f.model->update({Phase::verifying, 1, 1000, sample * 1e6});
  ASSERT_EQ(f.model->speedHistory().size(), CheckModel::kMaxSpeedSamples);
  EXPECT_EQ(f.model->speedHistory().front(), 1.0);
  EXPECT_EQ(f.model->speedHistory().back(), 400.0);
  // The writing samples have scrolled out; the verifying mark holds at the start.
  EXPECT_EQ(f.model->phaseMarks(), (std::vector<CheckModel::PhaseMark>{{0, Phase::verifying}}));

  f.model->cancelFlag().cancel();
  release.set_value();
  f.settle();
  EXPECT_EQ(f.model->stage(), CheckModel::Stage{CheckModel::Home{}});
  // A stop the user confirmed is told as a line on the home screen, not a box.
  ASSERT_EQ(f.model->notices().size(), 1u);
  EXPECT_EQ(f.model->notices()[0].level, Notice::Level::warning);
  EXPECT_EQ(f.model->notices()[0].text,
            "The card is now partly overwritten. Run the test again, or format the card, before "
            "using it.");
}

// The listing changes under a run as on a real desktop: the result keeps the
// card it ran on, formatting from it reaches the same disk, and a disk
// swapped or pulled in the meantime is refused, never written.
TEST(CheckModelTest, AResultKeepsItsCardAndFindsItsDiskAgain) {
  Fixture f(false);
  f.fake->add("sdc", makeDevice(SimulatedCard::genuine));
  f.refresh();
  const Card chosen = f.model->cards().at(1);
  f.model->select(chosen);
  f.model->run(chosen, CheckAction::full);
  f.settle();
  const auto* result = std::get_if<CheckModel::Result>(&f.model->stage());
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->card, chosen);
  // The test overwrote the volume: the listed disk is another card now.
  EXPECT_FALSE(f.model->selected());
  const std::optional<Card> again = f.model->listedAgain(result->card);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->id(), "sdc");
  EXPECT_TRUE(again->disk()->volumeNames.empty());

  f.model->run(*again, CheckAction::format, std::nullopt, FormatChoice{FileSystem::fat32, "cam"});
  f.settle();
  ASSERT_EQ(f.fake->formats.size(), 1u);
  EXPECT_EQ(f.fake->formats[0].disk, "sdc");
  EXPECT_EQ(f.fake->opened, (std::vector<std::string>{"sdc"}));

  // Another card in the same slot under the same name: refused.
  const Card formatted = f.model->listedAgain(*again).value();
  f.fake->swap("sdc");
  f.refresh();
  EXPECT_FALSE(f.model->listedAgain(formatted));
  f.model->run(formatted, CheckAction::wipe);
  f.settle();
  const auto* failed = std::get_if<CheckModel::Failed>(&f.model->stage());
  ASSERT_NE(failed, nullptr);
  EXPECT_EQ(failed->message,
            "The disk at sdc changed since you selected it. Nothing was written. Select the card "
            "again.");
  // The read-only scan does not read a swapped card either.
  f.model->done();
  f.settle();
  f.model->run(formatted, CheckAction::health);
  f.settle();
  EXPECT_TRUE(std::holds_alternative<CheckModel::Failed>(f.model->stage()));
  EXPECT_EQ(f.fake->opened, (std::vector<std::string>{"sdc"}));
}

TEST(CheckModelTest, RefreshDropsASelectedDiskThatChangedOrLeft) {
  Fixture f(false);
  f.fake->add("sdc", makeDevice(SimulatedCard::genuine));
  f.refresh();
  ASSERT_EQ(f.model->cards().size(), 2u);
  EXPECT_FALSE(f.model->selected());  // only demo mode selects by itself

  f.model->select(f.model->cards().at(0));
  f.refresh();
  EXPECT_EQ(f.model->selected(), f.model->cards().at(0));
  f.fake->disks.at("sdb").listed.volumeNames = {"NO NAME"};
  f.refresh();
  EXPECT_FALSE(f.model->selected());

  f.model->select(f.model->cards().at(1));
  f.fake->disks.erase("sdc");
  f.refresh();
  EXPECT_FALSE(f.model->selected());
  EXPECT_EQ(f.model->stepStatus(), "Insert a card or drive and choose it below.");
}

// Automatic runs are for demo cards only, and never format.
TEST(CheckModelTest, AutoRunFollowsTheSettingsButNeverFormats) {
  Fixture real(false);
  useSettings({{"VLAutoCard", "fake"}, {"VLAutoRun", "quick"}});
  real.model->autoRunIfRequested();
  EXPECT_FALSE(real.model->selected() || real.model->isRunning());
  Fixture demo(true);
  useSettings({{"VLAutoCard", "fake"}, {"VLAutoRun", "format"}});
  demo.model->autoRunIfRequested();
  EXPECT_EQ(demo.model->selected(), Card{SimulatedCard::fake});
  EXPECT_FALSE(demo.model->isRunning());
}

// Run under the sanitizers: a model destroyed mid-run must never be touched
// by the run's late news.
TEST(CheckModelTest, AModelDestroyedDuringARunIsNeverTouched) {
  Fixture f(true);
  f.refresh();
  f.model->run(f.model->cards().at(0), CheckAction::wipe);
  ASSERT_TRUE(QTest::qWaitFor([&] { return f.model->progress().has_value(); }, 10'000));
  auto link = std::make_shared<ModelLink>();
  {
    // News already queued for the model when it goes away is discarded too.
    const ProgressRelay relay(link);
    link->model = f.model.get();
    relay.send({CheckProgress::Phase::wiping, 1, 2, 1e6});
    link->model = nullptr;
  }
  f.model.reset();
  QTest::qWait(200);
  ProgressRelay(link).send({});
}

}  // namespace
}  // namespace vellum

int main(int argc, char** argv) {
  // Settings go to a folder of this run, never the user's.
  const vellum::testing::TempDir config;
  qputenv("XDG_CONFIG_HOME", config.path().c_str());
  QCoreApplication application(argc, argv);
  QCoreApplication::setOrganizationName("VellumCheckTests");
  QCoreApplication::setApplicationName("CheckModelTest");
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

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
  f.model->select(f.model->cards().at(0));
  f.model->run(CheckAction::full);
  EXPECT_EQ(f.model->statusLine(),
            "Waiting for access to the card. You may be asked for an administrator password.");
  EXPECT_EQ(f.model->stepStatus(), "Full Test is starting\u2026");
  f.model->run(CheckAction::wipe);  // one run at a time: ignored
  EXPECT_EQ(f.model->stage(), CheckModel::Stage{CheckModel::Running{CheckAction::full}});
  opened.get_future().wait();

  f.model->update({Phase::probing, 1, 10, 9e6});
  f.model->update({Phase::restoring, 1, 10, 9e6});
  f.model->update({Phase::writing, 1, 10, std::nullopt});
  EXPECT_TRUE(f.model->speedHistory().isEmpty());
  f.model->update({Phase::writing, 999, 1000, 5e6});
  EXPECT_EQ(f.model->speedHistory(), QList<double>{5.0});
  EXPECT_EQ(f.model->stepStatus(), "Full Test: 99%. Keep the card connected.");
  for (int sample = 1; sample <= 400; ++sample)
    f.model->update({Phase::verifying, 1, 1000, sample * 1e6});
  ASSERT_EQ(f.model->speedHistory().size(), CheckModel::kMaxSpeedSamples);
  EXPECT_EQ(f.model->speedHistory().front(), 1.0);
  EXPECT_EQ(f.model->speedHistory().back(), 400.0);

  f.model->cancelFlag().cancel();
  release.set_value();
  f.settle();
  EXPECT_EQ(f.model->stage(), CheckModel::Stage{CheckModel::Home{}});
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
  f.model->run(CheckAction::wipe);
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

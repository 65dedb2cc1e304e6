#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTest>

#include "DiskFixtures.h"
#include "app/CheckModel.h"
#include "app/DiskWatcher.h"
#include "session/LinuxPlatform.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

bool lists(const CheckModel& model, const std::string& name) {
  for (const Card& card : model.cards()) {
    if (card.id() == name) return true;
  }
  return false;
}

// A disk attached and detached shows up in, and leaves, the card list by
// itself, as a card inserted into a reader would.
TEST(DiskWatcher, TheListFollowsADiskThatComesAndGoes) {
  VL_REQUIRE_LOOP_DEVICES();
  qputenv("VL_ALLOW_DISK_IMAGES", "1");  // read once, by the platform made below
  CheckModel model(std::make_unique<LinuxPlatform>(), false);
  DiskWatcher watcher;
  QObject::connect(&watcher, &DiskWatcher::changed, &model, &CheckModel::refresh);
  model.refresh();
  ASSERT_TRUE(QTest::qWaitFor([&] { return !model.isRefreshing(); }, 10'000));

  const testing::TempDir dir;
  const std::string image = dir.file("card.img");
  testing::createSparseFile(image, 8 << 20);
  std::string name;
  {
    const testing::LoopDevice loop(image);
    name = loop.name();
    EXPECT_TRUE(QTest::qWaitFor([&] { return lists(model, name); }, 5'000))
        << name << " was not listed (" << (watcher.usesEvents() ? "events" : "polling") << ")";
    for (const Card& card : model.cards()) {
      if (card.id() == name) model.select(card);
    }
  }
  EXPECT_TRUE(QTest::qWaitFor([&] { return !lists(model, name); }, 5'000));
  EXPECT_FALSE(model.selected());
  qunsetenv("VL_ALLOW_DISK_IMAGES");
}

}  // namespace
}  // namespace vellum

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

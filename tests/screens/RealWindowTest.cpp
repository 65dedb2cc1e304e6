#include <gtest/gtest.h>
#include <sys/mount.h>

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QProcess>
#include <QPushButton>
#include <QTest>
#include <filesystem>
#include <fstream>

#include "DiskFixtures.h"
#include "ScriptedPrompts.h"
#include "app/CheckModel.h"
#include "platform/Process.h"
#include "screens/ConfirmEraseSheet.h"
#include "screens/HomeScreen.h"
#include "screens/MainWindow.h"
#include "screens/ResultScreens.h"
#include "session/LinuxPlatform.h"
#include "support/TempDir.h"

// The application's window on the real system, under a virtual X display:
// two loop devices with mounted volumes stand for two cards in readers, and
// the kernel's I/O counters say which of them was touched.

namespace vellum {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;

// An ext4 volume on a loop device, mounted at a folder named like a card's
// volume, for one scope.
struct MountedCard {
  testing::LoopDevice loop;
  std::string point;
  MountedCard(const std::string& image, const std::string& at) : loop(image), point(at) {
    // Initialised in full now: no background initialisation after mounting
    // reads the disk while the test counts its reads.
    runProcess({findProgram("mkfs.ext4").value(), "-q", "-F", "-E",
                "lazy_itable_init=0,lazy_journal_init=0", loop.path()});
    std::filesystem::create_directories(point);
    // Read-only: the file system itself never touches the disk meanwhile.
    mounted = ::mount(loop.path().c_str(), point.c_str(), "ext4", MS_RDONLY, nullptr) == 0;
  }
  ~MountedCard() { ::umount2(point.c_str(), MNT_DETACH); }
  MountedCard(const MountedCard&) = delete;
  MountedCard& operator=(const MountedCard&) = delete;
  bool mounted = false;
};

// Sectors the kernel has read from the disk since it was attached.
std::uint64_t sectorsRead(const std::string& name) {
  std::ifstream stat("/sys/block/" + name + "/stat");
  std::uint64_t ios = 0, merges = 0, sectors = 0;
  stat >> ios >> merges >> sectors;
  return sectors;
}

TEST(RealWindow, AFullTestStaysWithItsDiskAndTheOtherIsNeverRead) {
  VL_REQUIRE_LOOP_DEVICES();
  for (const char* tool : {"mkfs.ext4", "mkfs.fat", "sfdisk", "partx"}) {
    if (!findProgram(tool)) GTEST_SKIP() << "needs " << tool;
  }
  const testing::TempDir dir;
  testing::createSparseFile(dir.file("a.img"), 64 * kMiB);
  testing::createSparseFile(dir.file("b.img"), 64 * kMiB);
  const MountedCard a(dir.file("a.img"), dir.file("CARDA"));
  const MountedCard b(dir.file("b.img"), dir.file("CARDB"));
  ASSERT_TRUE(a.mounted && b.mounted);
  const std::string other = a.loop.name(), tested = b.loop.name();

  CheckModel model(std::make_unique<LinuxPlatform>(), false);
  testing::ScriptedPrompts prompts;
  MainWindow window(model, prompts);
  window.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
  // Active, so that keyboard focus moves as it does for a user.
  window.activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
  ASSERT_TRUE(QTest::qWaitFor([&] { return !model.isRefreshing(); }, 10'000));
  const auto settle = [&] {
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return !model.isRunning() && !model.isRefreshing(); }, 120'000));
  };
  const auto click = [](QPushButton* button) {
    ASSERT_TRUE(button && button->isVisible() && button->isEnabled());
    QTest::mouseClick(button, Qt::LeftButton);
  };
  const std::uint64_t otherBefore = sectorsRead(other);

  // Choose CARDB by clicking its row.
  QListWidget* list = window.home()->cardList();
  int row = -1;
  for (std::size_t i = 0; i < model.cards().size(); ++i) {
    if (model.cards()[i].id() == tested) row = static_cast<int>(i);
  }
  ASSERT_GE(row, 0) << tested << " is not listed";
  EXPECT_EQ(model.cards()[static_cast<std::size_t>(row)].title(), "CARDB");
  QTest::mouseClick(list->viewport(), Qt::LeftButton, {},
                    list->visualItemRect(list->item(row)).center());
  click(window.home()->runButton(CheckAction::full));
  ConfirmEraseSheet* sheet = nullptr;
  ASSERT_TRUE(QTest::qWaitFor([&] {
    sheet = window.findChild<ConfirmEraseSheet*>();
    return sheet && sheet->isVisible();
  }));
  QTest::keyClicks(sheet->typedField(), QString::fromStdString(tested));
  click(sheet->eraseButton());
  settle();

  // The result, its report and its file name name the disk it ran on.
  ASSERT_EQ(window.currentScreen(), window.result());
  EXPECT_EQ(window.result()->headline()->text(), "Genuine capacity");
  prompts.saveTo = QString::fromStdString(dir.file("report"));
  click(window.result()->saveButton());
  EXPECT_TRUE(prompts.asked.back().contains("Vellum Check Full Test CARDB " +
                                            QString::fromStdString(tested) + " "))
      << prompts.asked.back().toStdString();
  QProcess text;
  text.start("/usr/bin/pdftotext", {"-layout", *prompts.saveTo + ".pdf", "-"});
  ASSERT_TRUE(text.waitForFinished());
  EXPECT_TRUE(text.readAllStandardOutput().contains("CARDB (67.1 MB)"));

  // Format for a Camera… formats that disk, and its result names it too.
  click(window.result()->formatButton());
  ASSERT_TRUE(QTest::qWaitFor([&] {
    sheet = window.findChild<ConfirmEraseSheet*>();
    return sheet && sheet->isVisible() && sheet->action() == CheckAction::format;
  }));
  EXPECT_EQ(sheet->card().id(), tested);
  QTest::keyClicks(sheet->typedField(), QString::fromStdString(tested));
  click(sheet->eraseButton());
  settle();
  ASSERT_EQ(window.currentScreen(), window.result());
  ASSERT_TRUE(std::holds_alternative<CheckModel::Result>(model.stage()));
  EXPECT_EQ(std::get<CheckModel::Result>(model.stage()).action, CheckAction::format);
  click(window.result()->saveButton());
  EXPECT_TRUE(prompts.asked.back().contains(" " + QString::fromStdString(tested) + " "))
      << prompts.asked.back().toStdString();

  // Done: nothing is chosen for the user, and the other disk was never read.
  click(window.result()->doneButton());
  settle();
  // A keyboard user tabs into the list: focus alone chooses nothing.
  for (int tab = 0; tab < 12 && !list->hasFocus(); ++tab)
    QTest::keyClick(QApplication::focusWidget() ? QApplication::focusWidget() : &window,
                    Qt::Key_Tab);
  EXPECT_TRUE(list->hasFocus());
  QTest::qWait(50);
  EXPECT_FALSE(model.selected());
  EXPECT_EQ(list->currentRow(), -1);
  EXPECT_FALSE(window.home()->runButton(CheckAction::health)->isEnabled());
  EXPECT_EQ(sectorsRead(other), otherBefore);
}

}  // namespace
}  // namespace vellum

int main(int argc, char** argv) {
  const vellum::testing::TempDir config;
  qputenv("XDG_CONFIG_HOME", config.path().c_str());
  // The GUI lists loop devices only when disk images may be tested.
  qputenv("VL_ALLOW_DISK_IMAGES", "1");
  QApplication application(argc, argv);
  QApplication::setOrganizationName("VellumCheckTests");
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

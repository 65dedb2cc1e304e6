#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QProcess>
#include <QPushButton>
#include <QRegularExpression>
#include <QSettings>
#include <QTest>

#include "ScriptedPrompts.h"
#include "app/CheckModel.h"
#include "screens/ConfirmEraseSheet.h"
#include "screens/HomeScreen.h"
#include "screens/MainWindow.h"
#include "screens/Prompts.h"
#include "screens/ResultScreens.h"
#include "screens/RunningScreen.h"
#include "screens/StyleParts.h"
#include "session/FakePlatform.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::FakePlatform;
using testing::ScriptedPrompts;

void grab(QWidget& widget, const std::string& name) {
  QCoreApplication::processEvents();  // pending layout requests
  widget.grab().save(QString(VELLUM_BUILD_DIR) + "/screen-" + QString::fromStdString(name) +
                     ".png");
}

// The window at its minimum size and as large as a 1280 × 800 screen allows,
// then back at its default size.
void grabSizes(QWidget& window, const std::string& name) {
  const QSize size = window.size();
  window.resize(window.minimumSize());
  grab(window, name + "-minimum");
  window.resize(1280, 770);
  grab(window, name + "-1280x800");
  window.resize(size);
}

struct App {
  FakePlatform* fake = nullptr;
  std::unique_ptr<CheckModel> model;
  ScriptedPrompts prompts;
  std::unique_ptr<MainWindow> window;

  explicit App(bool demo, int disks = 1) {
    auto platform = std::make_unique<FakePlatform>();
    fake = platform.get();
    fake->add("sdb", makeDevice(SimulatedCard::genuine));
    if (disks > 1) fake->add("sdc", makeDevice(SimulatedCard::genuine));
    model = std::make_unique<CheckModel>(std::move(platform), demo);
    window = std::make_unique<MainWindow>(*model, prompts);
    window->show();
    settle();
  }
  ~App() {
    window.reset();
    model.reset();
  }
  void settle() const {
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return !model->isRunning() && !model->isRefreshing(); }, 120'000));
  }
  void click(QPushButton* button) const {
    ASSERT_NE(button, nullptr);
    ASSERT_TRUE(button->isVisible() && button->isEnabled()) << button->text().toStdString();
    QTest::mouseClick(button, Qt::LeftButton);
  }
  void choose(int row) const {
    QListWidget* list = window->home()->cardList();
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {},
                      list->visualItemRect(list->item(row)).center());
  }
  // The erase sheet that a click opened.
  ConfirmEraseSheet* sheet() const {
    ConfirmEraseSheet* found = nullptr;
    EXPECT_TRUE(QTest::qWaitFor([&] {
      found = window->findChild<ConfirmEraseSheet*>();
      return found && found->isVisible();
    }));
    return found;
  }
  void typeAndErase(const QString& word) const {
    ConfirmEraseSheet* opened = sheet();
    ASSERT_NE(opened, nullptr);
    QTest::keyClicks(opened->typedField(), word);
    click(opened->eraseButton());
  }
  std::string headline() const { return window->result()->headline()->text().toStdString(); }
};

TEST(Screens, EveryDemoRunGoesFromHomeToItsResultAndBack) {
  App app(true);
  ASSERT_EQ(app.window->currentScreen(), app.window->home());
  EXPECT_EQ(app.window->stepBar()->accessibleName(), "Step 2 of 4");
  // Demo cards cannot be formatted.
  EXPECT_FALSE(app.window->home()->formatButton()->isEnabled());
  grab(*app.window, "home");
  grabSizes(*app.window, "home");

  app.choose(1);  // the fake demo card
  app.click(app.window->home()->runButton(CheckAction::quick));
  ASSERT_EQ(app.prompts.asked.size(), 1u);
  EXPECT_TRUE(
      app.prompts.asked[0].startsWith("Run a Quick Check? | Vellum writes small test "
                                      "blocks across the card \u201CDemo card (fake)\u201D, "));
  EXPECT_EQ(app.window->currentScreen(), app.window->running());
  app.settle();
  ASSERT_EQ(app.window->currentScreen(), app.window->result());
  EXPECT_EQ(app.window->stepBar()->current(), 4);
  EXPECT_EQ(app.window->result()->chart(), nullptr);
  EXPECT_FALSE(app.window->result()->formatButton()->isVisible());
  grab(*app.window, "result-quick-fake");
  app.click(app.window->result()->doneButton());
  EXPECT_EQ(app.window->currentScreen(), app.window->home());

  app.choose(2);  // failing
  app.click(app.window->home()->runButton(CheckAction::health));
  app.settle();
  EXPECT_EQ(app.headline(), "Unreadable areas");
  grab(*app.window, "result-health-failing");
  app.click(app.window->result()->doneButton());

  app.choose(0);  // genuine
  app.click(app.window->home()->runButton(CheckAction::full));
  ConfirmEraseSheet* sheet = app.sheet();
  ASSERT_NE(sheet, nullptr);
  QTest::keyClicks(sheet->typedField(), "Erase");
  EXPECT_FALSE(sheet->eraseButton()->isEnabled());
  sheet->typedField()->clear();
  QTest::keyClicks(sheet->typedField(), "erase");
  EXPECT_TRUE(sheet->eraseButton()->isEnabled());
  grab(*sheet, "sheet-full-demo");
  app.click(sheet->eraseButton());
  ASSERT_TRUE(QTest::qWaitFor([&] { return app.model->progress().has_value(); }, 10'000));
  EXPECT_TRUE(app.window->running()->phase()->text().endsWith(" of 2)"))
      << app.window->running()->phase()->text().toStdString();
  grab(*app.window, "running-full");
  grabSizes(*app.window, "running-full");
  app.settle();
  EXPECT_NE(app.window->result()->chart(), nullptr);
  grab(*app.window, "result-full-genuine");
  app.click(app.window->result()->doneButton());

  app.click(app.window->home()->runButton(CheckAction::wipe));
  app.typeAndErase("erase");
  app.settle();
  EXPECT_EQ(app.window->result()->saveButton()->text(), "Save Certificate\u2026");
  grab(*app.window, "result-wipe");

  // The certificate is saved where the panel said, and shown in the file manager.
  const testing::TempDir folder;
  const QString pdf = QString::fromStdString(folder.file("certificate.pdf"));
  app.prompts.saveTo = pdf;
  app.click(app.window->result()->saveButton());
  EXPECT_TRUE(
      app.prompts.asked.back().startsWith("Save Erasure Certificate | Vellum Check Wipe Demo "
                                          "card (genuine) "));
  ASSERT_EQ(app.prompts.shown, std::vector<QString>{pdf});
  QProcess text;
  text.start("/usr/bin/pdftotext", {pdf, "-"});
  ASSERT_TRUE(text.waitForFinished());
  EXPECT_TRUE(text.readAllStandardOutput().contains("Certificate of erasure"));
}

TEST(Screens, StopReturnsHomeAndDisksAskForTheirOwnName) {
  App app(false);
  EXPECT_EQ(app.window->stepBar()->status(), "Insert a card or drive and choose it below.");
  EXPECT_FALSE(app.window->home()->formatButton()->isEnabled());
  app.choose(0);
  EXPECT_TRUE(app.window->home()->formatButton()->isEnabled());

  // The word is the disk's own name, exactly.
  app.click(app.window->home()->runButton(CheckAction::full));
  ConfirmEraseSheet* sheet = app.sheet();
  ASSERT_NE(sheet, nullptr);
  QTest::keyClicks(sheet->typedField(), "SDB");
  EXPECT_FALSE(sheet->eraseButton()->isEnabled());
  sheet->typedField()->setText("sdb");
  EXPECT_TRUE(sheet->eraseButton()->isEnabled());
  EXPECT_NE(sheet->findChild<QPushButton*>(), nullptr);
  grab(*sheet, "sheet-full-disk");
  app.click(sheet->eraseButton());
  ASSERT_TRUE(QTest::qWaitFor([&] { return app.model->progress().has_value(); }, 10'000));
  // Closing the window asks first; keeping going keeps the window.
  app.prompts.answerYes = false;
  EXPECT_FALSE(app.window->close());
  EXPECT_TRUE(app.model->isRunning());
  app.prompts.answerYes = true;
  app.click(app.window->running()->stopButton());
  EXPECT_TRUE(
      app.prompts.asked.back().startsWith("Stop the Full Test? | The card has already "
                                          "been partly overwritten"));
  EXPECT_TRUE(app.prompts.enterCancels);  // Enter keeps going
  const std::size_t asked = app.prompts.asked.size();
  app.settle();
  EXPECT_EQ(app.window->currentScreen(), app.window->home());
  // What the stop left is a line on the home screen, not another box.
  EXPECT_EQ(app.prompts.asked.size(), asked);
  ASSERT_EQ(app.window->home()->notices()->texts().size(), 1);
  EXPECT_TRUE(app.window->home()->notices()->texts()[0].contains("is now partly overwritten"));
  grab(*app.window, "home-after-stop");
  // The overwritten disk lists as another card: chosen again before formatting.
  EXPECT_FALSE(app.window->home()->formatButton()->isEnabled());
  app.choose(0);

  app.click(app.window->home()->formatButton());
  sheet = app.sheet();
  ASSERT_NE(sheet, nullptr);
  grab(*sheet, "sheet-format");
  QTest::keyClicks(sheet->typedField(), "sdb");
  app.click(sheet->eraseButton());
  app.settle();
  EXPECT_EQ(app.window->currentScreen(), app.window->result());
  ASSERT_EQ(app.fake->formats.size(), 1u);
  EXPECT_EQ(app.fake->formats[0].name, "UNTITLED");
  app.click(app.window->result()->doneButton());

  app.fake->disks.at("sdb").refusal = "sdb is write-protected.";
  app.choose(0);
  app.click(app.window->home()->runButton(CheckAction::wipe));
  app.typeAndErase("sdb");
  app.settle();
  ASSERT_EQ(app.window->currentScreen(), app.window->failure());
  EXPECT_EQ(app.window->failure()->message()->text(), "sdb is write-protected.");
  grab(*app.window, "failure");
  app.click(app.window->failure()->backButton());
  EXPECT_EQ(app.window->currentScreen(), app.window->home());
}

// A disk whose Quick Check was cut short shows why, and Put Data Back gives
// its data back and says so.
TEST(Screens, PutDataBackAfterAnInterruptedQuickCheck) {
  App app(false);
  SimulatedDevice& device = *app.fake->disks["sdb"].device;
  const Bytes before = device.storage();
  app.fake->onOpen = [](testing::FaultyDevice& faulty) {
    faulty.beforeWrite = [&faulty](std::uint64_t, std::size_t) {
      if (faulty.writes > 50) throw WriteError::removed("/dev/sdb");
    };
  };
  app.choose(0);
  app.click(app.window->home()->runButton(CheckAction::quick));
  app.settle();
  ASSERT_EQ(app.window->currentScreen(), app.window->failure());
  EXPECT_TRUE(app.window->failure()->message()->text().startsWith(
      "sdb was removed before the Quick Check"));
  app.fake->onOpen = nullptr;
  app.click(app.window->failure()->findChild<QPushButton*>());
  app.settle();
  QPushButton* putBack = app.window->home()->restoreButton();
  ASSERT_TRUE(QTest::qWaitFor([&] { return putBack->isVisible(); }));
  grab(*app.window, "home-put-data-back");
  app.click(putBack);
  ASSERT_TRUE(QTest::qWaitFor([&] { return !putBack->isVisible(); }, 10'000));
  EXPECT_TRUE(device.storage() == before);
  EXPECT_EQ(app.window->home()->notices()->texts(),
            QStringList{"sdb: put back the data at 50 places that an interrupted Quick Check "
                        "had overwritten."});
}

// Two disks whose listing changes after every erasing run, as on a desktop
// that re-reads a disk's volumes: the result, its report, its file name and
// its Format button stay with the disk that was tested, nothing is selected
// that the user did not choose, and no other disk is ever opened.
TEST(Screens, AResultStaysWithItsDiskAndNothingIsChosenForTheUser) {
  App app(false, 2);
  app.fake->disks.at("sdc").listed.mediaName = "Generic Flash Disk";
  app.fake->disks.at("sdc").mediaNow = "Generic Flash Disk";
  app.fake->disks.at("sdc").listed.volumeNames = {"CARDB"};
  app.model->refresh();
  app.settle();
  app.choose(1);
  app.click(app.window->home()->runButton(CheckAction::full));
  app.typeAndErase("sdc");
  app.settle();
  ASSERT_EQ(app.window->currentScreen(), app.window->result());
  EXPECT_FALSE(app.model->selected());  // the listing changed under it
  EXPECT_EQ(app.headline(), "Genuine capacity");
  grab(*app.window, "result-full-drive");
  grabSizes(*app.window, "result-full-drive");

  const testing::TempDir folder;
  app.prompts.saveTo = QString::fromStdString(folder.file("report"));
  app.click(app.window->result()->saveButton());
  EXPECT_TRUE(
      app.prompts.asked.back().startsWith("Save Report | Vellum Check Full Test CARDB sdc " +
                                          QDate::currentDate().toString(Qt::ISODate)));
  QProcess text;
  text.start("/usr/bin/pdftotext", {"-layout", *app.prompts.saveTo + ".pdf", "-"});
  ASSERT_TRUE(text.waitForFinished());
  const QString page = QString::fromUtf8(text.readAllStandardOutput());
  EXPECT_TRUE(page.contains(QRegularExpression("Drive\\s+CARDB"))) << page.toStdString();
  EXPECT_FALSE(page.contains(QRegularExpression("\\bcard\\b|camera"))) << page.toStdString();

  // Format for a Camera… finds the same disk under its new listing.
  app.click(app.window->result()->formatButton());
  ConfirmEraseSheet* sheet = app.sheet();
  ASSERT_NE(sheet, nullptr);
  EXPECT_EQ(sheet->card().id(), "sdc");
  EXPECT_FALSE(sheet->exfatChosen());  // FAT32 for a card up to 32 GiB
  sheet->volumeNameField()->setText("My Photos Card");
  EXPECT_EQ(sheet->nameOnCard()->text(), "Written on the card as MYPHOTOSCAR");
  grab(*sheet, "sheet-format-from-result");
  app.typeAndErase("sdc");
  app.settle();
  ASSERT_EQ(app.fake->formats.size(), 1u);
  EXPECT_EQ(app.fake->formats[0].disk, "sdc");
  EXPECT_EQ(app.fake->formats[0].fileSystem, FileSystem::fat32);

  // Done: nothing is chosen for the user, even with the list focused.
  app.click(app.window->result()->doneButton());
  app.settle();
  QListWidget* list = app.window->home()->cardList();
  app.window->activateWindow();
  list->setFocus(Qt::TabFocusReason);
  QTest::qWait(50);
  EXPECT_EQ(list->currentRow(), -1);
  EXPECT_FALSE(app.model->selected());
  EXPECT_FALSE(app.window->home()->runButton(CheckAction::health)->isEnabled());
  EXPECT_EQ(app.window->stepBar()->status(), "Insert a card or drive and choose it below.");
  app.window->home()->start(CheckAction::health);
  EXPECT_FALSE(app.model->isRunning());
  // A key chooses: the first row.
  QTest::keyClick(list, Qt::Key_Down);
  ASSERT_TRUE(app.model->selected());
  EXPECT_EQ(app.model->selected()->id(), "sdb");
  EXPECT_EQ(app.fake->opened, std::vector<std::string>{"sdc"});
}

}  // namespace
}  // namespace vellum

int main(int argc, char** argv) {
  const vellum::testing::TempDir config;
  qputenv("XDG_CONFIG_HOME", config.path().c_str());
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication application(argc, argv);
  QApplication::setOrganizationName("VellumCheckTests");
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

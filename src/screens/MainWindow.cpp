#include "screens/MainWindow.h"

#include <QAction>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QFrame>
#include <QGuiApplication>
#include <QMenuBar>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "app/CheckModel.h"
#include "screens/HomeScreen.h"
#include "screens/Prompts.h"
#include "screens/ResultScreens.h"
#include "screens/RunningScreen.h"
#include "screens/StyleParts.h"
#include "screens/Symbols.h"
#include "updates/UpdateChecker.h"

namespace vellum {

MainWindow::MainWindow(CheckModel& model, Prompts& prompts, QWidget* parent)
    : QMainWindow(parent),
      model_(model),
      stepBar_(new StepBar({"Card", "Test", "Testing", "Result"})),
      screens_(new QStackedWidget),
      home_(new HomeScreen(model, prompts)),
      running_(new RunningScreen(model, prompts)),
      result_(new ResultScreen(model, prompts)),
      failure_(new FailureScreen(model)) {
  setWindowTitle("Vellum Check");
  setWindowIcon(applicationIcon());
  auto* central = new QWidget(this);
  auto* layout = new QVBoxLayout(central);
  layout->setContentsMargins(28, 20, 28, 20);
  layout->setSpacing(14);
  layout->addWidget(new BrandHeader(
      "Vellum Check", "Find out if a memory card or drive is genuine, fast and healthy", central));
  layout->addWidget(stepBar_);
  auto* divider = new QFrame(central);
  divider->setFrameShape(QFrame::HLine);
  divider->setFrameShadow(QFrame::Sunken);
  layout->addWidget(divider);
  for (QWidget* screen : {static_cast<QWidget*>(home_), static_cast<QWidget*>(running_),
                          static_cast<QWidget*>(result_), static_cast<QWidget*>(failure_)}) {
    screens_->addWidget(screen);
  }
  layout->addWidget(screens_, 1);
  setCentralWidget(central);
  // Fits a 1280 × 800 screen with its panel and title bar; the home screen
  // scrolls below that.
  resize(760, 730);
  setMinimumSize(560, 600);

  connect(&model, &CheckModel::alert, this,
          [this, &prompts](const QString& text) { prompts.inform(this, "Vellum Check", text); });

  QMenu* menu = menuBar()->addMenu("&Vellum Check");
  checkForUpdates_ = menu->addAction("Check for Updates\u2026");
  menu->addSeparator();
  QAction* quit = menu->addAction("&Quit");
  quit->setShortcut(QKeySequence::Quit);
  connect(quit, &QAction::triggered, this, &QWidget::close);

  // It only reads the feed; the download page opens in the browser.
  auto* updates =
      new UpdateChecker(UpdateChecker::configuredFeed(), QCoreApplication::applicationVersion(),
                        std::chrono::seconds(10), this);
  // The feed may take seconds to answer: the menu item says it is working.
  connect(checkForUpdates_, &QAction::triggered, updates, [this, updates] {
    checkForUpdates_->setEnabled(false);
    checkForUpdates_->setText("Checking for Updates\u2026");
    QGuiApplication::setOverrideCursor(Qt::BusyCursor);
    updates->check();
  });
  connect(updates, &UpdateChecker::finished, this, [this, &prompts](const UpdateCheck& check) {
    QGuiApplication::restoreOverrideCursor();
    checkForUpdates_->setText("Check for Updates\u2026");
    checkForUpdates_->setEnabled(true);
    const auto* available = std::get_if<update_check::Available>(&check);
    if (!available) {
      prompts.inform(this, "Check for Updates", describe(check));
    } else if (prompts.ask(this, "Check for Updates", describe(check), "Open Download Page",
                           "Later")) {
      QDesktopServices::openUrl(available->release.downloadPage);
    }
  });

  // The result's card, found again in the list by its medium (its volumes
  // have new names after a test or wipe), never whatever is selected.
  connect(result_, &ResultScreen::formatRequested, this, [this, &prompts](const Card& card) {
    if (const std::optional<Card> listed = model_.listedAgain(card)) {
      home_->startOn(*listed, CheckAction::format);
      return;
    }
    const QString noun = QString::fromStdString(std::string(card.noun()));
    prompts.inform(this, "The " + noun + " isn't connected",
                   QString::fromStdString(card.title() + " (" + card.id() + ")") +
                       " is no longer connected, or another " + noun +
                       " is in its place. Nothing was formatted. Connect it again, choose it "
                       "on the home screen, then choose Format for a Camera\u2026");
  });
  for (auto signal : {&CheckModel::stageChanged, &CheckModel::stepChanged}) {
    connect(&model_, signal, this, &MainWindow::showStage);
  }
  showStage();
}

QWidget* MainWindow::currentScreen() const {
  return screens_->currentWidget();
}

void MainWindow::showEvent(QShowEvent* event) {
  QMainWindow::showEvent(event);
  if (shown_) return;
  shown_ = true;
  model_.refresh();
  model_.autoRunIfRequested();
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (model_.isRunning() && !running_->askToStop()) {
    event->ignore();
    return;
  }
  QMainWindow::closeEvent(event);
}

void MainWindow::showStage() {
  const CheckModel::Stage& stage = model_.stage();
  QWidget* screen = home_;
  if (std::holds_alternative<CheckModel::Running>(stage)) screen = running_;
  if (std::holds_alternative<CheckModel::Result>(stage)) screen = result_;
  if (std::holds_alternative<CheckModel::Failed>(stage)) screen = failure_;
  screens_->setCurrentWidget(screen);
  stepBar_->setState(model_.step(), model_.stepStatus(), model_.isRunning());
}

}  // namespace vellum

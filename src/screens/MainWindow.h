#pragma once

#include <QMainWindow>

class QAction;
class QStackedWidget;

namespace vellum {

class BrandHeader;
class CheckModel;
class FailureScreen;
class HomeScreen;
class Prompts;
class ResultScreen;
class RunningScreen;
class StepBar;

// The one window: brand header, step bar, and the screen of the model's stage.
class MainWindow final : public QMainWindow {
  Q_OBJECT
 public:
  MainWindow(CheckModel& model, Prompts& prompts, QWidget* parent = nullptr);

  HomeScreen* home() const { return home_; }
  RunningScreen* running() const { return running_; }
  ResultScreen* result() const { return result_; }
  FailureScreen* failure() const { return failure_; }
  StepBar* stepBar() const { return stepBar_; }
  QWidget* currentScreen() const;
  QAction* checkForUpdatesAction() const { return checkForUpdates_; }

 protected:
  void showEvent(QShowEvent* event) override;
  // Closing during a run asks as Stop does; the run then ends (a Quick Check
  // puts the data back) before the application exits.
  void closeEvent(QCloseEvent* event) override;

 private:
  void showStage();

  CheckModel& model_;
  StepBar* stepBar_;
  QStackedWidget* screens_;
  HomeScreen* home_;
  RunningScreen* running_;
  ResultScreen* result_;
  FailureScreen* failure_;
  QAction* checkForUpdates_;
  bool shown_ = false;
};

}  // namespace vellum

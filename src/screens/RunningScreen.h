#pragma once

#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;
class QTimer;
class QVariantAnimation;

namespace vellum {

class CheckModel;
class Prompts;
class SpeedChartView;

// Live progress of the one run: phase, percent, speed, status and chart.
// The only way back is the run ending, or Stop.
class RunningScreen final : public QWidget {
  Q_OBJECT
 public:
  RunningScreen(CheckModel& model, Prompts& prompts, QWidget* parent = nullptr);

  QPushButton* stopButton() const { return stop_; }
  // Asks before stopping the run, and stops it; true when it stops (or no
  // run is under way).
  bool askToStop();
  QProgressBar* progressBar() const { return bar_; }
  SpeedChartView* chart() const { return chart_; }
  QLabel* phase() const { return phase_; }
  // Percent, speed, time spent and time left.
  QLabel* figures() const { return speed_; }

 private:
  void showStage();
  void showProgress();

  CheckModel& model_;
  Prompts& prompts_;
  QLabel* symbol_;
  QLabel* heading_;
  QLabel* phase_;
  QProgressBar* bar_;
  QLabel* speed_;
  QLabel* status_;
  SpeedChartView* chart_;
  QPushButton* stop_;
  QVariantAnimation* pulse_;
  QTimer* clock_;  // the time spent moves on between progress records
};

}  // namespace vellum

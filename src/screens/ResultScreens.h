#pragma once

#include <QWidget>

#include "summary/Card.h"

class QLabel;
class QPushButton;
class QScrollArea;

namespace vellum {

class CheckModel;
class NoticeLines;
class Prompts;

// The verdict of a finished run, what to do next, the report to save.
class ResultScreen final : public QWidget {
  Q_OBJECT
 public:
  ResultScreen(CheckModel& model, Prompts& prompts, QWidget* parent = nullptr);

  QPushButton* formatButton() const { return format_; }
  QPushButton* saveButton() const { return save_; }
  QPushButton* doneButton() const { return done_; }
  QLabel* headline() const { return headline_; }
  QWidget* chart() const { return chart_; }
  NoticeLines* notices() const { return notices_; }

 signals:
  // Format for a Camera… on the card the result is about.
  void formatRequested(const vellum::Card& card);

 private:
  void showResult();
  void saveReport();

  CheckModel& model_;
  Prompts& prompts_;
  QScrollArea* scroll_;
  QLabel* headline_ = nullptr;
  QWidget* chart_ = nullptr;
  NoticeLines* notices_ = nullptr;
  QPushButton* format_;
  QPushButton* save_;
  QPushButton* done_;
};

// Why a run could not finish, in the lower layers' own words.
class FailureScreen final : public QWidget {
  Q_OBJECT
 public:
  FailureScreen(CheckModel& model, QWidget* parent = nullptr);
  QLabel* message() const { return message_; }
  QPushButton* backButton() const { return back_; }

 private:
  CheckModel& model_;
  QLabel* message_;
  QPushButton* back_;
};

}  // namespace vellum

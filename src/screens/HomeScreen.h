#pragma once

#include <QWidget>
#include <array>

#include "summary/Card.h"
#include "summary/CheckAction.h"

class QListWidget;
class QPushButton;
class QStackedWidget;

namespace vellum {

class CheckModel;
class NoticeLines;
class Prompts;

// The card list and the tests: where every run starts.
class HomeScreen final : public QWidget {
  Q_OBJECT
 public:
  HomeScreen(CheckModel& model, Prompts& prompts, QWidget* parent = nullptr);

  // The tile's "Run …" button, in the tiles' order: quick, health, full, wipe.
  QPushButton* runButton(CheckAction action) const;
  QPushButton* formatButton() const { return format_; }
  QPushButton* refreshButton() const { return refresh_; }
  QListWidget* cardList() const { return list_; }
  // Shown while the selected card holds data of an interrupted Quick Check.
  QPushButton* restoreButton() const { return restore_; }

 public slots:
  // Asks what the action needs (a question, or the erase sheet) and runs it
  // on the selected card; nothing without one.
  void start(CheckAction action);

 public:
  // The same for a card the user pointed at elsewhere (the result's card).
  void startOn(const Card& card, CheckAction action);
  NoticeLines* notices() const { return notices_; }

 private:
  void showCards();
  void showSelection();

  CheckModel& model_;
  Prompts& prompts_;
  QListWidget* list_;
  QStackedWidget* listOrHint_;
  QPushButton* refresh_;
  QPushButton* format_;
  QWidget* restoreBanner_;
  QPushButton* restore_;
  NoticeLines* notices_;
  std::array<QPushButton*, 4> runButtons_{};
};

}  // namespace vellum

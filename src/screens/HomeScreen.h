#pragma once

#include <QWidget>
#include <array>

#include "summary/CheckAction.h"

class QListWidget;
class QPushButton;
class QStackedWidget;

namespace vellum {

class CheckModel;
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
  // Asks what the action needs (a question, or the erase sheet) and runs it.
  void start(CheckAction action);

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
  std::array<QPushButton*, 4> runButtons_{};
};

}  // namespace vellum

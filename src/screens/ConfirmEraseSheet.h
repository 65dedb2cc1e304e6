#pragma once

#include <QDialog>
#include <filesystem>
#include <optional>

#include "session/Session.h"
#include "summary/Card.h"
#include "summary/CheckAction.h"

class QLabel;
class QLineEdit;
class QPushButton;
class QRadioButton;

namespace vellum {

class Prompts;

// Asks before an action that erases the card: what it does, the format's
// file system and name, an optional backup first, and the typed word that
// unlocks the erase button.
class ConfirmEraseSheet final : public QDialog {
  Q_OBJECT
 public:
  ConfirmEraseSheet(CheckAction action, const Card& card, Prompts& prompts,
                    QWidget* parent = nullptr);

  CheckAction action() const { return action_; }
  const Card& card() const { return card_; }
  const std::optional<std::filesystem::path>& backupTo() const { return backupTo_; }
  // The file system and typed name, for a format.
  std::optional<FormatChoice> formatChoice() const;
  QPushButton* eraseButton() const { return erase_; }
  QLineEdit* typedField() const { return typed_; }
  QLineEdit* volumeNameField() const { return volumeName_; }
  QLabel* nameOnCard() const { return nameOnCard_; }
  bool exfatChosen() const;

 private:
  void chooseBackup();

  CheckAction action_;
  Card card_;
  Prompts& prompts_;
  std::string word_;
  std::optional<std::filesystem::path> backupTo_;
  QLineEdit* typed_ = nullptr;
  QPushButton* erase_ = nullptr;
  QPushButton* backup_ = nullptr;
  QRadioButton* exfat_ = nullptr;
  QLineEdit* volumeName_ = nullptr;
  QLabel* nameOnCard_ = nullptr;
};

}  // namespace vellum

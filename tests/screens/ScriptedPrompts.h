#pragma once

#include <QFileInfo>
#include <QString>
#include <optional>
#include <vector>

#include "screens/Prompts.h"

namespace vellum::testing {

// Answers the screens' questions from a script and records what was asked.
class ScriptedPrompts final : public Prompts {
 public:
  bool ask(QWidget*, const QString& title, const QString& message, const QString&, const QString&,
           bool cancelByDefault) override {
    asked.push_back(title + " | " + message);
    enterCancels = cancelByDefault;
    return answerYes;
  }
  void inform(QWidget*, const QString& title, const QString& message) override {
    asked.push_back(title + " | " + message);
  }
  // Like the desktop's panel, a name without the suffix gets it.
  std::optional<QString> saveFile(QWidget*, const QString& title, const QString& proposedName,
                                  const QString& suffix) override {
    asked.push_back(title + " | " + proposedName);
    if (saveTo && QFileInfo(*saveTo).suffix().isEmpty()) return *saveTo + "." + suffix;
    return saveTo;
  }
  void showFile(const QString& path) override { shown.push_back(path); }

  bool answerYes = true;
  bool enterCancels = false;
  std::optional<QString> saveTo;
  std::vector<QString> asked;
  std::vector<QString> shown;
};

}  // namespace vellum::testing

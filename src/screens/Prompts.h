#pragma once

#include <QString>
#include <optional>

class QWidget;

namespace vellum {

// The questions and panels the screens put to the user. The desktop's own
// dialogs in the application; tests answer through a scripted one.
class Prompts {
 public:
  virtual ~Prompts() = default;

  // A question with an accepting and a cancelling button; true when accepted.
  // Enter presses the accepting one, or the cancelling one with cancelByDefault.
  virtual bool ask(QWidget* parent, const QString& title, const QString& message,
                   const QString& accept, const QString& cancel, bool cancelByDefault = false) = 0;
  // Something went wrong that the user should read.
  virtual void inform(QWidget* parent, const QString& title, const QString& message) = 0;
  // A save panel for files ending in .suffix ("pdf", "img"), which a name
  // without one gets; none when the user cancelled. Replacing a file is
  // confirmed by the panel.
  virtual std::optional<QString> saveFile(QWidget* parent, const QString& title,
                                          const QString& proposedName, const QString& suffix) = 0;
  // Shows a saved file in the file manager.
  virtual void showFile(const QString& path) = 0;
};

class DesktopPrompts final : public Prompts {
 public:
  bool ask(QWidget* parent, const QString& title, const QString& message, const QString& accept,
           const QString& cancel, bool cancelByDefault) override;
  void inform(QWidget* parent, const QString& title, const QString& message) override;
  std::optional<QString> saveFile(QWidget* parent, const QString& title,
                                  const QString& proposedName, const QString& suffix) override;
  void showFile(const QString& path) override;
};

}  // namespace vellum

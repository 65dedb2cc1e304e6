#include "screens/Prompts.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>
#include <QPushButton>
#include <QStandardPaths>
#include <QUrl>

namespace vellum {

bool DesktopPrompts::ask(QWidget* parent, const QString& title, const QString& message,
                         const QString& accept, const QString& cancel, bool cancelByDefault) {
  QMessageBox box(QMessageBox::Question, title, title, QMessageBox::NoButton, parent);
  box.setInformativeText(message);
  QPushButton* yes = box.addButton(accept, QMessageBox::AcceptRole);
  QPushButton* no = box.addButton(cancel, QMessageBox::RejectRole);
  box.setDefaultButton(cancelByDefault ? no : yes);
  box.exec();
  return box.clickedButton() == yes;
}

void DesktopPrompts::inform(QWidget* parent, const QString& title, const QString& message) {
  QMessageBox::warning(parent, title, message);
}

std::optional<QString> DesktopPrompts::saveFile(QWidget* parent, const QString& title,
                                                const QString& proposedName,
                                                const QString& suffix) {
  QFileDialog dialog(parent, title);
  dialog.setAcceptMode(QFileDialog::AcceptSave);
  dialog.setNameFilter((suffix == "pdf" ? "PDF documents (*." : "Disk images (*.") + suffix + ")");
  dialog.setDefaultSuffix(suffix);
  dialog.setDirectory(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation));
  dialog.selectFile(proposedName);
  if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
  return dialog.selectedFiles().front();
}

void DesktopPrompts::showFile(const QString& path) {
  // The file manager selects the file where it can; otherwise its folder opens.
  QDBusMessage call = QDBusMessage::createMethodCall("org.freedesktop.FileManager1",
                                                     "/org/freedesktop/FileManager1",
                                                     "org.freedesktop.FileManager1", "ShowItems");
  call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
  const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 3000);
  if (reply.type() == QDBusMessage::ReplyMessage) return;
  QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}

}  // namespace vellum

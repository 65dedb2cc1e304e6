#include "screens/ConfirmEraseSheet.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include "platform/DiskFormatter.h"
#include "screens/Prompts.h"
#include "screens/StyleParts.h"

namespace vellum {
namespace {

QString explanation(CheckAction action, const QString& noun) {
  switch (action) {
    case CheckAction::full:
      return "The full test writes test data over the entire " + noun +
             " and checks every block. Anything on the " + noun +
             " now will be gone. Afterwards you'll be offered to format it.";
    case CheckAction::wipe:
      return "Wipe overwrites the entire " + noun +
             ", reads it all back to confirm, and checks that no file can be recovered. Note: "
             "flash memory keeps spare blocks a computer can't reach, so for top-secret data, "
             "physically destroy the " +
             noun + ".";
    case CheckAction::format:
      return "Formatting creates a fresh, empty " + noun +
             " for your camera. Files on it will be gone (though Vellum Recover may still find "
             "them; use Wipe to erase them for good).";
    case CheckAction::quick:
    case CheckAction::health:
      break;
  }
  return {};
}

}  // namespace

ConfirmEraseSheet::ConfirmEraseSheet(CheckAction action, const Card& card, Prompts& prompts,
                                     QWidget* parent)
    : QDialog(parent),
      action_(action),
      card_(card),
      prompts_(prompts),
      word_(RunTarget::of(card).confirmWord()) {
  const QString noun = QString::fromStdString(std::string(card.noun()));
  const QString title = QString::fromStdString(std::string(vellum::title(action)));
  setWindowTitle(title);
  setWindowModality(Qt::WindowModal);
  setMinimumWidth(460);

  auto* layout = new QVBoxLayout(this);
  layout->setSpacing(12);
  layout->setContentsMargins(24, 22, 24, 18);
  auto* heading = new QHBoxLayout;
  heading->setSpacing(12);
  heading->addWidget(symbolLabel("exclamationmark.triangle.fill", colors::warning, 32, this), 0,
                     Qt::AlignTop);
  auto* headings = new QVBoxLayout;
  headings->addWidget(headingLabel(title + " erases everything on this " + noun, 3, this));
  headings->addWidget(textLabel(QString::fromStdString(card.title()), this));
  heading->addLayout(headings, 1);
  layout->addLayout(heading);
  layout->addWidget(textLabel(explanation(action, noun), this));

  if (action == CheckAction::format) {
    auto* form = new QFormLayout;
    auto* systems = new QHBoxLayout;
    exfat_ = new QRadioButton("exFAT", this);
    auto* fat32 = new QRadioButton("FAT32", this);
    // As SD cards come, by the formatter's own rule: FAT32 up to 32 GB
    // (SDHC cameras refuse exFAT), exFAT above.
    const ExternalDisk* disk = card.disk();
    const bool fat = disk && disk->sizeBytes != 0 &&
                     DiskFormatter::recommended(disk->sizeBytes) == FileSystem::fat32;
    (fat ? fat32 : exfat_)->setChecked(true);
    systems->addWidget(exfat_);
    systems->addWidget(fat32);
    systems->addStretch();
    form->addRow("File system", systems);
    volumeName_ = new QLineEdit("UNTITLED", this);
    volumeName_->setAccessibleName("Card name");
    form->addRow("Card name", volumeName_);
    // How the name will be written on the card, as one types it.
    nameOnCard_ = secondaryLabel({}, this);
    form->addRow(QString(), nameOnCard_);
    layout->addLayout(form);
    const auto showNameOnCard = [this] {
      nameOnCard_->setText(
          "Written on the card as " +
          QString::fromStdString(DiskFormatter::sanitizedName(volumeName_->text().toStdString())));
    };
    connect(volumeName_, &QLineEdit::textChanged, this, showNameOnCard);
    showNameOnCard();
  }
  // A backup is offered where there is something of the user's to keep: real
  // disks, before a test or a wipe.
  if ((action == CheckAction::full || action == CheckAction::wipe) && card.disk()) {
    backup_ = new QPushButton("Back up the " + noun + " to an image file first", this);
    backup_->setCheckable(true);
    connect(backup_, &QPushButton::clicked, this, &ConfirmEraseSheet::chooseBackup);
    layout->addWidget(backup_, 0, Qt::AlignLeft);
    layout->addWidget(secondaryLabel(
        "The backup is as large as the card. Choose a disk with enough free space.", this));
  }

  auto* prompt = new QLabel(
      "To confirm, type <b>" + QString::fromStdString(word_).toHtmlEscaped() + "</b> below:", this);
  prompt->setTextFormat(Qt::RichText);
  layout->addWidget(prompt);
  typed_ = new QLineEdit(this);
  typed_->setAccessibleName("Confirmation word");
  prompt->setBuddy(typed_);
  layout->addWidget(typed_);

  auto* buttons = new QDialogButtonBox(this);
  buttons->addButton(QDialogButtonBox::Cancel);
  erase_ = buttons->addButton(action == CheckAction::format ? "Erase and Format" : "Erase and Run",
                              QDialogButtonBox::AcceptRole);
  erase_->setEnabled(false);
  // Exactly the word: case and spaces count, so a slip cannot erase another disk.
  connect(typed_, &QLineEdit::textChanged, this,
          [this](const QString& text) { erase_->setEnabled(text.toStdString() == word_); });
  connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  layout->addSpacing(6);
  layout->addWidget(buttons);
  typed_->setFocus();
}

bool ConfirmEraseSheet::exfatChosen() const {
  return exfat_ && exfat_->isChecked();
}

std::optional<FormatChoice> ConfirmEraseSheet::formatChoice() const {
  if (action_ != CheckAction::format) return std::nullopt;
  return FormatChoice{exfat_->isChecked() ? FileSystem::exfat : FileSystem::fat32,
                      volumeName_->text().toStdString()};
}

void ConfirmEraseSheet::chooseBackup() {
  const std::optional<QString> chosen = prompts_.saveFile(
      this, "Back Up Card", QString::fromStdString(card_.title()) + " backup.img", "img");
  if (chosen) backupTo_ = chosen->toStdString();
  const QString noun = QString::fromStdString(std::string(card_.noun()));
  backup_->setChecked(backupTo_.has_value());
  backup_->setText(backupTo_ ? "Back up first to " + QString::fromStdString(backupTo_->filename())
                             : "Back up the " + noun + " to an image file first");
}

}  // namespace vellum

#include "screens/HomeScreen.h"

#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QScrollArea>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "app/CheckModel.h"
#include "screens/ConfirmEraseSheet.h"
#include "screens/Prompts.h"
#include "screens/StyleParts.h"
#include "screens/Symbols.h"

namespace vellum {
namespace {

struct Tile {
  CheckAction action;
  const char* symbol;
  const char* summary;
  const char* fact;
};

constexpr std::array<Tile, 4> kTiles{{
    {CheckAction::quick, "bolt.badge.checkmark",
     "Is the capacity real? Catches fake cards and drives in about a minute.",
     "About 1 minute \u00B7 Keeps your files"},
    {CheckAction::health, "stethoscope", "Reads every block to find unreadable or slow areas.",
     "Read-only \u00B7 Your files stay untouched"},
    {CheckAction::full, "gauge.with.dots.needle.67percent",
     "Tests every block: real capacity, bad areas and true speed.",
     "Erases everything \u00B7 Can take an hour or more"},
    {CheckAction::wipe, "eraser", "Erases everything, then proves no file can be recovered.",
     "Erases everything \u00B7 Verified"},
}};

QString qText(std::string_view text) {
  return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QFrame* tileFrame(QWidget* parent) {
  auto* frame = new QFrame(parent);
  frame->setFrameShape(QFrame::StyledPanel);
  frame->setObjectName("tile");
  return frame;
}

}  // namespace

HomeScreen::HomeScreen(CheckModel& model, Prompts& prompts, QWidget* parent)
    : QWidget(parent),
      model_(model),
      prompts_(prompts),
      list_(new QListWidget(this)),
      listOrHint_(new QStackedWidget(this)),
      refresh_(new QPushButton("Refresh", this)),
      format_(new QPushButton("Format for a Camera\u2026", this)),
      restoreBanner_(tileFrame(this)),
      restore_(new QPushButton("Put Data Back", restoreBanner_)),
      notices_(new NoticeLines(this)) {
  // Scrolls rather than cutting text off in a small window.
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(0, 0, 0, 0);
  auto* scroll = new QScrollArea(this);
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  outer->addWidget(scroll);
  auto* content = new QWidget(scroll);
  scroll->setWidget(content);
  auto* layout = new QVBoxLayout(content);
  layout->setContentsMargins(0, 8, 8, 0);
  layout->setSpacing(10);
  // What the last stop or restore left the user to know.
  layout->addWidget(notices_);

  auto* cardHeader = new QHBoxLayout;
  cardHeader->addWidget(headingLabel("Card or drive", 1, this), 1);
  refresh_->setIcon(symbolIcon("arrow.clockwise", colors::secondary(this), 16));
  cardHeader->addWidget(refresh_);
  layout->addLayout(cardHeader);

  list_->setAccessibleName("Cards and drives");
  list_->setIconSize(QSize(28, 28));
  list_->setSpacing(2);
  list_->setMinimumHeight(96);
  auto* hint = new QWidget(this);
  auto* hintLayout = new QHBoxLayout(hint);
  hintLayout->addWidget(symbolLabel("sdcard", colors::secondary(this), 28, hint), 0, Qt::AlignTop);
  hintLayout->addWidget(
      textLabel("Insert a memory card (in your computer's SD slot or a card reader), or connect a "
                "USB drive or SSD. It will appear here.",
                hint),
      1);
  listOrHint_->addWidget(list_);
  listOrHint_->addWidget(hint);
  listOrHint_->setMaximumHeight(118);
  layout->addWidget(listOrHint_);

  // A Quick Check that was interrupted left test data on this card: the
  // first thing to do with it is to put the data back.
  auto* bannerLayout = new QHBoxLayout(restoreBanner_);
  bannerLayout->setContentsMargins(14, 10, 14, 10);
  bannerLayout->addWidget(
      symbolLabel("exclamationmark.triangle.fill", colors::warning, 24, restoreBanner_), 0,
      Qt::AlignTop);
  bannerLayout->addWidget(
      textLabel("A Quick Check of this card was interrupted before it had put back everything it "
                "wrote. Your data is kept; put it back before using the card.",
                restoreBanner_),
      1);
  restore_->setAccessibleName("Put Data Back");
  bannerLayout->addWidget(restore_, 0, Qt::AlignVCenter);
  restoreBanner_->setVisible(false);
  layout->addWidget(restoreBanner_);

  layout->addSpacing(6);
  layout->addWidget(headingLabel("Tests", 1, this));
  auto* tiles = new QGridLayout;
  tiles->setSpacing(10);
  for (std::size_t index = 0; index < kTiles.size(); ++index) {
    const Tile& tile = kTiles[index];
    QFrame* frame = tileFrame(this);
    auto* tileLayout = new QGridLayout(frame);
    tileLayout->setContentsMargins(14, 12, 14, 12);
    tileLayout->setHorizontalSpacing(12);
    const QString title = qText(vellum::title(tile.action));
    tileLayout->addWidget(symbolLabel(tile.symbol, colors::accent, 28, frame), 0, 0, 3, 1,
                          Qt::AlignTop);
    tileLayout->addWidget(headingLabel(title, 1, frame), 0, 1);
    tileLayout->addWidget(textLabel(tile.summary, frame), 1, 1);
    tileLayout->addWidget(secondaryLabel(tile.fact, frame), 2, 1);
    auto* run = new QPushButton("Run " + title, frame);
    run->setAccessibleName("Run " + title);
    tileLayout->addWidget(run, 3, 1, Qt::AlignLeft);
    tileLayout->setColumnStretch(1, 1);
    runButtons_[index] = run;
    connect(run, &QPushButton::clicked, this, [this, action = tile.action] { start(action); });
    tiles->addWidget(frame, static_cast<int>(index / 2), static_cast<int>(index % 2));
  }
  layout->addLayout(tiles);

  auto* oddly = new QHBoxLayout;
  oddly->addWidget(textLabel("Card behaving oddly in your camera?", this), 1);
  oddly->addWidget(format_);
  layout->addLayout(oddly);
  layout->addStretch();

  connect(refresh_, &QPushButton::clicked, &model_, &CheckModel::refresh);
  connect(restore_, &QPushButton::clicked, &model_, &CheckModel::restoreData);
  connect(&model_, &CheckModel::needsRestoreChanged, this,
          [this] { restoreBanner_->setVisible(model_.needsRestore()); });
  connect(format_, &QPushButton::clicked, this, [this] { start(CheckAction::format); });
  // Only a click or a key selects a card. Focus alone makes the first row
  // current (Qt does that for keyboard users); that row is not chosen, so
  // the current row goes back to none.
  connect(list_, &QListWidget::itemSelectionChanged, this, [this] {
    const QList<QListWidgetItem*> items = list_->selectedItems();
    const int row = items.isEmpty() ? -1 : list_->row(items.front());
    if (row >= 0 && row < static_cast<int>(model_.cards().size())) {
      model_.select(model_.cards()[static_cast<std::size_t>(row)]);
    } else {
      showSelection();  // a click that unselects changes nothing
    }
  });
  connect(list_, &QListWidget::currentRowChanged, this, [this](int row) {
    if (row < 0 || list_->item(row)->isSelected()) return;
    QMetaObject::invokeMethod(this, &HomeScreen::showSelection, Qt::QueuedConnection);
  });
  connect(&model_, &CheckModel::noticesChanged, this,
          [this] { notices_->setNotices(model_.notices()); });
  connect(&model_, &CheckModel::cardsChanged, this, &HomeScreen::showCards);
  connect(&model_, &CheckModel::selectedChanged, this, &HomeScreen::showSelection);
  connect(&model_, &CheckModel::isRefreshingChanged, this,
          [this] { refresh_->setEnabled(!model_.isRefreshing()); });
  showCards();
}

QPushButton* HomeScreen::runButton(CheckAction action) const {
  for (std::size_t index = 0; index < kTiles.size(); ++index) {
    if (kTiles[index].action == action) return runButtons_[index];
  }
  return nullptr;
}

void HomeScreen::showCards() {
  const QSignalBlocker quiet(list_);
  list_->clear();
  for (const Card& card : model_.cards()) {
    auto* item = new QListWidgetItem(list_);
    item->setText(QString::fromStdString(card.title()) + "\n" +
                  QString::fromStdString(card.detail()) + " \u00B7 " +
                  QString::fromStdString(card.sizeDescription()) +
                  (model_.hasInterruptedCheck(card) ? " \u00B7 Data to put back" : ""));
    item->setIcon(symbolIcon("sdcard", colors::accent, 28));
  }
  listOrHint_->setCurrentIndex(model_.cards().empty() ? 1 : 0);
  showSelection();
}

void HomeScreen::showSelection() {
  const QSignalBlocker quiet(list_);
  const auto& cards = model_.cards();
  int row = -1;
  for (std::size_t index = 0; index < cards.size(); ++index) {
    const bool selected = model_.selected() == cards[index];
    if (selected) row = static_cast<int>(index);
    list_->item(static_cast<int>(index))
        ->setData(Qt::DecorationRole, selected
                                          ? symbolIcon("checkmark.circle.fill", colors::accent, 28)
                                          : symbolIcon("sdcard", colors::secondary(this), 28));
  }
  if (row >= 0) {
    list_->setCurrentRow(row);
  } else {
    list_->selectionModel()->clear();
  }
  const bool haveCard = model_.selected().has_value();
  for (QPushButton* button : runButtons_)
    button->setEnabled(haveCard);
  // Demo cards live in memory and cannot be formatted.
  format_->setEnabled(haveCard && model_.selected()->disk() != nullptr);
}

void HomeScreen::start(CheckAction action) {
  if (model_.selected()) startOn(*model_.selected(), action);
}

void HomeScreen::startOn(const Card& card, CheckAction action) {
  if (model_.isRunning()) return;
  const QString noun = qText(card.noun());
  switch (action) {
    case CheckAction::health:
      model_.run(card, CheckAction::health);
      return;
    case CheckAction::quick: {
      // Named, so that a question never stands for a card the user did not
      // mean: “CARDB” (sdc), or the demo card's title.
      QString named = noun + " \u201C" + QString::fromStdString(card.title()) + "\u201D";
      if (card.disk() && card.title() != card.id()) named += " (" + qText(card.id()) + ")";
      if (prompts_.ask(this, "Run a Quick Check?",
                       "Vellum writes small test blocks across the " + named +
                           ", reads them back, then puts your original data back. Keep the " +
                           noun + " connected until it finishes, about a minute.",
                       "Run Quick Check", "Cancel")) {
        model_.run(card, CheckAction::quick);
      }
      return;
    }
    case CheckAction::full:
    case CheckAction::wipe:
    case CheckAction::format: {
      auto* sheet = new ConfirmEraseSheet(action, card, prompts_, window());
      sheet->setAttribute(Qt::WA_DeleteOnClose);
      // Runs exactly the card it confirmed; the run refuses it if that disk
      // changed meanwhile.
      connect(sheet, &QDialog::accepted, this, [this, sheet] {
        model_.run(sheet->card(), sheet->action(), sheet->backupTo(), sheet->formatChoice());
      });
      sheet->open();
      return;
    }
  }
}

}  // namespace vellum

#include "screens/RunningScreen.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>
#include <QVariantAnimation>

#include "app/CheckModel.h"
#include "screens/Prompts.h"
#include "screens/StyleParts.h"
#include "screens/Symbols.h"

namespace vellum {
namespace {

QString phaseText(const std::optional<CheckProgress>& progress) {
  if (!progress) return "Starting\u2026";
  switch (progress->phase) {
    case CheckProgress::Phase::probing:
      return "Testing points across the card";
    case CheckProgress::Phase::restoring:
      return "Putting your data back";
    case CheckProgress::Phase::writing:
      return "Writing test data";
    case CheckProgress::Phase::verifying:
      return "Checking every block";
    case CheckProgress::Phase::reading:
      return "Reading";
    case CheckProgress::Phase::wiping:
      return "Overwriting";
    case CheckProgress::Phase::scanningForFiles:
      return "Looking for recoverable files";
  }
  return {};
}

QString stopMessage(CheckAction action) {
  switch (action) {
    case CheckAction::quick:
      return "Your data will be put back before it stops.";
    case CheckAction::full:
      return "The card has already been partly overwritten, and the test won't have a result.";
    case CheckAction::health:
      return "Nothing has been written; stopping is safe.";
    case CheckAction::wipe:
      return "Part of the card has already been erased, but not all of it.";
    case CheckAction::format:
      break;
  }
  return {};
}

}  // namespace

RunningScreen::RunningScreen(CheckModel& model, Prompts& prompts, QWidget* parent)
    : QWidget(parent),
      model_(model),
      prompts_(prompts),
      symbol_(new QLabel(this)),
      heading_(headingLabel({}, 5, this)),
      phase_(textLabel({}, this)),
      bar_(new QProgressBar(this)),
      speed_(textLabel({}, this)),
      status_(textLabel({}, this)),
      chart_(new SpeedChartView(this)),
      stop_(new QPushButton("Stop", this)),
      pulse_(new QVariantAnimation(this)) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 16, 0, 0);
  layout->setSpacing(10);
  auto* top = new QHBoxLayout;
  top->setSpacing(16);
  symbol_->setFixedSize(48, 48);
  top->addWidget(symbol_, 0, Qt::AlignTop);
  auto* texts = new QVBoxLayout;
  texts->addWidget(heading_);
  texts->addWidget(phase_);
  top->addLayout(texts, 1);
  layout->addLayout(top);

  bar_->setRange(0, 1000);
  bar_->setTextVisible(false);
  bar_->setAccessibleName("Progress");
  layout->addWidget(bar_);
  auto* figures = new QHBoxLayout;
  speed_->setAlignment(Qt::AlignRight);
  speed_->setWordWrap(false);
  speed_->setObjectName("speed");
  figures->addWidget(status_, 1);
  figures->addWidget(speed_, 0, Qt::AlignTop);
  layout->addLayout(figures);
  layout->addSpacing(8);
  layout->addWidget(secondaryLabel("Speed, MB/s", this));
  chart_->setMaximumHeight(260);
  layout->addWidget(chart_, 1);
  layout->addStretch();
  layout->addWidget(stop_, 0, Qt::AlignRight);

  // The card symbol breathes while the run lasts.
  pulse_->setStartValue(0.35);
  pulse_->setKeyValueAt(0.5, 1.0);
  pulse_->setEndValue(0.35);
  pulse_->setDuration(1600);
  pulse_->setLoopCount(-1);
  connect(pulse_, &QVariantAnimation::valueChanged, this, [this](const QVariant& value) {
    QColor color = colors::accent;
    color.setAlphaF(value.toFloat());
    symbol_->setPixmap(symbolPixmap("sdcard.fill", color, 48, devicePixelRatioF()));
  });
  symbol_->setPixmap(symbolPixmap("sdcard.fill", colors::accent, 48, devicePixelRatioF()));

  connect(stop_, &QPushButton::clicked, this, &RunningScreen::askToStop);
  connect(&model_, &CheckModel::stageChanged, this, &RunningScreen::showStage);
  connect(&model_, &CheckModel::progressChanged, this, &RunningScreen::showProgress);
  connect(&model_, &CheckModel::statusLineChanged, this,
          [this] { status_->setText(model_.statusLine()); });
  connect(&model_, &CheckModel::speedHistoryChanged, this, [this] {
    const QList<double>& history = model_.speedHistory();
    chart_->setSamples(std::vector<double>(history.begin(), history.end()));
  });
}

void RunningScreen::showStage() {
  const auto* running = std::get_if<CheckModel::Running>(&model_.stage());
  if (!running) {
    pulse_->stop();
    return;
  }
  const QString title = QString::fromUtf8(vellum::title(running->action).data());
  const QString card = model_.selected() ? QString::fromStdString(model_.selected()->title())
                                         : QStringLiteral("card");
  heading_->setText(title + ": " + card);
  stop_->setEnabled(true);
  chart_->setSamples({});
  showProgress();
  pulse_->start();
}

void RunningScreen::showProgress() {
  const std::optional<CheckProgress>& progress = model_.progress();
  phase_->setText(phaseText(progress));
  const double fraction = progress ? progress->fraction() : 0.0;
  bar_->setValue(static_cast<int>(fraction * 1000));
  QString figures = QString::asprintf("%.0f%%", fraction * 100);
  if (progress && progress->bytesPerSecond) {
    figures += QString::asprintf("  \u00B7  %.1f MB/s", *progress->bytesPerSecond / 1e6);
  }
  speed_->setText(progress ? figures : QString());
}

bool RunningScreen::askToStop() {
  const auto* running = std::get_if<CheckModel::Running>(&model_.stage());
  if (!running) return true;
  const QString title = QString::fromUtf8(vellum::title(running->action).data());
  if (prompts_.ask(this, "Stop the " + title + "?", stopMessage(running->action), "Stop",
                   "Keep Going")) {
    model_.cancelFlag().cancel();
    stop_->setEnabled(false);
    return true;
  }
  return false;
}

}  // namespace vellum

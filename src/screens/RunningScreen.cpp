#include "screens/RunningScreen.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <QVariantAnimation>

#include "app/CheckModel.h"
#include "screens/Prompts.h"
#include "screens/StyleParts.h"
#include "screens/Symbols.h"
#include "summary/TextFormat.h"

namespace vellum {
namespace {

QString phaseText(CheckProgress::Phase phase) {
  switch (phase) {
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

// "2m 5s": whole seconds, "0s" before the first.
QString clockText(double seconds) {
  return seconds < 1 ? QStringLiteral("0s") : QString::fromStdString(durationText(seconds));
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
      pulse_(new QVariantAnimation(this)),
      clock_(new QTimer(this)) {
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
  speed_->setObjectName("speed");
  layout->addWidget(speed_);
  layout->addWidget(status_);
  layout->addSpacing(8);
  layout->addWidget(secondaryLabel("Speed", this));
  chart_->setMinimumHeight(110);
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
    std::vector<SpeedChartMark> marks;
    for (const CheckModel::PhaseMark& mark : model_.phaseMarks()) {
      marks.push_back({static_cast<std::size_t>(mark.sample), phaseText(mark.phase)});
    }
    chart_->setSamples(std::vector<double>(history.begin(), history.end()), std::move(marks));
  });
  clock_->setInterval(1000);
  connect(clock_, &QTimer::timeout, this, &RunningScreen::showProgress);
}

void RunningScreen::showStage() {
  const auto* running = std::get_if<CheckModel::Running>(&model_.stage());
  if (!running) {
    pulse_->stop();
    clock_->stop();
    return;
  }
  const QString title = QString::fromUtf8(vellum::title(running->action).data());
  heading_->setText(title + ": " + QString::fromStdString(running->card.title()));
  stop_->setEnabled(true);
  chart_->setSamples({});
  showProgress();
  pulse_->start();
  clock_->start();
}

void RunningScreen::showProgress() {
  const std::optional<CheckProgress>& progress = model_.progress();
  const std::optional<RunProgress>& run = model_.runProgress();
  if (!progress || !run || !run->phase()) {
    phase_->setText("Starting\u2026");
    bar_->setValue(0);
    speed_->setText(clockText(model_.elapsedSeconds()) + " so far");
    return;
  }
  const RunProgress::Overall& overall = run->overall();
  QString phase = phaseText(*run->phase());
  if (overall.steps > 1) {
    phase += QString(" (step %1 of %2)").arg(overall.step).arg(overall.steps);
  }
  phase_->setText(phase);
  // One bar for the whole run, so it never goes back between steps; the
  // step bar above shows the same percent.
  bar_->setValue(static_cast<int>(overall.fraction * 1000));
  QString figures = QString::number(static_cast<int>(overall.fraction * 100)) + "%";
  if (progress->bytesPerSecond) {
    figures += QString::asprintf("  \u00B7  %.1f MB/s", *progress->bytesPerSecond / 1e6);
  }
  figures += "  \u00B7  " + clockText(model_.elapsedSeconds()) + " so far";
  if (overall.secondsLeft && *overall.secondsLeft >= 1) {
    figures += ", about " + clockText(*overall.secondsLeft) + " left";
  }
  speed_->setText(figures);
}

bool RunningScreen::askToStop() {
  const auto* running = std::get_if<CheckModel::Running>(&model_.stage());
  if (!running) return true;
  const QString title = QString::fromUtf8(vellum::title(running->action).data());
  // Enter keeps going: stopping is the choice that loses work.
  if (prompts_.ask(this, "Stop the " + title + "?", stopMessage(running->action), "Stop",
                   "Keep Going", true)) {
    model_.cancelFlag().cancel();
    stop_->setEnabled(false);
    return true;
  }
  return false;
}

}  // namespace vellum

#include "screens/ResultScreens.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

#include "app/CheckModel.h"
#include "report/ReportPage.h"
#include "screens/Prompts.h"
#include "screens/StyleParts.h"
#include "summary/ResultSummary.h"

namespace vellum {
namespace {

QString qText(const std::string& text) {
  return QString::fromStdString(text);
}

}  // namespace

ResultScreen::ResultScreen(CheckModel& model, Prompts& prompts, QWidget* parent)
    : QWidget(parent),
      model_(model),
      prompts_(prompts),
      scroll_(new QScrollArea(this)),
      format_(new QPushButton("Format for a Camera\u2026", this)),
      save_(new QPushButton("Save Report\u2026", this)),
      done_(new QPushButton("Done", this)) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 12, 0, 0);
  scroll_->setWidgetResizable(true);
  scroll_->setFrameShape(QFrame::NoFrame);
  layout->addWidget(scroll_, 1);
  auto* buttons = new QHBoxLayout;
  buttons->addWidget(format_);
  buttons->addStretch();
  buttons->addWidget(save_);
  buttons->addWidget(done_);
  done_->setDefault(true);
  layout->addLayout(buttons);

  connect(format_, &QPushButton::clicked, this, [this] {
    if (const auto* result = std::get_if<CheckModel::Result>(&model_.stage())) {
      emit formatRequested(result->card);
    }
  });
  connect(save_, &QPushButton::clicked, this, &ResultScreen::saveReport);
  connect(done_, &QPushButton::clicked, &model_, &CheckModel::done);
  connect(&model_, &CheckModel::stageChanged, this, &ResultScreen::showResult);
  // A notice may arrive just after the result (a volume mounted again).
  connect(&model_, &CheckModel::noticesChanged, this, [this] {
    if (notices_ && std::holds_alternative<CheckModel::Result>(model_.stage())) {
      notices_->setNotices(model_.notices());
    }
  });
}

void ResultScreen::showResult() {
  const auto* result = std::get_if<CheckModel::Result>(&model_.stage());
  if (!result) return;
  // The card it ran on, whatever the list shows now.
  const ResultSummary summary(result->outcome, result->card);
  const QColor tone = colors::of(summary.tone);

  // Built afresh for every result: the facts and advice differ in number.
  auto* body = new QWidget;
  auto* layout = new QVBoxLayout(body);
  layout->setContentsMargins(0, 0, 8, 0);
  layout->setSpacing(12);
  auto* top = new QHBoxLayout;
  top->setSpacing(14);
  top->addWidget(symbolLabel(summary.symbol, tone, 44, body), 0, Qt::AlignTop);
  headline_ = headingLabel(qText(summary.headline), 8, body);
  setTextColor(headline_, tone);
  headline_->setObjectName("headline");
  auto* texts = new QVBoxLayout;
  texts->addWidget(headline_);
  texts->addWidget(textLabel(qText(summary.explanation), body));
  top->addLayout(texts, 1);
  layout->addLayout(top);
  notices_ = new NoticeLines(body);
  notices_->setNotices(model_.notices());
  layout->addWidget(notices_);

  auto* facts = new QGridLayout;
  facts->setHorizontalSpacing(24);
  facts->setVerticalSpacing(6);
  for (std::size_t row = 0; row < summary.facts.size(); ++row) {
    QLabel* label = secondaryLabel(qText(summary.facts[row].label), body);
    label->setWordWrap(false);
    facts->addWidget(label, static_cast<int>(row), 0, Qt::AlignTop);
    facts->addWidget(textLabel(qText(summary.facts[row].value), body), static_cast<int>(row), 1);
  }
  facts->setColumnStretch(1, 1);
  layout->addLayout(facts);

  chart_ = nullptr;
  if (summary.speedCurve.size() >= 4) {
    layout->addWidget(headingLabel(qText(summary.speedCurveTitle), 1, body));
    auto* chart = new SpeedChartView(body);
    chart->setSamples(summary.speedCurve);
    chart->setMinimumHeight(150);
    chart_ = chart;
    layout->addWidget(chart);
    layout->addWidget(secondaryLabel("MB/s", body));
  }
  if (!summary.advice.empty()) {
    layout->addWidget(headingLabel("What to do", 1, body));
    for (const std::string& advice : summary.advice) {
      auto* line = new QHBoxLayout;
      line->addWidget(symbolLabel("arrow.right.circle", colors::accent, 18, body), 0, Qt::AlignTop);
      line->addWidget(textLabel(qText(advice), body), 1);
      layout->addLayout(line);
    }
  }
  layout->addStretch();
  delete scroll_->takeWidget();
  scroll_->setWidget(body);

  format_->setVisible(summary.suggestsFormat && result->card.disk() != nullptr);
  save_->setText(result->action == CheckAction::wipe ? "Save Certificate\u2026"
                                                     : "Save Report\u2026");
}

void ResultScreen::saveReport() {
  const auto* result = std::get_if<CheckModel::Result>(&model_.stage());
  if (!result) return;
  const std::optional<QString> path = prompts_.saveFile(
      this, qText(saveDialogTitle(result->action)),
      qText(proposedReportName(result->action, result->card, result->finished.date())), "pdf");
  if (!path) return;  // a cancelled save is not an error
  const ReportPage page{ResultSummary(result->outcome, result->card), result->action,
                        result->finished};
  if (!page.writePdf(*path)) {
    prompts_.inform(
        this, "The report couldn't be saved",
        "Vellum couldn't write " + *path + ". Choose a folder you can write to, with free space.");
    return;
  }
  prompts_.showFile(*path);
}

FailureScreen::FailureScreen(CheckModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      message_(textLabel({}, this)),
      back_(new QPushButton("Back", this)) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 24, 0, 0);
  layout->setSpacing(12);
  auto* top = new QHBoxLayout;
  top->setSpacing(14);
  top->addWidget(symbolLabel("exclamationmark.triangle.fill", colors::bad, 44, this), 0,
                 Qt::AlignTop);
  auto* texts = new QVBoxLayout;
  texts->addWidget(headingLabel("The test couldn't finish", 6, this));
  message_->setObjectName("failureMessage");
  texts->addWidget(message_);
  top->addLayout(texts, 1);
  layout->addLayout(top);
  layout->addStretch();
  layout->addWidget(back_, 0, Qt::AlignRight);
  connect(back_, &QPushButton::clicked, &model_, &CheckModel::done);
  connect(&model_, &CheckModel::stageChanged, this, [this] {
    if (const auto* failed = std::get_if<CheckModel::Failed>(&model_.stage())) {
      message_->setText(failed->message);
    }
  });
}

}  // namespace vellum

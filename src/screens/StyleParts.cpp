#include "screens/StyleParts.h"

#include <QHBoxLayout>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

#include "report/SpeedChart.h"
#include "screens/Symbols.h"

namespace vellum {

QColor colors::of(ResultSummary::Tone tone) {
  switch (tone) {
    case ResultSummary::Tone::good:
      return good;
    case ResultSummary::Tone::warning:
      return warning;
    case ResultSummary::Tone::bad:
      return bad;
  }
  return accent;
}

QColor colors::secondary(const QWidget* widget) {
  QColor color = widget ? widget->palette().color(QPalette::WindowText) : QColor(Qt::black);
  color.setAlphaF(0.62f);
  return color;
}

QLabel* textLabel(const QString& text, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setWordWrap(true);
  label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  return label;
}

void setTextColor(QLabel* label, const QColor& color) {
  QPalette palette = label->palette();
  palette.setColor(QPalette::WindowText, color);
  label->setPalette(palette);
}

QLabel* secondaryLabel(const QString& text, QWidget* parent) {
  QLabel* label = textLabel(text, parent);
  setTextColor(label, colors::secondary(parent));
  return label;
}

QLabel* headingLabel(const QString& text, int extraPoints, QWidget* parent) {
  auto* label = textLabel(text, parent);
  QFont font = label->font();
  font.setPointSizeF(font.pointSizeF() + extraPoints);
  font.setBold(true);
  label->setFont(font);
  return label;
}

QLabel* symbolLabel(std::string_view symbol, const QColor& color, int size, QWidget* parent) {
  auto* label = new QLabel(parent);
  label->setPixmap(symbolPixmap(symbol, color, size, label->devicePixelRatioF()));
  label->setFixedSize(size, size);
  return label;
}

BrandHeader::BrandHeader(const QString& title, const QString& subtitle, QWidget* parent)
    : QWidget(parent) {
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(12);
  auto* icon = new QLabel(this);
  icon->setPixmap(applicationIcon().pixmap(40, 40));
  layout->addWidget(icon);
  auto* texts = new QVBoxLayout;
  texts->setSpacing(2);
  texts->addWidget(headingLabel(title, 6, this));
  QLabel* tagline = secondaryLabel(subtitle, this);
  tagline->setObjectName("subtitle");
  texts->addWidget(tagline);
  layout->addLayout(texts, 1);
}

StepBar::StepBar(QStringList steps, QWidget* parent)
    : QWidget(parent), steps_(std::move(steps)), status_(textLabel({}, this)) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 44, 0, 0);
  layout->addWidget(status_);
  status_->setAlignment(Qt::AlignHCenter);
  status_->setObjectName("stepStatus");
  setMinimumHeight(72);
}

void StepBar::setState(int current, const QString& status, bool busy) {
  current_ = current;
  busy_ = busy;
  status_->setText(status);
  setAccessibleName("Step " + QString::number(current + 1) + " of " +
                    QString::number(steps_.size()));
  setAccessibleDescription(status);
  update();
}

void StepBar::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const auto count = static_cast<int>(steps_.size());
  if (count == 0) return;
  const double slot = width() / static_cast<double>(count);
  const double radius = 11;
  const double y = radius + 2;
  const QColor dim = colors::secondary(this);
  // The line that joins the steps, coloured up to the current one.
  for (int index = 0; index + 1 < count; ++index) {
    const double from = slot * (index + 0.5) + radius + 4;
    const double to = slot * (index + 1.5) - radius - 4;
    painter.setPen(QPen(index < current_ ? colors::accent : dim.lighter(140), 2));
    painter.drawLine(QPointF(from, y), QPointF(to, y));
  }
  QFont small = font();
  small.setPointSizeF(small.pointSizeF() - 1);
  for (int index = 0; index < count; ++index) {
    const QPointF centre(slot * (index + 0.5), y);
    const bool passed = index < current_;
    const bool here = index == current_;
    painter.setPen(QPen(passed || here ? colors::accent : dim, 2));
    painter.setBrush(passed ? QBrush(colors::accent) : QBrush(Qt::NoBrush));
    painter.drawEllipse(centre, radius, radius);
    if (passed) {
      QPainterPath tick;
      tick.moveTo(centre + QPointF(-5, 0));
      tick.lineTo(centre + QPointF(-1.5, 4));
      tick.lineTo(centre + QPointF(5.5, -4));
      painter.setPen(QPen(Qt::white, 2.2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
      painter.setBrush(Qt::NoBrush);
      painter.drawPath(tick);
    } else {
      painter.setFont(small);
      painter.drawText(QRectF(centre.x() - radius, centre.y() - radius, 2 * radius, 2 * radius),
                       Qt::AlignCenter, QString::number(index + 1));
    }
    QFont label = small;
    label.setBold(here);
    painter.setFont(label);
    painter.setPen(here || passed ? palette().color(QPalette::WindowText) : dim);
    painter.drawText(QRectF(slot * index, y + radius + 2, slot, 18),
                     Qt::AlignHCenter | Qt::AlignTop,
                     steps_[index] + (here && busy_ ? QStringLiteral(" \u2026") : QString()));
  }
}

SpeedChartView::SpeedChartView(QWidget* parent) : QWidget(parent) {
  setMinimumHeight(140);
  setAccessibleName("Speed chart");
}

void SpeedChartView::setSamples(std::vector<double> samples, std::vector<SpeedChartMark> marks) {
  samples_ = std::move(samples);
  marks_ = std::move(marks);
  update();
}

void SpeedChartView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  SpeedChartStyle style;
  style.text = colors::secondary(this);
  drawSpeedChart(painter, QRectF(rect()).adjusted(0, 4, -2, -2), samples_, style, marks_);
}

NoticeLines::NoticeLines(QWidget* parent) : QWidget(parent) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(4);
  setVisible(false);
}

void NoticeLines::setNotices(const std::vector<Notice>& notices) {
  while (QLayoutItem* item = layout()->takeAt(0)) {
    delete item->widget();
    delete item;
  }
  for (const Notice& notice : notices) {
    auto* line = new QWidget(this);
    auto* row = new QHBoxLayout(line);
    row->setContentsMargins(0, 0, 0, 0);
    const bool warning = notice.level == Notice::Level::warning;
    row->addWidget(symbolLabel(warning ? "exclamationmark.triangle.fill" : "checkmark.circle.fill",
                               warning ? colors::warning : colors::secondary(this), 16, line),
                   0, Qt::AlignTop);
    QLabel* text = textLabel(QString::fromStdString(notice.text), line);
    text->setObjectName("notice");
    row->addWidget(text, 1);
    layout()->addWidget(line);
  }
  setVisible(!notices.empty());
}

QStringList NoticeLines::texts() const {
  QStringList texts;
  for (const QLabel* label : findChildren<QLabel*>("notice"))
    texts.push_back(label->text());
  return texts;
}

}  // namespace vellum

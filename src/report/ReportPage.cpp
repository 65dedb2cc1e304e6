#include "report/ReportPage.h"

#include <QFile>
#include <QLocale>
#include <QPageLayout>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <algorithm>

#include "report/SpeedChart.h"

namespace vellum {
namespace {

constexpr double kMargin = 54;
constexpr double kLabelColumn = 190;
const QColor kText{0x11, 0x18, 0x27};
const QColor kSecondary{0x6B, 0x72, 0x80};
const QColor kTint{0xF3, 0xF5, 0xF8};
const QColor kDivider{0xD1, 0xD5, 0xDB};

QColor toneColour(ResultSummary::Tone tone) {
  switch (tone) {
    case ResultSummary::Tone::good:
      return {0x15, 0x80, 0x3D};
    case ResultSummary::Tone::warning:
      return {0xB4, 0x53, 0x09};
    case ResultSummary::Tone::bad:
      return {0xB9, 0x1C, 0x1C};
  }
  return kText;
}

QString q(const std::string& text) {
  return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QFont font(double points, bool bold = false) {
  QFont made(QStringLiteral("DejaVu Sans"));
  made.setPointSizeF(points);
  made.setBold(bold);
  // No ligatures: "fi" stays two letters when the text is copied or searched.
  made.setStyleStrategy(QFont::PreferNoShaping);
  return made;
}

// Lays text out top-down inside the page's margins.
class Column {
 public:
  Column(QPainter& painter, double top) : painter_(painter), y_(top) {}

  double y() const { return y_; }
  void skip(double points) { y_ += points; }

  // Draws wrapped text at the left margin (indented by indent) and moves down.
  void text(const QString& content, const QFont& font, const QColor& colour, double indent = 0,
            double width = ReportPage::width - 2 * kMargin) {
    painter_.setFont(font);
    painter_.setPen(colour);
    const QRectF box(kMargin + indent, y_, width - indent, 1000);
    const QRectF used = painter_.boundingRect(box, Qt::TextWordWrap, content);
    painter_.drawText(box, Qt::TextWordWrap, content);
    y_ += used.height();
  }

 private:
  QPainter& painter_;
  double y_;
};

void drawPage(QPainter& painter, const ReportPage& page) {
  const ResultSummary& summary = page.summary;
  const double right = ReportPage::width - kMargin;
  const double inner = right - kMargin;

  // Header: the application on the left, what this page is on the right.
  painter.setFont(font(13, true));
  painter.setPen(kText);
  painter.drawText(QRectF(kMargin, kMargin, inner, 20), Qt::AlignLeft | Qt::AlignVCenter,
                   QStringLiteral("Vellum Check"));
  painter.setFont(font(11));
  painter.setPen(kSecondary);
  painter.drawText(QRectF(kMargin, kMargin, inner, 20), Qt::AlignRight | Qt::AlignVCenter,
                   page.action == CheckAction::wipe
                       ? QStringLiteral("Certificate of erasure")
                       : q(std::string(title(page.action)) + " report"));
  painter.setPen(QPen(kDivider, 1));
  painter.drawLine(QPointF(kMargin, kMargin + 30), QPointF(right, kMargin + 30));

  Column column(painter, kMargin + 52);
  column.text(q(summary.headline), font(26, true), toneColour(summary.tone));
  column.skip(8);
  column.text(q(summary.explanation), font(12), kText);
  column.skip(18);

  // Facts in a tinted box, with the date the check finished as the last row.
  std::vector<ResultSummary::Fact> facts = summary.facts;
  const QLocale locale;
  facts.push_back(
      {"Date", (locale.toString(page.date.date(), QLocale::LongFormat) + QStringLiteral(" at ") +
                locale.toString(page.date.time(), QLocale::ShortFormat))
                   .toStdString()});
  const QFont factFont = font(11);
  painter.setFont(factFont);
  const double rowHeight = 22;
  double boxHeight = 16;
  for (const auto& fact : facts) {
    const QRectF used = painter.boundingRect(QRectF(0, 0, inner - kLabelColumn - 32, 1000),
                                             Qt::TextWordWrap, q(fact.value));
    boxHeight += std::max(rowHeight, used.height() + 8);
  }
  const double boxTop = column.y();
  painter.setPen(Qt::NoPen);
  painter.setBrush(kTint);
  painter.drawRoundedRect(QRectF(kMargin, boxTop, inner, boxHeight), 10, 10);
  double rowTop = boxTop + 8;
  for (const auto& fact : facts) {
    const QRectF valueBox(kMargin + 16 + kLabelColumn, rowTop + 4, inner - kLabelColumn - 32, 1000);
    const double height = std::max(
        rowHeight, painter.boundingRect(valueBox, Qt::TextWordWrap, q(fact.value)).height() + 8);
    painter.setPen(kSecondary);
    painter.drawText(QRectF(kMargin + 16, rowTop + 4, kLabelColumn, height), Qt::AlignLeft,
                     q(fact.label));
    painter.setPen(kText);
    painter.drawText(valueBox, Qt::TextWordWrap, q(fact.value));
    rowTop += height;
  }
  column.skip(boxHeight + 22);

  // Curves of fewer than four samples say nothing: no stub of a chart.
  if (summary.speedCurve.size() >= 4) {
    column.text(q(summary.speedCurveTitle), font(12, true), kText);
    column.skip(6);
    drawSpeedChart(painter, QRectF(kMargin, column.y(), inner, 150), summary.speedCurve);
    column.skip(152);
    column.text(QStringLiteral("MB/s"), font(8), kSecondary);
    column.skip(16);
  }
  if (!summary.advice.empty()) {
    column.text(QStringLiteral("What to do"), font(14, true), kText);
    column.skip(6);
    for (const std::string& line : summary.advice) {
      // The bullet hangs in the margin of the wrapped lines.
      painter.setFont(font(12));
      painter.setPen(kText);
      painter.drawText(QRectF(kMargin + 2, column.y(), 12, 20), Qt::AlignLeft,
                       QStringLiteral("\u2022 "));
      column.text(q(line), font(12), kText, 14);
      column.skip(4);
    }
    column.skip(14);
  }
  if (page.action == CheckAction::wipe) {
    column.text(
        QStringLiteral("Flash memory keeps spare blocks that a computer can't address, so no "
                       "software running on a computer can guarantee every physical cell was "
                       "overwritten. For top-secret data, physically destroy the card."),
        font(12), kSecondary);
  }

  painter.setFont(font(9));
  painter.setPen(kSecondary);
  painter.drawText(QRectF(kMargin, ReportPage::height - kMargin - 12, inner, 12),
                   Qt::AlignHCenter | Qt::AlignVCenter,
                   QStringLiteral("Generated by Vellum Check \u00B7 " VELLUM_WEB_ADDRESS
                                  " \u00B7 " VELLUM_MAKER));
}

}  // namespace

bool ReportPage::writePdf(const QString& path) const {
  {
    QPdfWriter writer(path);
    writer.setCreator(QStringLiteral("Vellum Check"));
    writer.setTitle(q(summary.headline));
    writer.setResolution(72);  // one device unit per point
    writer.setPageLayout(QPageLayout(QPageSize(QSizeF(width, height), QPageSize::Point),
                                     QPageLayout::Portrait, QMarginsF()));
    QPainter painter;
    if (!painter.begin(&writer)) return false;
    drawPage(painter, *this);
    if (!painter.end()) {
      QFile::remove(path);
      return false;
    }
  }
  return QFile::exists(path);
}

std::string proposedReportName(CheckAction action, const std::optional<Card>& card,
                               const QDate& day) {
  std::string name = "Vellum Check " + std::string(title(action)) + " ";
  if (!card) {
    name += "card";
  } else {
    name += card->title();
    // The kernel name tells apart two disks of the same make.
    if (card->disk() && card->title() != card->id()) {
      name += ' ';
      name += card->id();
    }
  }
  // A volume or media name may hold a slash, which no file name can.
  std::replace(name.begin(), name.end(), '/', '-');
  name += ' ';
  name += day.toString(Qt::ISODate).toStdString();
  return name + ".pdf";
}

std::string saveDialogTitle(CheckAction action) {
  return action == CheckAction::wipe ? "Save Erasure Certificate" : "Save Report";
}

}  // namespace vellum

#include "report/SpeedChart.h"

#include <QFontMetricsF>
#include <QPainterPath>
#include <algorithm>
#include <cmath>

namespace vellum {
namespace {

// A round top for the scale (1, 2 or 5 times a power of ten) so the grid
// lines carry readable numbers.
double niceCeiling(double value) {
  if (value <= 0) return 1;
  const double magnitude = std::pow(10.0, std::floor(std::log10(value)));
  for (const double step : {1.0, 2.0, 5.0, 10.0}) {
    if (value <= step * magnitude) return step * magnitude;
  }
  return 10 * magnitude;
}

}  // namespace

void drawSpeedChart(QPainter& painter, const QRectF& rect, const std::vector<double>& samples,
                    const SpeedChartStyle& style) {
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing);
  QFont font = painter.font();
  font.setPointSizeF(8);
  painter.setFont(font);
  const double top =
      niceCeiling(samples.empty() ? 1 : *std::max_element(samples.begin(), samples.end()));
  const auto label = [top](int step) {
    return QString::number(top * step / 4, 'f', top < 4 ? 1 : 0);
  };
  // Wide enough for the top label in whatever resolution the painter has.
  const double labelWidth =
      std::max(36.0, QFontMetricsF(font, painter.device()).horizontalAdvance(label(4)) + 8);
  const QRectF plot = rect.adjusted(labelWidth, 4, 0, -4);
  for (int i = 0; i <= 4; ++i) {
    const double y = plot.bottom() - plot.height() * i / 4;
    painter.setPen(QPen(style.grid, 0.5));
    painter.drawLine(QPointF(plot.left(), y), QPointF(plot.right(), y));
    painter.setPen(style.text);
    painter.drawText(QRectF(rect.left(), y - 6, labelWidth - 6, 12),
                     Qt::AlignRight | Qt::AlignVCenter, label(i));
  }
  if (samples.size() >= 2) {
    QPainterPath line;
    const double step = plot.width() / static_cast<double>(samples.size() - 1);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const QPointF point(plot.left() + step * static_cast<double>(i),
                          plot.bottom() - plot.height() * std::clamp(samples[i] / top, 0.0, 1.0));
      if (i == 0) {
        line.moveTo(point);
      } else {
        line.lineTo(point);
      }
    }
    QPainterPath area = line;
    area.lineTo(plot.right(), plot.bottom());
    area.lineTo(plot.left(), plot.bottom());
    area.closeSubpath();
    painter.fillPath(area, style.fill);
    painter.setPen(QPen(style.line, 1.5));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(line);
  }
  painter.restore();
}

}  // namespace vellum

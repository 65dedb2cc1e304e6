#include "report/SpeedChart.h"

#include <QFontMetricsF>
#include <QPainterPath>
#include <algorithm>
#include <cmath>

namespace vellum {
double speedChartTop(double fastest) {
  double step = 1;
  if (fastest > 4) {
    const double quarter = fastest / 4;
    const double magnitude = std::pow(10.0, std::floor(std::log10(quarter)));
    step = 10 * magnitude;
    for (const double factor : {1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 8.0}) {
      if (quarter <= factor * magnitude) {
        step = factor * magnitude;
        break;
      }
    }
  }
  return 4 * std::max(1.0, std::round(step));
}

void drawSpeedChart(QPainter& painter, const QRectF& rect, const std::vector<double>& samples,
                    const SpeedChartStyle& style, const std::vector<SpeedChartMark>& marks) {
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing);
  QFont font = painter.font();
  font.setPointSizeF(8);
  painter.setFont(font);
  const double top =
      speedChartTop(samples.empty() ? 0 : *std::max_element(samples.begin(), samples.end()));
  const auto label = [top](int step) {
    return QString::asprintf("%lld MB/s", static_cast<long long>(std::llround(top * step / 4)));
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
  const double step =
      samples.size() >= 2 ? plot.width() / static_cast<double>(samples.size() - 1) : 0;
  // Each phase's start: a dashed line and its name, where there is room.
  double lastLabelEnd = -1e9;
  for (const SpeedChartMark& mark : marks) {
    if (mark.sample >= samples.size()) continue;
    const double x = plot.left() + step * static_cast<double>(mark.sample);
    if (mark.sample > 0) {
      painter.setPen(QPen(style.text, 0.8, Qt::DashLine));
      painter.drawLine(QPointF(x, plot.top()), QPointF(x, plot.bottom()));
    }
    painter.setPen(style.text);
    const double width = QFontMetricsF(font, painter.device()).horizontalAdvance(mark.label) + 4;
    if (x + 3 >= lastLabelEnd && x + 3 + width <= plot.right() + 1) {
      painter.drawText(QRectF(x + 3, plot.top(), width, 12), Qt::AlignLeft | Qt::AlignVCenter,
                       mark.label);
      lastLabelEnd = x + 3 + width;
    }
  }
  if (samples.size() >= 2) {
    QPainterPath line;
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

#pragma once

#include <QColor>
#include <QPainter>
#include <QRectF>
#include <vector>

namespace vellum {

// Draws a speed curve (MB/s per sample) as a line over a light grid with the
// top speed labelled, inside rect. The same drawing serves the live chart on
// screen and the chart in the saved report.
struct SpeedChartStyle {
  QColor line{0x1F, 0x6F, 0xEB};
  QColor fill{0x1F, 0x6F, 0xEB, 0x26};
  QColor grid{0xDD, 0xE1, 0xE6};
  QColor text{0x6B, 0x72, 0x80};
};

void drawSpeedChart(QPainter& painter, const QRectF& rect, const std::vector<double>& samples,
                    const SpeedChartStyle& style = {});

}  // namespace vellum

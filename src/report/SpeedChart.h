#pragma once

#include <QColor>
#include <QPainter>
#include <QRectF>
#include <QString>
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

// Where a phase of the run begins: a sample index and what the phase is.
struct SpeedChartMark {
  std::size_t sample = 0;
  QString label;
  bool operator==(const SpeedChartMark&) const = default;
};

// The scale's top in MB/s: four equal steps of a whole, round number (1 to
// 8 times a power of ten), so every grid line reads as whole MB/s.
double speedChartTop(double fastest);

void drawSpeedChart(QPainter& painter, const QRectF& rect, const std::vector<double>& samples,
                    const SpeedChartStyle& style = {},
                    const std::vector<SpeedChartMark>& marks = {});

}  // namespace vellum

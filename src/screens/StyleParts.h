#pragma once

#include <QColor>
#include <QLabel>
#include <QStringList>
#include <QWidget>
#include <vector>

#include "report/SpeedChart.h"
#include "session/Session.h"
#include "summary/ResultSummary.h"

namespace vellum {

// Colours shared by the screens: readable on light and dark window colours.
namespace colors {
inline const QColor accent{0x1F, 0x6F, 0xEB};
inline const QColor good{0x1A, 0x7F, 0x37};
inline const QColor warning{0xBF, 0x6A, 0x02};
inline const QColor bad{0xCF, 0x22, 0x2E};
QColor of(ResultSummary::Tone tone);
// The window's text colour, faded: for secondary text and symbols.
QColor secondary(const QWidget* widget);
}  // namespace colors

// A label for body text: word-wrapped, selectable by keyboard and mouse.
QLabel* textLabel(const QString& text, QWidget* parent = nullptr);
// A label in a larger, bolder font; points are added to the default size.
QLabel* headingLabel(const QString& text, int extraPoints, QWidget* parent = nullptr);
// Body text in the faded secondary colour (facts' labels, hints).
QLabel* secondaryLabel(const QString& text, QWidget* parent = nullptr);
// Draws the label's text in color.
void setTextColor(QLabel* label, const QColor& color);
// A square label holding a symbol.
QLabel* symbolLabel(std::string_view symbol, const QColor& color, int size,
                    QWidget* parent = nullptr);

// The application's name and what it is for, across the top of the window.
class BrandHeader final : public QWidget {
  Q_OBJECT
 public:
  BrandHeader(const QString& title, const QString& subtitle, QWidget* parent = nullptr);
};

// Where the user is: numbered steps, a check mark on each one passed, and the
// status sentence under them.
class StepBar final : public QWidget {
  Q_OBJECT
 public:
  explicit StepBar(QStringList steps, QWidget* parent = nullptr);
  void setState(int current, const QString& status, bool busy);
  int current() const { return current_; }
  QString status() const { return status_->text(); }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  QStringList steps_;
  int current_ = 0;
  bool busy_ = false;
  QLabel* status_;
};

// The speed samples as a line chart, drawn by the report's own chart code,
// with a mark where each phase of the run began.
class SpeedChartView final : public QWidget {
  Q_OBJECT
 public:
  explicit SpeedChartView(QWidget* parent = nullptr);
  void setSamples(std::vector<double> samples, std::vector<SpeedChartMark> marks = {});
  const std::vector<double>& samples() const { return samples_; }
  const std::vector<SpeedChartMark>& marks() const { return marks_; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  std::vector<double> samples_;
  std::vector<SpeedChartMark> marks_;
};

// Facts left by the last run, one line each: a quiet mark for what only
// informs, the warning colour for what the user should act on. Hidden when
// there are none.
class NoticeLines final : public QWidget {
  Q_OBJECT
 public:
  explicit NoticeLines(QWidget* parent = nullptr);
  void setNotices(const std::vector<Notice>& notices);
  QStringList texts() const;
};

}  // namespace vellum

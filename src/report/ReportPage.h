#pragma once

#include <QDateTime>
#include <QString>
#include <optional>
#include <string>

#include "summary/Card.h"
#include "summary/CheckAction.h"
#include "summary/ResultSummary.h"

namespace vellum {

// One page that keeps a finished check: a report, or for a wipe a certificate
// of erasure. Drawn in light colours on a 612 × 792 point page (US Letter).
struct ReportPage {
  static constexpr double width = 612;
  static constexpr double height = 792;

  ResultSummary summary;
  CheckAction action = CheckAction::quick;
  QDateTime date;

  // Writes the page as a one-page vector PDF. False when the file cannot be
  // written (nothing is left behind then). Needs a QGuiApplication.
  bool writePdf(const QString& path) const;
};

// "Vellum Check Quick Check Demo card (fake) 2026-11-16.pdf", or for a disk
// "Vellum Check Full Test PHOTOS sdb 2026-11-16.pdf": the name a save dialog
// proposes ("card" stands in when there is no card).
std::string proposedReportName(CheckAction action, const std::optional<Card>& card,
                               const QDate& day);

// "Save Erasure Certificate" for a wipe, otherwise "Save Report".
std::string saveDialogTitle(CheckAction action);

}  // namespace vellum

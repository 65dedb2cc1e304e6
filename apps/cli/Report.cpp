#include "Report.h"

#include <QGuiApplication>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "report/ReportPage.h"

namespace vellum::cli {

void saveReport(const std::string& path, const CheckOutcome& outcome, CheckAction action,
                const RunTarget& target) {
  // Laying out text needs fonts, which need an application object; the
  // offscreen platform works without a display.
  static int argc = 1;
  static char name[] = "vellum-check";
  static char* argv[] = {name, nullptr};
  if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  // Qt's own chatter (no runtime folder, no session bus) is not for users.
  qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& message) {
    if (type == QtCriticalMsg || type == QtFatalMsg) {
      std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
    }
  });
  const std::unique_ptr<QGuiApplication> application =
      QGuiApplication::instance() ? nullptr : std::make_unique<QGuiApplication>(argc, argv);

  ReportPage page{ResultSummary(outcome, target.card), action, QDateTime::currentDateTime()};
  if (!target.card)
    page.summary.facts.insert(page.summary.facts.begin(), {"Image file", target.name()});
  std::filesystem::path file(path);
  std::error_code error;
  if (std::filesystem::is_directory(file, error)) {
    file /= proposedReportName(action, target.card, page.date.date());
  }
  const std::string what = action == CheckAction::wipe ? "certificate of erasure" : "report";
  if (std::filesystem::exists(file, error)) {
    throw RunError(RunError::Refused{file.string() + " already exists. The " + what +
                                     " was not saved; choose another name."});
  }
  if (!page.writePdf(QString::fromStdString(file.string()))) {
    throw RunError(RunError::Refused{"Couldn't write the " + what + " to " + file.string() +
                                     ". Check that the folder exists and is writable."});
  }
  std::fprintf(stderr, "Saved the %s to %s.\n", what.c_str(), file.c_str());
}

}  // namespace vellum::cli

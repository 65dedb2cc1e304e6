// vellum-check-gui: the desktop application. --demo lists the three demo
// cards instead of real disks for this run.

#include <QApplication>
#include <QCommandLineParser>

#include "app/CheckModel.h"
#include "app/DiskWatcher.h"
#include "screens/MainWindow.h"
#include "screens/Prompts.h"
#include "screens/Symbols.h"
#include "session/LinuxPlatform.h"

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setOrganizationName("Vellum");
  QApplication::setApplicationName("Vellum Check");
  QApplication::setApplicationVersion(VELLUM_VERSION);
  QApplication::setDesktopFileName("org.vellum.check");
  QApplication::setWindowIcon(vellum::applicationIcon());

  QCommandLineParser parser;
  parser.setApplicationDescription(
      "Find out if a memory card or drive is genuine, fast and healthy.");
  parser.addHelpOption();
  parser.addVersionOption();
  const QCommandLineOption demo("demo", "Show the three demo cards instead of real disks.");
  parser.addOption(demo);
  parser.process(application);

  vellum::CheckModel model(std::make_unique<vellum::LinuxPlatform>(),
                           parser.isSet(demo) ? std::optional(true) : std::nullopt);
  // Demo mode lists no real disks, so insertions change nothing there.
  vellum::DiskWatcher watcher;
  if (!model.simulate()) {
    QObject::connect(&watcher, &vellum::DiskWatcher::changed, &model, &vellum::CheckModel::refresh);
  }
  vellum::DesktopPrompts prompts;
  vellum::MainWindow window(model, prompts);
  window.show();
  return QApplication::exec();
}

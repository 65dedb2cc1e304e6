#pragma once

#include <QObject>
#include <QTimer>
#include <memory>
#include <string>

class QSocketNotifier;

namespace vellum {

class DiskMonitor;

// Says when a card or drive was inserted or removed: udev events, settled for
// a moment because one insertion brings several, or where no monitor can be
// made, a cheap look at /sys/block every two seconds.
class DiskWatcher final : public QObject {
  Q_OBJECT
 public:
  explicit DiskWatcher(QObject* parent = nullptr);
  ~DiskWatcher() override;

  bool usesEvents() const { return monitor_ != nullptr; }

 signals:
  void changed();

 private:
  std::unique_ptr<DiskMonitor> monitor_;
  QSocketNotifier* notifier_ = nullptr;
  QTimer settle_;
  QTimer poll_;
  std::string stamp_;
};

}  // namespace vellum

#include "app/DiskWatcher.h"

#include <QSocketNotifier>

#include "platform/DiskEnumerator.h"
#include "platform/DiskMonitor.h"

namespace vellum {

DiskWatcher::DiskWatcher(QObject* parent) : QObject(parent), monitor_(DiskMonitor::open()) {
  settle_.setSingleShot(true);
  settle_.setInterval(400);
  connect(&settle_, &QTimer::timeout, this, &DiskWatcher::changed);
  if (monitor_) {
    notifier_ = new QSocketNotifier(monitor_->fd(), QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, [this] {
      if (monitor_->drain()) settle_.start();
    });
    return;
  }
  stamp_ = DiskEnumerator::changeStamp();
  poll_.setInterval(2000);
  connect(&poll_, &QTimer::timeout, this, [this] {
    std::string now = DiskEnumerator::changeStamp();
    if (now == stamp_) return;
    stamp_ = std::move(now);
    emit changed();
  });
  poll_.start();
}

DiskWatcher::~DiskWatcher() = default;

}  // namespace vellum

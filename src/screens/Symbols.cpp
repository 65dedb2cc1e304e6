#include "screens/Symbols.h"

#include <QFile>
#include <QPainter>
#include <QSvgRenderer>

// Resources of a static library are registered by hand.
static void registerSymbols() {
  Q_INIT_RESOURCE(icons);
}

namespace vellum {
namespace {

void ensureSymbols() {
  static const bool registered = (registerSymbols(), true);
  (void)registered;
}

}  // namespace

QPixmap symbolPixmap(std::string_view name, const QColor& color, int size, qreal devicePixelRatio) {
  ensureSymbols();
  QString file = QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size()));
  file.replace('.', '-');
  QFile source(":/symbols/" + file + ".svg");
  QPixmap pixmap(QSize(size, size) * devicePixelRatio);
  pixmap.setDevicePixelRatio(devicePixelRatio);
  pixmap.fill(Qt::transparent);
  if (!source.open(QIODevice::ReadOnly)) return pixmap;
  // The symbols are drawn in currentColor; the colour is chosen here.
  QByteArray svg = source.readAll();
  svg.replace("currentColor", color.name().toUtf8());
  QSvgRenderer renderer(svg);
  QPainter painter(&pixmap);
  renderer.render(&painter, QRectF(0, 0, size, size));
  return pixmap;
}

QIcon symbolIcon(std::string_view name, const QColor& color, int size) {
  QIcon icon;
  icon.addPixmap(symbolPixmap(name, color, size, 1.0));
  icon.addPixmap(symbolPixmap(name, color, size, 2.0));
  return icon;
}

QIcon applicationIcon() {
  ensureSymbols();
  QIcon icon;
  for (const int size : {16, 32, 64, 128, 256}) {
    QSvgRenderer renderer(QStringLiteral(":/symbols/vellum-check.svg"));
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    renderer.render(&painter);
    painter.end();
    icon.addPixmap(pixmap);
  }
  return icon;
}

}  // namespace vellum

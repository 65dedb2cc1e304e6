#pragma once

#include <QColor>
#include <QIcon>
#include <QPixmap>
#include <string_view>

namespace vellum {

// The application's own symbols (SVG in the resources, drawn in one colour),
// named as the result summaries name them: "sdcard", "checkmark.seal.fill".
// Shipped with the app so it looks the same on every desktop and theme.
QPixmap symbolPixmap(std::string_view name, const QColor& color, int size,
                     qreal devicePixelRatio = 1.0);
QIcon symbolIcon(std::string_view name, const QColor& color, int size = 24);
// The application's own icon.
QIcon applicationIcon();

}  // namespace vellum

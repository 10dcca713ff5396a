#pragma once
// The tray icon: the "StatusIcon" artwork with a round notch punched where the badge sits and the badge
// in the most urgent status's colour, drawn into one image (a tray item has no subviews).
#include <QColor>
#include <QImage>
#include <QRectF>
#include <optional>

namespace skeldrin::MenuBarIcon {

// The icon's canvas, in points, and where in it the notch and the badge sit (y down).
inline constexpr QSizeF canvas{17, 18};
inline const QRectF notchRect{9.89, 18 - 4.45 - 7.5, 7.5, 7.5};
inline const QRectF badgeRect{9.89 + (7.5 - 5.5) / 2, 18 - 4.45 - 7.5 + (7.5 - 5.5) / 2, 5.5, 5.5};

// The artwork compiled into the application; a null image when the resource is missing.
QImage artwork();

// A square image of `side` pixels: the 17 × 18 point canvas scaled to fit and centred, the artwork in
// `glyph`, notched and badged when there is a badge colour.
QImage image(const QImage& artwork, const QColor& glyph, std::optional<QColor> badge, int side);

} // namespace skeldrin::MenuBarIcon

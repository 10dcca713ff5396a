#pragma once
// Where the floating widget was left: which part of it is pinned, and to which point. All geometry here
// is in global screen coordinates with the origin at the bottom-left and y growing upward, so that a
// widget glued to an edge stays glued while it grows; `toQt` / `fromQt` are the one place that converts.
#include <QByteArray>
#include <QList>
#include <QPointF>
#include <QRectF>
#include <QSizeF>
#include <optional>

namespace skeldrin {

// A rectangle in y-up coordinates: `y` is the bottom edge.
struct YUpRect {
    double x = 0, y = 0, width = 0, height = 0;
    double minX() const { return x; }
    double maxX() const { return x + width; }
    double midX() const { return x + width / 2; }
    double minY() const { return y; }
    double maxY() const { return y + height; }
    double midY() const { return y + height / 2; }
    YUpRect insetBy(double d) const { return {x + d, y + d, width - 2 * d, height - 2 * d}; }
    bool contains(QPointF p) const
    {
        return p.x() >= minX() && p.x() <= maxX() && p.y() >= minY() && p.y() <= maxY();
    }
    bool operator==(const YUpRect&) const = default;
};

// Qt's global coordinates put y = 0 at the top of the primary screen and grow downward; `primaryHeight`
// is that screen's height. The conversion is its own inverse.
YUpRect fromQt(const QRectF& rect, double primaryHeight);
QRectF toQt(const YUpRect& rect, double primaryHeight);
QPointF flipPoint(QPointF point, double primaryHeight);

struct Placement {
    enum class Anchor { Min, Center, Max };

    Anchor x = Anchor::Max;
    Anchor y = Anchor::Center;
    QPointF point;

    // The default: right edge of the visible frame, vertically centred.
    static Placement standard(const YUpRect& visible);
    // The placement that describes a frame: an edge within half a point of the inner frame is pinned.
    static Placement describing(const YUpRect& frame, const YUpRect& visible);

    // The widget's frame for `size`, on whole points.
    YUpRect frame(QSizeF size, const YUpRect& visible) const;
    // Pulls a dragged frame softly toward edges within 40 points.
    static YUpRect magnet(const YUpRect& frame, const YUpRect& visible);
    // Glues a released frame to edges within 40 points.
    static YUpRect snap(const YUpRect& frame, const YUpRect& visible);
    // Widget, bar and the gap between them, each grown by 2 points.
    static bool hoverZone(const YUpRect& widget, const YUpRect& bar, QPointF point);
    // Where the hover bar goes: 6 points below a widget in the upper half, above one in the lower half,
    // aligned by the horizontal anchor and kept inside the inner frame.
    YUpRect barFrame(QSizeF barSize, const YUpRect& widget, const YUpRect& visible) const;

    QByteArray toJson() const;
    // None for missing or undecodable data, or a point on none of `screens` (their full frames, y-up).
    static std::optional<Placement> fromJson(const QByteArray& data, const QList<YUpRect>& screens);

    bool operator==(const Placement&) const = default;
};

// The inset kept between the widget and the visible frame's edges.
inline constexpr double kScreenMargin = 8;

} // namespace skeldrin

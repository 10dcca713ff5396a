#include "Skeldrin/model/Placement.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <cmath>

namespace skeldrin {

namespace {

constexpr double kMagnetReach = 40;
constexpr double kSnapReach = 40;
constexpr double kBarGap = 6;
constexpr double kHoverSlack = 2;

QString anchorName(Placement::Anchor anchor)
{
    switch (anchor) {
    case Placement::Anchor::Min:
        return QStringLiteral("min");
    case Placement::Anchor::Center:
        return QStringLiteral("center");
    case Placement::Anchor::Max:
        return QStringLiteral("max");
    }
    return {};
}

std::optional<Placement::Anchor> anchorNamed(const QJsonValue& value)
{
    const QString name = value.toString();
    if (name == QLatin1String("min")) return Placement::Anchor::Min;
    if (name == QLatin1String("center")) return Placement::Anchor::Center;
    if (name == QLatin1String("max")) return Placement::Anchor::Max;
    return std::nullopt;
}

// Lower edge of a span of `length` pinned by `anchor` at `at`, kept within [lo, hi].
double pinned(Placement::Anchor anchor, double at, double length, double lo, double hi)
{
    double v = at;
    if (anchor == Placement::Anchor::Center) v = at - length / 2;
    if (anchor == Placement::Anchor::Max) v = at - length;
    return std::max(lo, std::min(hi - length, v));
}

Placement::Anchor anchorOf(double lo, double hi, double innerLo, double innerHi)
{
    if (std::abs(lo - innerLo) < 0.5) return Placement::Anchor::Min;
    if (std::abs(hi - innerHi) < 0.5) return Placement::Anchor::Max;
    return Placement::Anchor::Center;
}

// Windows sit on whole pixels. Halves go up (y-up), so a widget centred on a point never ends up with its
// middle below it: the bar's side is decided by that middle.
double whole(double v)
{
    return std::floor(v + 0.5);
}

double at(Placement::Anchor anchor, double lo, double mid, double hi)
{
    return anchor == Placement::Anchor::Min ? lo : anchor == Placement::Anchor::Max ? hi : mid;
}

double magnetAxis(double lo, double length, double innerLo, double innerHi)
{
    const double dLow = lo - innerLo;
    if (dLow <= 0) return innerLo;
    const double dHigh = innerHi - (lo + length);
    if (dHigh <= 0) return innerHi - length;
    // 3t³ − 2t⁴ is 0 at the edge and meets free movement at the reach with value and slope 1.
    const auto pull = [](double t) { return kMagnetReach * (3 * t * t * t - 2 * t * t * t * t); };
    if (dLow < kMagnetReach) return innerLo + pull(dLow / kMagnetReach);
    if (dHigh < kMagnetReach) return (innerHi - length) - pull(dHigh / kMagnetReach);
    return lo;
}

double snapAxis(double lo, double length, double innerLo, double innerHi)
{
    if (lo - innerLo < kSnapReach) return innerLo;
    if (innerHi - (lo + length) < kSnapReach) return innerHi - length;
    return lo;
}

} // namespace

YUpRect fromQt(const QRectF& rect, double primaryHeight)
{
    return {rect.x(), primaryHeight - rect.y() - rect.height(), rect.width(), rect.height()};
}

QRectF toQt(const YUpRect& rect, double primaryHeight)
{
    return {rect.x, primaryHeight - rect.y - rect.height, rect.width, rect.height};
}

QPointF flipPoint(QPointF point, double primaryHeight)
{
    return {point.x(), primaryHeight - point.y()};
}

Placement Placement::standard(const YUpRect& visible)
{
    return {Anchor::Max, Anchor::Center, QPointF(visible.maxX() - kScreenMargin, visible.midY())};
}

Placement Placement::describing(const YUpRect& f, const YUpRect& visible)
{
    const YUpRect inner = visible.insetBy(kScreenMargin);
    Placement p;
    p.x = anchorOf(f.minX(), f.maxX(), inner.minX(), inner.maxX());
    p.y = anchorOf(f.minY(), f.maxY(), inner.minY(), inner.maxY());
    p.point = QPointF(at(p.x, f.minX(), f.midX(), f.maxX()), at(p.y, f.minY(), f.midY(), f.maxY()));
    return p;
}

YUpRect Placement::frame(QSizeF size, const YUpRect& visible) const
{
    const YUpRect inner = visible.insetBy(kScreenMargin);
    return {whole(pinned(x, point.x(), size.width(), inner.minX(), inner.maxX())),
            whole(pinned(y, point.y(), size.height(), inner.minY(), inner.maxY())), size.width(),
            size.height()};
}

YUpRect Placement::magnet(const YUpRect& f, const YUpRect& visible)
{
    const YUpRect inner = visible.insetBy(kScreenMargin);
    return {magnetAxis(f.x, f.width, inner.minX(), inner.maxX()),
            magnetAxis(f.y, f.height, inner.minY(), inner.maxY()), f.width, f.height};
}

YUpRect Placement::snap(const YUpRect& f, const YUpRect& visible)
{
    const YUpRect inner = visible.insetBy(kScreenMargin);
    return {snapAxis(f.x, f.width, inner.minX(), inner.maxX()),
            snapAxis(f.y, f.height, inner.minY(), inner.maxY()), f.width, f.height};
}

bool Placement::hoverZone(const YUpRect& w, const YUpRect& b, QPointF p)
{
    const double gx = std::max(w.minX(), b.minX());
    const double gy = std::min(w.maxY(), b.maxY());
    const YUpRect gap{gx, gy, std::max(0.0, std::min(w.maxX(), b.maxX()) - gx),
                      std::max(0.0, std::max(w.minY(), b.minY()) - gy)};
    for (const YUpRect& r : {w, b, gap})
        if (r.insetBy(-kHoverSlack).contains(p)) return true;
    return false;
}

YUpRect Placement::barFrame(QSizeF size, const YUpRect& w, const YUpRect& visible) const
{
    const YUpRect inner = visible.insetBy(kScreenMargin);
    const double bw = size.width(), bh = size.height();
    const double by = w.midY() >= visible.midY() ? w.minY() - kBarGap - bh : w.maxY() + kBarGap;
    double bx = w.minX();
    if (x == Anchor::Center) bx = w.minX() + w.width / 2 - bw / 2;
    if (x == Anchor::Max) bx = w.maxX() - bw;
    return {std::max(inner.minX(), std::min(inner.maxX() - bw, bx)),
            std::max(inner.minY(), std::min(inner.maxY() - bh, by)), bw, bh};
}

QByteArray Placement::toJson() const
{
    // Written by hand: QJsonObject sorts its keys, and the stored form keeps x, y, point in that order.
    const QByteArray pointText =
        QJsonDocument(QJsonArray{point.x(), point.y()}).toJson(QJsonDocument::Compact);
    return "{\"x\":\"" + anchorName(x).toLatin1() + "\",\"y\":\"" + anchorName(y).toLatin1() +
           "\",\"point\":" + pointText + "}";
}

std::optional<Placement> Placement::fromJson(const QByteArray& data, const QList<YUpRect>& screens)
{
    const QJsonObject o = QJsonDocument::fromJson(data).object();
    const auto ax = anchorNamed(o.value(QStringLiteral("x")));
    const auto ay = anchorNamed(o.value(QStringLiteral("y")));
    const QJsonArray pt = o.value(QStringLiteral("point")).toArray();
    if (!ax || !ay || pt.size() != 2 || !pt[0].isDouble() || !pt[1].isDouble()) return std::nullopt;
    const Placement p{*ax, *ay, QPointF(pt[0].toDouble(), pt[1].toDouble())};
    for (const YUpRect& screen : screens)
        if (screen.contains(p.point)) return p;
    return std::nullopt;
}

} // namespace skeldrin

#include "Skeldrin/ui/StatusDot.h"

#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

namespace skeldrin {

namespace {
constexpr int kPingMilliseconds = 1600;
constexpr int kPingFrameMs = 40;
constexpr double kPingScale = 2.2;
constexpr double kPingOpacity = 0.9;
} // namespace

void paintStatusDot(QPainter& painter, QPointF centre, const DotStyle& style, double pingProgress)
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    const double r = style.size / 2;
    if (style.glows) {
        // A soft halo of the dot's colour, as wide as the shadow radius of 0.45 × size.
        const double halo = r + style.size * 0.45;
        QRadialGradient glow(centre, halo);
        QColor inner = style.color;
        inner.setAlphaF(0.9f);
        QColor outer = style.color;
        outer.setAlphaF(0.f);
        glow.setColorAt(r / halo, inner);
        glow.setColorAt(1.0, outer);
        painter.setPen(Qt::NoPen);
        painter.setBrush(glow);
        painter.drawEllipse(centre, halo, halo);
    }
    if (style.rings && pingProgress >= 0) {
        const double ringRadius = r * (1 + (kPingScale - 1) * pingProgress);
        QColor ring = style.color;
        ring.setAlphaF(float(kPingOpacity * (1 - pingProgress)));
        painter.setPen(QPen(ring, 1.5));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(centre, ringRadius, ringRadius);
    }
    if (style.hollow) {
        painter.setPen(QPen(style.color, style.size * 0.16));
        painter.setBrush(Qt::NoBrush);
        const double inset = r - style.size * 0.08;
        painter.drawEllipse(centre, inset, inset);
    } else {
        painter.setPen(Qt::NoPen);
        painter.setBrush(style.color);
        painter.drawEllipse(centre, r, r);
    }
    painter.restore();
}

PingClock& PingClock::shared()
{
    static PingClock clock;
    return clock;
}

PingClock::PingClock()
{
    frames_.setInterval(kPingFrameMs);
    frames_.setTimerType(Qt::CoarseTimer);
    connect(&frames_, &QTimer::timeout, this, [this] {
        for (const auto& [owner, repaint] : watchers_)
            repaint();
    });
}

void PingClock::watch(const QObject* owner, std::function<void()> repaint)
{
    watchers_[owner] = std::move(repaint);
    if (!frames_.isActive()) {
        started_.start();
        frames_.start();
    }
}

void PingClock::unwatch(const QObject* owner)
{
    watchers_.erase(owner);
    if (watchers_.empty()) frames_.stop();
}

double PingClock::progress() const
{
    if (!frames_.isActive()) return 0.0;
    return easeOut_.valueForProgress(double(started_.elapsed() % kPingMilliseconds) / kPingMilliseconds);
}

bool PingClock::running() const
{
    return frames_.isActive();
}

} // namespace skeldrin

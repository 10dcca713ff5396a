#pragma once
// The coloured status dot and the ping ring that pulses around a waiting one.
#include <QColor>
#include <QEasingCurve>
#include <QElapsedTimer>
#include <QObject>
#include <QPointF>
#include <QTimer>
#include <functional>
#include <map>

class QPainter;

namespace skeldrin {

struct DotStyle {
    QColor color;
    double size = 9;
    bool hollow = false;
    bool glows = false;
    bool rings = false; // waiting shades carry a ping ring
};

// Paints a dot centred at `centre`; `pingProgress` in [0, 1) is where the ring's cycle stands.
void paintStatusDot(QPainter& painter, QPointF centre, const DotStyle& style, double pingProgress);

// One animation shared by every ring on screen. It runs only while somebody waits, so an idle widget
// never wakes up for it, and at 25 frames a second rather than the display's rate: the ring grows by a
// few pixels in 1.6 s, and each frame costs the whole process a repaint and a flush to the display.
class PingClock : public QObject {
    Q_OBJECT
  public:
    static PingClock& shared();
    // `repaint` is called on every frame while the owner is registered.
    void watch(const QObject* owner, std::function<void()> repaint);
    void unwatch(const QObject* owner);
    bool watches(const QObject* owner) const { return watchers_.count(owner) > 0; }
    double progress() const;
    bool running() const;

  private:
    PingClock();
    QTimer frames_;
    QElapsedTimer started_;
    QEasingCurve easeOut_{QEasingCurve::OutCubic};
    std::map<const QObject*, std::function<void()>> watchers_;
};

} // namespace skeldrin

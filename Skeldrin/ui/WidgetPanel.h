#pragma once
// The floating widget: a frameless, never-focused, always-on-top tool window listing the sessions, with
// the hover bar in a second window beside it.
#include <QObject>
#include <QPointF>
#include <QRect>
#include <functional>
#include <memory>

class QMenu;

namespace skeldrin {

class AppSettings;
class SessionsModel;
class Updates;

class WidgetPanel : public QObject {
    Q_OBJECT
  public:
    struct Callbacks {
        std::function<void()> openSettings;
        std::function<void()> quit;
    };

    // What the panel reads of the desktop; unset members read the real screens, pointer and clock.
    struct Screen {
        QRect geometry;  // Qt global coordinates, the primary screen first
        QRect available; // without panels and docks
    };
    struct Environment {
        std::function<QList<Screen>()> screens;
        std::function<QPointF()> pointer;     // Qt global coordinates
        std::function<qint64()> milliseconds; // a monotonic clock
    };

    WidgetPanel(SessionsModel& model, Updates& updates, AppSettings& settings, Callbacks callbacks,
                QObject* parent = nullptr, Environment environment = {});
    ~WidgetPanel() override;

    // Shows or hides the widget by "widget.visible", the list and the hook state.
    void refreshVisibility();
    bool isShown() const;
    // Called each time the card's context menu is built, after its own items: on a desktop without a
    // tray the application appends what the tray menu would have offered.
    void setCardMenuExtension(std::function<void(QMenu&)> extend);

    // The two windows, for tests and for the harness.
    QWidget* widget() const;
    QWidget* bar() const;
    bool isBarShown() const;
    void checkPointer();

  private:
    struct State;
    std::unique_ptr<State> d_;
};

} // namespace skeldrin

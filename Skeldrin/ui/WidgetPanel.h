#pragma once
// The floating widget: a frameless, never-focused, always-on-top tool window listing the sessions, with
// the hover bar in a second window beside it.
#include <QObject>
#include <functional>

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

    WidgetPanel(SessionsModel& model, Updates& updates, AppSettings& settings, Callbacks callbacks,
                QObject* parent = nullptr);
    ~WidgetPanel() override;

    // Shows or hides the widget by "widget.visible", the list and the hook state.
    void refreshVisibility();
    bool isShown() const;
    // Called each time the card's context menu is built, after its own items: on a desktop without a
    // tray the application appends what the tray menu would have offered.
    void setCardMenuExtension(std::function<void(QMenu&)> extend);
};

} // namespace skeldrin

#pragma once
// The tray item: the icon with the most urgent colour in its notch, its tooltip, and the menu rebuilt
// each time it opens.
#include "Skeldrin/ui/TrayMenu.h"
#include "Skeldrin/ui/WidgetPanel.h"

#include <QColor>
#include <QImage>
#include <QObject>
#include <functional>
#include <memory>
#include <optional>

class QMenu;
class QSystemTrayIcon;

namespace skeldrin {

class AppSettings;
class SessionsModel;
class Updates;

class StatusBarController : public QObject {
    Q_OBJECT
  public:
    // The same two actions the widget's menu offers.
    using Callbacks = WidgetPanel::Callbacks;

    // `artwork` is the "StatusIcon" image (see MenuBarIcon::artwork()).
    StatusBarController(SessionsModel& model, Updates& updates, WidgetPanel& widget, AppSettings& settings,
                        QImage artwork, Callbacks callbacks, QObject* parent = nullptr);
    ~StatusBarController() override;

    // Puts the item in the tray.
    void show();
    QSystemTrayIcon& trayIcon() const { return *tray_; }
    // The icon as it is drawn now, at `side` pixels.
    QImage iconImage(int side) const;

    // What choosing a menu entry does; also used by the widget's card menu when there is no tray.
    void perform(const TrayMenuItem& item);
    // Appends the tray menu's entries to another menu.
    void appendMenu(QMenu& menu);

  private:
    std::optional<QColor> badgeColour() const;
    void updateIcon();
    void rebuildMenu();

    SessionsModel& model_;
    Updates& updates_;
    WidgetPanel& widget_;
    AppSettings& settings_;
    QImage artwork_;
    Callbacks callbacks_;
    std::unique_ptr<QMenu> menu_;
    QSystemTrayIcon* tray_;
    bool iconDrawn_ = false;
    std::optional<QColor> shownBadge_;
    QString shownToolTip_;
};

} // namespace skeldrin

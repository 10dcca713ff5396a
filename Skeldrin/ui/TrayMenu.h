#pragma once
// The tray menu as data: what each entry says and does, built from the model, the updater and the
// settings. The QMenu and the tests both read this list.
#include <QColor>
#include <QImage>
#include <QString>
#include <functional>
#include <optional>
#include <vector>

class QMenu;

namespace skeldrin {

class AppSettings;
class SessionsModel;
class Updates;

struct TrayMenuItem {
    enum class Action { none, separator, installUpdate, jump, flip, showSettings, quit };

    QString title;
    bool enabled = true;
    int indentation = 0;
    std::optional<QColor> dot;
    bool hollow = false;
    QString tooltip;
    Action action = Action::none;
    // The session id for jump, the settings key for flip.
    QString argument;
    bool checkable = false;
    bool checked = false;
    QString shortcut;

    bool operator==(const TrayMenuItem&) const = default;
};

std::vector<TrayMenuItem> trayMenuItems(const SessionsModel& model, const Updates& updates,
                                        const AppSettings& settings);

// The tooltip of the tray icon for the most urgent status ("Skeldrin — nothing needs you" for none).
QString trayToolTip(const SessionsModel& model);

// An 18 × 18 point session dot for a menu entry, at the given device pixel ratio.
QImage statusDotImage(const QColor& color, bool hollow, qreal devicePixelRatio);

// Makes the menu answer its entries' key equivalents while it is open. Qt matches an entry's shortcut
// only through a window that shows the menu's own entry (a menu bar); a menu popped up on its own, as the
// tray's and the card's are, has none, so the menu matches them itself.
void answerKeyEquivalents(QMenu& menu);

// Replaces the menu's entries with the items; choosing one calls back with its item.
void fillMenu(QMenu& menu, const std::vector<TrayMenuItem>& items,
              const std::function<void(const TrayMenuItem&)>& chosen);

} // namespace skeldrin

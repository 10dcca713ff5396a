#include "Skeldrin/ui/StatusBarController.h"

#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/ui/MenuBarIcon.h"
#include "Skeldrin/ui/Theme.h"
#include "Skeldrin/ui/WidgetPanel.h"

#include <QGuiApplication>
#include <QIcon>
#include <QLoggingCategory>
#include <QMenu>
#include <QSystemTrayIcon>

Q_LOGGING_CATEGORY(lcStatusBar, "app.skeldrin.statusbar")

namespace skeldrin {

namespace {
// Tray panels on Linux are dark almost everywhere; the glyph is drawn light on them.
const QColor glyphColour(0xF2, 0xF2, 0xF2);
// Sizes the icon is offered in, so that every tray picks a sharp one.
constexpr int iconSides[] = {16, 22, 24, 32, 48, 64};
} // namespace

StatusBarController::StatusBarController(SessionsModel& model, Updates& updates, WidgetPanel& widget,
                                         AppSettings& settings, QImage artwork, Callbacks callbacks,
                                         QObject* parent)
    : QObject(parent)
    , model_(model)
    , updates_(updates)
    , widget_(widget)
    , settings_(settings)
    , artwork_(std::move(artwork))
    , callbacks_(std::move(callbacks))
    , menu_(std::make_unique<QMenu>())
    , tray_(new QSystemTrayIcon(this))
{
    Theme::makeDark(*menu_);
    answerKeyEquivalents(*menu_);
    tray_->setContextMenu(menu_.get());
    connect(menu_.get(), &QMenu::aboutToShow, this, &StatusBarController::rebuildMenu);
    // A left click opens the same menu, as the status item does; macOS does that itself.
    if (QGuiApplication::platformName() != QLatin1String("cocoa")) {
        connect(tray_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
            if (reason == QSystemTrayIcon::Trigger) menu_->popup(QCursor::pos());
        });
    }

    for (auto signal : {&SessionsModel::storedChanged, &SessionsModel::backgroundTasksChanged,
                        &SessionsModel::foldedRunsChanged, &SessionsModel::transcriptTitlesChanged})
        connect(&model_, signal, this, &StatusBarController::updateIcon);
    // A colour picked in settings repaints the badge at once.
    connect(&settings_, &AppSettings::changed, this, [this](const QString& key) {
        if (key.startsWith(QLatin1String("color."))) updateIcon();
    });
    rebuildMenu(); // a panel may read the exported menu before it is ever opened
    updateIcon();
}

StatusBarController::~StatusBarController() = default;

void StatusBarController::show()
{
    tray_->show();
}

std::optional<QColor> StatusBarController::badgeColour() const
{
    if (const auto urgent = model_.mostUrgent()) return Palette::color(*urgent, settings_);
    return std::nullopt;
}

QImage StatusBarController::iconImage(int side) const
{
    return MenuBarIcon::image(artwork_, glyphColour, badgeColour(), side);
}

void StatusBarController::updateIcon()
{
    // Most model changes leave the badge as it was; a new icon would make the panel fetch it again.
    const std::optional<QColor> badge = badgeColour();
    const QString toolTip = trayToolTip(model_);
    if (iconDrawn_ && badge == shownBadge_ && toolTip == shownToolTip_) return;
    QIcon icon;
    for (int side : iconSides)
        icon.addPixmap(QPixmap::fromImage(MenuBarIcon::image(artwork_, glyphColour, badge, side)));
    tray_->setIcon(icon);
    tray_->setToolTip(toolTip);
    iconDrawn_ = true;
    shownBadge_ = badge;
    shownToolTip_ = toolTip;
}

void StatusBarController::rebuildMenu()
{
    fillMenu(*menu_, trayMenuItems(model_, updates_, settings_),
             [this](const TrayMenuItem& item) { perform(item); });
}

void StatusBarController::appendMenu(QMenu& menu)
{
    QMenu own;
    fillMenu(own, trayMenuItems(model_, updates_, settings_),
             [this](const TrayMenuItem& item) { perform(item); });
    answerKeyEquivalents(menu);
    menu.addSeparator();
    for (QAction* action : own.actions()) {
        own.removeAction(action);
        action->setParent(&menu);
        menu.addAction(action);
    }
}

void StatusBarController::perform(const TrayMenuItem& item)
{
    using Action = TrayMenuItem::Action;
    switch (item.action) {
    case Action::installUpdate:
        updates_.install();
        break;
    case Action::jump:
        for (const ListedSession& entry : model_.list()) {
            if (QString::fromStdString(entry.session.id) == item.argument) {
                model_.jump(entry);
                break;
            }
        }
        break;
    case Action::flip:
        if (item.argument.isEmpty()) break;
        settings_.setValue(item.argument, !item.checked);
        if (item.argument == QLatin1String("widget.visible")) widget_.refreshVisibility();
        break;
    case Action::showSettings:
        if (callbacks_.openSettings) callbacks_.openSettings();
        break;
    case Action::quit:
        if (callbacks_.quit) callbacks_.quit();
        break;
    case Action::none:
    case Action::separator:
        break;
    }
}

} // namespace skeldrin

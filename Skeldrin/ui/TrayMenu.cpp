#include "Skeldrin/ui/TrayMenu.h"

#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/model/Updates.h"

#include <QAction>
#include <QKeyEvent>
#include <QMenu>
#include <QPainter>

namespace skeldrin {

namespace {

QString q(const std::string& text)
{
    return QString::fromStdString(text);
}

TrayMenuItem entry(const QString& title, TrayMenuItem::Action action, const QString& shortcut = {})
{
    TrayMenuItem item;
    item.title = title;
    item.action = action;
    item.shortcut = shortcut;
    return item;
}

TrayMenuItem separator()
{
    TrayMenuItem item = entry({}, TrayMenuItem::Action::separator);
    item.enabled = false;
    return item;
}

TrayMenuItem toggle(const QString& title, const QString& key, bool defaultValue, const AppSettings& settings)
{
    TrayMenuItem item = entry(title, TrayMenuItem::Action::flip);
    item.argument = key;
    item.checkable = true;
    item.checked = settings.boolValue(key, defaultValue);
    return item;
}

} // namespace

std::vector<TrayMenuItem> trayMenuItems(const SessionsModel& model, const Updates& updates,
                                        const AppSettings& settings)
{
    using Action = TrayMenuItem::Action;
    std::vector<TrayMenuItem> items;
    if (const auto& manifest = updates.required()) {
        items.push_back(entry(updates.awaitingInstall()
                                  ? QStringLiteral("Drag Skeldrin to Applications…")
                                  : QStringLiteral("Update to %1…").arg(manifest->latest),
                              Action::installUpdate));
    }

    const auto list = model.list();
    for (const ListedSession& entry : list) {
        TrayMenuItem item;
        const QString name = q(model.displayName(entry.session));
        switch (entry.role) {
        case ListedSession::Role::main:
            item.title = name + QStringLiteral("  ·  ") + q(entry.session.origin.appName());
            item.action = Action::jump;
            item.argument = q(entry.session.id);
            break;
        case ListedSession::Role::detached:
            item.title = name + QStringLiteral("  ·  Background");
            item.enabled = false;
            break;
        case ListedSession::Role::child:
            item.title = name;
            item.enabled = false;
            item.indentation = 1;
            break;
        }
        item.dot = Palette::color(entry.shade, settings);
        item.hollow = entry.role == ListedSession::Role::detached || entry.seen();
        item.tooltip = q(entry.session.lastPrompt.value_or(std::string()));
        items.push_back(std::move(item));
    }
    if (list.empty()) {
        items.push_back(entry(QStringLiteral("No Claude Code sessions"), Action::none));
        items.back().enabled = false;
    }

    items.push_back(separator());
    items.push_back(toggle(QStringLiteral("Show Widget"), QStringLiteral("widget.visible"), true, settings));
    items.push_back(
        toggle(QStringLiteral("Compact Widget"), QStringLiteral("widget.compact"), false, settings));
    items.push_back(separator());
    items.push_back(entry(QStringLiteral("Settings…"), Action::showSettings, QStringLiteral(",")));
    items.push_back(entry(QStringLiteral("Quit Skeldrin"), Action::quit, QStringLiteral("Q")));
    return items;
}

QString trayToolTip(const SessionsModel& model)
{
    const auto urgent = model.mostUrgent();
    if (!urgent) return QStringLiteral("Skeldrin — nothing needs you");
    return QStringLiteral("Skeldrin — ") +
           QString::fromUtf8(label(*urgent).data(), qsizetype(label(*urgent).size()));
}

QImage statusDotImage(const QColor& color, bool hollow, qreal devicePixelRatio)
{
    const int side = qRound(18 * devicePixelRatio);
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    image.setDevicePixelRatio(devicePixelRatio);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    if (hollow) {
        painter.setPen(QPen(color, 1.5));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(QRectF(5.75, 5.75, 6.5, 6.5));
    } else {
        painter.setPen(Qt::NoPen);
        painter.setBrush(color);
        painter.drawEllipse(QRectF(5, 5, 8, 8));
    }
    return image;
}

namespace {

class KeyEquivalents : public QObject {
  public:
    explicit KeyEquivalents(QMenu& menu)
        : QObject(&menu)
        , menu_(menu)
    {
    }
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() != QEvent::KeyPress) return false;
        const QKeySequence pressed(static_cast<QKeyEvent*>(event)->keyCombination());
        for (QAction* action : menu_.actions()) {
            if (!action->isEnabled() || action->shortcut().isEmpty() ||
                action->shortcut().matches(pressed) != QKeySequence::ExactMatch)
                continue;
            // Closed first, as a click would: what the entry opens must not sit under a dying popup.
            menu_.close();
            action->trigger();
            return true;
        }
        return false;
    }

  private:
    QMenu& menu_;
};

} // namespace

void answerKeyEquivalents(QMenu& menu)
{
    static const char* const kAnswering = "skeldrin.keyEquivalents";
    if (menu.property(kAnswering).toBool()) return;
    menu.setProperty(kAnswering, true);
    menu.installEventFilter(new KeyEquivalents(menu));
}

void fillMenu(QMenu& menu, const std::vector<TrayMenuItem>& items,
              const std::function<void(const TrayMenuItem&)>& chosen)
{
    menu.clear();
    menu.setToolTipsVisible(true);
    const qreal ratio = menu.devicePixelRatioF();
    for (const TrayMenuItem& item : items) {
        if (item.action == TrayMenuItem::Action::separator) {
            menu.addSeparator();
            continue;
        }
        // A menu has no indentation level of its own; two em spaces a level stand in.
        QAction* action = menu.addAction(QString(item.indentation * 2, QChar(0x2003)) + item.title);
        action->setEnabled(item.enabled);
        if (item.dot)
            action->setIcon(QIcon(QPixmap::fromImage(statusDotImage(*item.dot, item.hollow, ratio))));
        if (!item.tooltip.isEmpty()) action->setToolTip(item.tooltip);
        action->setCheckable(item.checkable);
        action->setChecked(item.checked);
        if (!item.shortcut.isEmpty())
            action->setShortcut(QKeySequence(QStringLiteral("Ctrl+") + item.shortcut));
        if (item.action != TrayMenuItem::Action::none)
            QObject::connect(action, &QAction::triggered, action, [chosen, item] { chosen(item); });
    }
}

} // namespace skeldrin

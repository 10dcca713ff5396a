#include "Skeldrin/ui/AppDelegate.h"

#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Headliner.h"
#include "Skeldrin/model/SessionNotifier.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/platform/AppPlatform.h"
#include "Skeldrin/platform/Notifications.h"
#include "Skeldrin/platform/Quarantine.h"
#include "Skeldrin/platform/SystemJumper.h"
#include "Skeldrin/ui/MenuBarIcon.h"
#include "Skeldrin/ui/SettingsView.h"
#include "Skeldrin/ui/SingleInstance.h"
#include "Skeldrin/ui/StatusBarController.h"
#include "Skeldrin/ui/Theme.h"
#include "Skeldrin/ui/WidgetPanel.h"

#include <QApplication>
#include <QColorDialog>
#include <QDir>
#include <QEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QLoggingCategory>
#include <QMessageBox>
#include <QMoveEvent>
#include <QPainter>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QToolButton>
#include <QVBoxLayout>
#include <QWindow>
#include <stdexcept>

Q_LOGGING_CATEGORY(lcApp, "app.skeldrin.app")

namespace skeldrin {

void MessageBoxAlerts::showError(const QString& title, const QString& text)
{
    platform::activateApp();
    QMessageBox box(QMessageBox::Warning, QStringLiteral("Skeldrin"), title, QMessageBox::Ok);
    box.setInformativeText(text);
    box.exec();
}

SettingsWindow::SettingsWindow()
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint)
{
}

QLayout* SettingsWindow::titleBar()
{
    auto* bar = new QHBoxLayout;
    bar->setContentsMargins(6, 0, 6, 0);
    auto* close = new QToolButton(this);
    close->setFixedSize(12, 12);
    close->setToolTip(QStringLiteral("Close"));
    close->setAccessibleName(QStringLiteral("Close"));
    close->setCursor(Qt::ArrowCursor);
    close->setStyleSheet(QStringLiteral("QToolButton { background: rgb(255, 95, 87); border-radius: 6px; "
                                        "border: 1px solid rgba(0, 0, 0, 46); }"));
    connect(close, &QToolButton::clicked, this, &QWidget::close);
    auto* title = new QLabel(QStringLiteral("Skeldrin"), this);
    title->setAlignment(Qt::AlignCenter);
    title->setStyleSheet(QStringLiteral("color: rgba(255, 255, 255, 140); font-weight: 600;"));
    bar->addWidget(close);
    bar->addWidget(title, 1);
    bar->addSpacing(12); // keeps the title centred against the button
    return bar;
}

void SettingsWindow::mousePressEvent(QMouseEvent* event)
{
    // Moved by its background, as there is no title bar to hold.
    if (event->button() == Qt::LeftButton && windowHandle()) windowHandle()->startSystemMove();
}

void SettingsWindow::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape)
        close();
    else
        QWidget::keyPressEvent(event);
}

void SettingsWindow::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setPen(QColor(255, 255, 255, 36));
    painter.drawRect(rect().adjusted(0, 0, -1, -1));
}

AppDelegate::AppDelegate() = default;

AppDelegate::~AppDelegate()
{
    delete settingsWindow_.data();
}

bool AppDelegate::start()
{
    const QImage artwork = MenuBarIcon::artwork();
    if (artwork.isNull())
        throw std::runtime_error("The \"StatusIcon\" artwork is missing from this build of Skeldrin.");

    SessionStore store = SessionStore::defaultStore();
    // Made now, so that every start names the store by the same real path.
    std::error_code ignored;
    std::filesystem::create_directories(store.directory(), ignored);
    // Two instances never run against one store: a second start hands over and leaves.
    instance_ = std::make_unique<SingleInstance>(QString::fromStdString(store.directory().string()));
    settings_ = std::make_unique<AppSettings>();
    if (!instance_->claim()) return false;
    connect(instance_.get(), &SingleInstance::reopenRequested, this, &AppDelegate::reopen);

    platform::becomeAccessoryApp();
    // A freshly installed copy starts without the first-launch prompt next time (macOS; nothing on Linux).
    Quarantine::clear(
        QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../.."))); // the bundle

    jumper_ = makeSystemJumper();
    SessionsModel::Dependencies deps;
    deps.jumper = jumper_.get();
    deps.alerts = &alerts_;
    deps.settings = settings_.get();
    deps.headlineWriter = [](const Headliner::Request& request, const QStringList& running, QObject* context,
                             std::function<void(Headliner::Outcome)> done) {
        Headliner::write(request, running, context, std::move(done));
    };
    model_ = std::make_unique<SessionsModel>(std::move(store), std::move(deps));
    model_->start();

    updates_ = std::make_unique<Updates>();
    updates_->start();

    // After the model's first load: sessions already waiting at start-up are not news.
    notifications_ = makeSystemNotifications();
    notifier_ = std::make_unique<SessionNotifier>(*model_, *settings_, *notifications_);

    const auto quit = [] { QApplication::quit(); };
    widget_ = std::make_unique<WidgetPanel>(*model_, *updates_, *settings_,
                                            WidgetPanel::Callbacks{[this] { showSettings(); }, quit});
    widget_->refreshVisibility();

    statusBar_ = std::make_unique<StatusBarController>(
        *model_, *updates_, *widget_, *settings_, artwork,
        StatusBarController::Callbacks{[this] { showSettings(); }, quit});
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        statusBar_->show();
    } else {
        qCWarning(lcApp,
                  "no system tray on this desktop (no StatusNotifierWatcher or XEmbed tray): the widget's "
                  "menu offers what the tray menu would");
        widget_->setCardMenuExtension([this](QMenu& menu) { statusBar_->appendMenu(menu); });
    }
    return true;
}

void AppDelegate::reopen()
{
    settings_->setValue(QStringLiteral("widget.visible"), true);
    if (widget_) widget_->refreshVisibility();
}

void AppDelegate::showSettings()
{
    if (!settingsWindow_) {
        auto* window = new SettingsWindow;
        window->setWindowTitle(QStringLiteral("Skeldrin"));
        Theme::makeDark(*window);
        window->setAutoFillBackground(true);
        auto* layout = new QVBoxLayout(window);
        layout->setContentsMargins(6, 8, 6, 4);
        layout->addLayout(window->titleBar());
        settingsView_ = new SettingsView(*model_, *settings_, window);
        layout->addWidget(settingsView_);
        window->setFixedSize(std::max(300, window->sizeHint().width()), window->sizeHint().height());
        if (const QScreen* screen = QGuiApplication::primaryScreen())
            window->move(screen->availableGeometry().center() - window->rect().center());
        window->installEventFilter(this);
        settingsWindow_ = window;
    }
    model_->refreshHookState();
    platform::activateApp();
    settingsWindow_->show();
    settingsWindow_->raise();
    settingsWindow_->activateWindow();
    settingsView_->placeColorPanel(*settingsWindow_);
}

bool AppDelegate::eventFilter(QObject* watched, QEvent* event)
{
    QColorDialog* panel = settingsView_ ? settingsView_->colorPanel() : nullptr;
    if (watched == settingsWindow_ && panel && panel->isVisible()) {
        // The colour panel travels with the settings window and goes when it closes.
        if (event->type() == QEvent::Move) {
            const auto* move = static_cast<QMoveEvent*>(event);
            panel->move(panel->pos() + move->pos() - move->oldPos());
        } else if (event->type() == QEvent::Close) {
            panel->close();
        }
    }
    return QObject::eventFilter(watched, event);
}

} // namespace skeldrin

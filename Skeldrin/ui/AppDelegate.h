#pragma once
// The desktop application: starts the model, the updater, the widget and the tray item in that order,
// answers a second start, and owns the settings window.
#include "Skeldrin/model/Seams.h"

#include <QObject>
#include <QPointer>
#include <memory>

#include <QWidget>

namespace skeldrin {

class AppSettings;
class Notifications;
class SessionNotifier;
class SessionsModel;
class SettingsView;
class SingleInstance;
class StatusBarController;
class Updates;
class WidgetPanel;

// Failures of what the user asked for, as a modal alert titled by the action.
class MessageBoxAlerts : public Alerts {
  public:
    void showError(const QString& title, const QString& text) override;
};

// A small dark utility window: no title bar of the window manager's, so nothing to minimize or maximize;
// its own close button and title, and it moves by its background.
class SettingsWindow : public QWidget {
    Q_OBJECT
  public:
    SettingsWindow();
    // The close button and the title, for the top of the window's layout.
    QLayout* titleBar();

  protected:
    void mousePressEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
};

class AppDelegate : public QObject {
    Q_OBJECT
  public:
    AppDelegate();
    ~AppDelegate() override;

    // Starts the application; returns false when another instance runs (it was asked to show its
    // widget). Throws std::runtime_error with a sentence for the user when start-up cannot go on.
    bool start();

    // Opens or brings forward the settings window.
    void showSettings();
    // Stores "widget.visible" = true and shows the widget.
    void reopen();

    SessionsModel& model() const { return *model_; }
    WidgetPanel* widget() const { return widget_.get(); }
    StatusBarController* statusBar() const { return statusBar_.get(); }
    QWidget* settingsWindow() const { return settingsWindow_; }

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    std::unique_ptr<AppSettings> settings_;
    std::unique_ptr<Jumper> jumper_;
    MessageBoxAlerts alerts_;
    std::unique_ptr<SessionsModel> model_;
    std::unique_ptr<Updates> updates_;
    std::unique_ptr<Notifications> notifications_;
    std::unique_ptr<SessionNotifier> notifier_;
    std::unique_ptr<WidgetPanel> widget_;
    std::unique_ptr<StatusBarController> statusBar_;
    std::unique_ptr<SingleInstance> instance_;
    QPointer<QWidget> settingsWindow_;
    SettingsView* settingsView_ = nullptr;
};

} // namespace skeldrin

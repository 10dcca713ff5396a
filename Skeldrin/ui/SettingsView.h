#pragma once
// The settings window's content: the Claude Code connection, the compact switch, better headlines,
// open at login, and the four status colours with a reset.
#include "TrackerCore/Session.h"

#include <QAbstractButton>
#include <QPointF>
#include <QRectF>
#include <QWidget>

class QColorDialog;
class QLabel;

namespace skeldrin {

class AppSettings;
class SessionsModel;

// Where the colour panel goes beside the settings window: 12 points to its right, or to its left when
// it would pass the visible frame's right edge; top edges aligned; kept inside the visible frame.
// Screen coordinates with y down, as Qt has them.
QPointF colorPanelOrigin(const QRectF& window, const QSizeF& panel, const QRectF& visible);

// An on/off switch drawn as a pill.
class Switch : public QAbstractButton {
    Q_OBJECT
  public:
    explicit Switch(QWidget* parent = nullptr);
    QSize sizeHint() const override;

  protected:
    void paintEvent(QPaintEvent*) override;
};

class SettingsView : public QWidget {
    Q_OBJECT
  public:
    SettingsView(SessionsModel& model, AppSettings& settings, QWidget* parent = nullptr);

    // The shared colour panel, made on first use.
    QColorDialog* colorPanel() const { return colorPanel_; }
    // Moves the colour panel beside `window` unless the user has it open already.
    void placeColorPanel(const QWidget& window);

  private:
    void syncFromModel();
    void syncColors();
    void setOpenAtLogin(bool enabled);
    void pickColor(Status status);

    SessionsModel& model_;
    AppSettings& settings_;
    Switch* claudeCode_;
    Switch* compact_;
    Switch* headlines_;
    QLabel* headlineError_;
    Switch* openAtLogin_;
    QLabel* loginError_;
    QColorDialog* colorPanel_ = nullptr;
    Status editing_ = Status::running;
};

} // namespace skeldrin

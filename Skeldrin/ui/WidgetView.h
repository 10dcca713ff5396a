#pragma once
// The widget's card: one row per listed session with its runs beneath, an update notice, or the offer
// to connect Claude Code. Painted by hand so a change costs one layout and one paint.
#include "Skeldrin/model/SessionList.h"

#include <QFont>
#include <QTimer>
#include <QWidget>
#include <functional>
#include <map>
#include <optional>
#include <string>

class QMenu;

namespace skeldrin {

class AppSettings;
class Clock;
class SessionsModel;
class Updates;

// Which session the pointer is on, and where each row sits in the card (top-left origin).
class WidgetHover : public QObject {
    Q_OBJECT
  public:
    const std::optional<std::string>& sessionId() const { return sessionId_; }
    void setSessionId(std::optional<std::string> id);
    std::map<std::string, QRectF> itemFrames;

  Q_SIGNALS:
    void sessionIdChanged();

  private:
    std::optional<std::string> sessionId_;
};

// A font of `size` points in the weight given; points are the layout's logical pixels.
QFont uiFont(double size, QFont::Weight weight, bool tabularDigits = false);
// The translucent dark card both windows sit on.
void paintCard(QPainter& painter, const QRectF& card, double radius);

class WidgetView : public QWidget {
    Q_OBJECT
  public:
    struct Callbacks {
        std::function<void(QSize)> onSize;
        std::function<void(const ListedSession&)> onActivate;
        std::function<void(const ListedSession&)> onToggleRuns;
        std::function<void()> openSettings;
        std::function<void()> quit;
        std::function<void(QMenu&)> extendCardMenu;
    };
    struct RowBox {
        ListedSession entry;
        QRectF frame;
        QRectF toggle; // empty when the row has no runs to fold
        QPointF dot;
        QRectF spacer; // the dash in the gap above a session row; empty where the gap stays clear
    };

    WidgetView(SessionsModel& model, Updates& updates, AppSettings& settings, WidgetHover& hover,
               Callbacks callbacks, Clock* clock = nullptr, QWidget* parent = nullptr);
    ~WidgetView() override;

    // "Downloading update…", "Drag Skeldrin to Applications" or "Update to <latest>".
    static QString updateTitle(const Updates& updates, const QString& latest);
    bool compact() const;
    const std::vector<RowBox>& rows() const { return rows_; }
    // The notice's button ("Update to …", "Connect Claude Code"); empty when none shows.
    QString noticeTitle() const { return noticeTitle_; }
    QRectF noticeFrame() const { return noticeFrame_; }
    QSize sizeHint() const override { return size_; }
    // Rebuilds the rows from the model and reports the new size.
    void relayout();
    // The menus, filled as a secondary click would show them.
    void fillCardMenu(QMenu& menu);
    void fillRowMenu(QMenu& menu, const ListedSession& entry);
    // The click a press and release at `at` make.
    void clickAt(QPointF at);
    // The help text shown for `at`: the runs chevron's, else none.
    QString helpTextAt(QPointF at) const;
    // Whether the ping rings are animating for this card.
    bool animating() const;

  protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

  private:
    void paintRow(QPainter& painter, const RowBox& row, std::size_t index);
    void updatePing();

    SessionsModel& model_;
    Updates& updates_;
    AppSettings& settings_;
    WidgetHover& hover_;
    Callbacks callbacks_;
    Clock* clock_;
    std::unique_ptr<Clock> ownClock_;
    std::vector<RowBox> rows_;
    QString noticeTitle_;
    QRectF noticeFrame_;
    QRectF card_;
    QSize size_;
    QTimer elapsedRefresh_;
};

} // namespace skeldrin

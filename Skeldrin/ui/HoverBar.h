#pragma once
// The small card beside the widget: what the pointed-at session is doing, or a summary, and two round
// buttons that quit and that compact or expand the widget.
#include <QWidget>
#include <functional>

namespace skeldrin {

class AppSettings;
class SessionsModel;
class WidgetHover;

class HoverBar : public QWidget {
    Q_OBJECT
  public:
    HoverBar(SessionsModel& model, AppSettings& settings, WidgetHover& hover,
             std::function<void(QSize)> onSize, std::function<void()> quit, QWidget* parent = nullptr);

    // "1 session", "3 sessions".
    static QString summary(std::size_t count);
    // The lines the details column shows now.
    QStringList details() const;
    QRectF quitLight() const;
    QRectF zoomLight() const;
    QString zoomLabel() const;
    QSize sizeHint() const override { return size_; }
    void relayout();

  protected:
    void paintEvent(QPaintEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    bool event(QEvent* event) override;

  private:
    SessionsModel& model_;
    AppSettings& settings_;
    WidgetHover& hover_;
    std::function<void(QSize)> onSize_;
    std::function<void()> quit_;
    QSize size_;
};

} // namespace skeldrin

#include "Skeldrin/ui/HoverBar.h"

#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/model/RowText.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/ui/StatusDot.h"
#include "Skeldrin/ui/WidgetView.h"

#include <QFontMetricsF>
#include <QHelpEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QToolTip>

namespace skeldrin {

namespace {

constexpr double kLead = 11, kTrail = 10, kVertical = 9, kSpacing = 8, kLight = 12, kDetails = 230;
const QString kCompactKey = QStringLiteral("widget.compact");

std::optional<ListedSession> pointedEntry(const SessionsModel& model, const WidgetHover& hover)
{
    if (!hover.sessionId()) return std::nullopt;
    for (const ListedSession& entry : model.list())
        if (entry.id() == *hover.sessionId()) return entry;
    return std::nullopt;
}

void paintLight(QPainter& p, const QRectF& r, const QColor& fill)
{
    p.setPen(QPen(QColor(0, 0, 0, 46), 0.5));
    p.setBrush(fill);
    p.drawEllipse(r.adjusted(0.25, 0.25, -0.25, -0.25));
}

} // namespace

HoverBar::HoverBar(SessionsModel& model, AppSettings& settings, WidgetHover& hover,
                   std::function<void(QSize)> onSize, std::function<void()> quit, QWidget* parent)
    : QWidget(parent)
    , model_(model)
    , settings_(settings)
    , hover_(hover)
    , onSize_(std::move(onSize))
    , quit_(std::move(quit))
{
    setAttribute(Qt::WA_TranslucentBackground);
    const auto refresh = [this] { relayout(); };
    connect(&hover_, &WidgetHover::sessionIdChanged, this, refresh);
    connect(&model_, &SessionsModel::storedChanged, this, refresh);
    connect(&model_, &SessionsModel::transcriptTitlesChanged, this, refresh);
    connect(&settings_, &AppSettings::changed, this, [this] { update(); });
    relayout();
}

QString HoverBar::summary(std::size_t count)
{
    return count == 1 ? QStringLiteral("1 session") : QString::number(count) + QStringLiteral(" sessions");
}

QStringList HoverBar::details() const
{
    if (const auto entry = pointedEntry(model_, hover_)) {
        const auto& prompt = entry->session.lastPrompt;
        return {QString::fromStdString(model_.displayName(entry->session)),
                QString::fromStdString(statusWord(*entry)), QString::fromStdString(place(model_, *entry)),
                prompt && !prompt->empty() ? QString::fromStdString(*prompt)
                                           : QStringLiteral("No prompt yet")};
    }
    return {QStringLiteral("Skeldrin"), summary(model_.list().size()),
            QStringLiteral("Point at a session to see what it's doing")};
}

QRectF HoverBar::quitLight() const
{
    return {kLead, kVertical + 2, kLight, kLight};
}
QRectF HoverBar::zoomLight() const
{
    return {kLead + kLight + kSpacing, kVertical + 2, kLight, kLight};
}

QString HoverBar::zoomLabel() const
{
    return settings_.boolValue(kCompactKey, false) ? QStringLiteral("Expand") : QStringLiteral("Compact");
}

void HoverBar::relayout()
{
    const QStringList lines = details();
    const QFont title = uiFont(12, QFont::DemiBold), small = uiFont(10.5, QFont::Normal);
    double height = std::ceil(QFontMetricsF(title).height()) + 2 * std::ceil(QFontMetricsF(small).height());
    if (lines.size() == 4) {
        // The prompt may take a second line.
        const QRectF prompt =
            QFontMetricsF(small).boundingRect(QRectF(0, 0, kDetails, 1000), Qt::TextWordWrap, lines[3]);
        if (prompt.height() > QFontMetricsF(small).height() * 1.5)
            height += std::ceil(QFontMetricsF(small).height());
    }
    const QSize size(int(kLead + 2 * kLight + 2 * kSpacing + kDetails + kTrail),
                     int(std::ceil(height + 2 * kVertical)));
    if (size != size_) {
        size_ = size;
        resize(size);
        if (onSize_) onSize_(size);
    }
    update();
}

void HoverBar::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setRenderHint(QPainter::TextAntialiasing);
    paintCard(p, QRectF(rect()), 10);

    paintLight(p, quitLight(), QColor::fromRgbF(1.0f, 0.373f, 0.341f));
    paintLight(p, zoomLight(), QColor::fromRgbF(0.157f, 0.784f, 0.251f));
    const QColor glyph(0, 0, 0, 140);
    const QRectF cross = quitLight().adjusted(3, 3, -3, -3);
    p.setPen(QPen(glyph, 0.08 * cross.width() * 1.5, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(cross.topLeft(), cross.bottomRight());
    p.drawLine(cross.topRight(), cross.bottomLeft());
    // Two triangles in opposite corners; inward (toward the centre) offers to compact.
    const QRectF z = zoomLight().adjusted(3, 3, -3, -3);
    const bool inward = !settings_.boolValue(kCompactKey, false);
    const auto at = [&](double fx, double fy) {
        return QPointF(z.left() + fx * z.width(), z.top() + fy * z.height());
    };
    QPainterPath zoom;
    if (inward) {
        zoom.addPolygon(QPolygonF{at(0.44, 0.44), at(0.04, 0.44), at(0.44, 0.04)});
        zoom.addPolygon(QPolygonF{at(0.56, 0.56), at(0.96, 0.56), at(0.56, 0.96)});
    } else {
        zoom.addPolygon(QPolygonF{at(0.04, 0.04), at(0.54, 0.04), at(0.04, 0.54)});
        zoom.addPolygon(QPolygonF{at(0.96, 0.96), at(0.46, 0.96), at(0.96, 0.46)});
    }
    p.setPen(Qt::NoPen);
    p.setBrush(glyph);
    p.drawPath(zoom);

    const QStringList lines = details();
    const double x = zoomLight().right() + kSpacing;
    double y = kVertical;
    const QFont title = uiFont(12, QFont::DemiBold), small = uiFont(10.5, QFont::Normal),
                status = uiFont(10.5, QFont::Medium);
    const double titleHeight = std::ceil(QFontMetricsF(title).height());
    const double smallHeight = std::ceil(QFontMetricsF(small).height());
    const auto entry = pointedEntry(model_, hover_);
    double nameX = x;
    if (entry) {
        const QColor colour = Palette::color(entry->shade, settings_);
        paintStatusDot(p, QPointF(x + 4.5, y + titleHeight / 2),
                       {colour, 9, entry->seen(), !entry->seen(), false}, -1);
        nameX += 15;
        p.setFont(title);
        p.setPen(Qt::white);
        const double statusWidth = QFontMetricsF(status).horizontalAdvance(lines[1]);
        const QString name =
            QFontMetricsF(title).elidedText(lines[0], Qt::ElideRight, kDetails - 15 - statusWidth - 6);
        p.drawText(QRectF(nameX, y, kDetails, titleHeight), Qt::AlignVCenter, name);
        p.setFont(status);
        p.setPen(colour);
        p.drawText(
            QRectF(nameX + QFontMetricsF(title).horizontalAdvance(name) + 6, y, statusWidth + 2, titleHeight),
            Qt::AlignVCenter, lines[1]);
    } else {
        p.setFont(title);
        p.setPen(Qt::white);
        p.drawText(QRectF(x, y, kDetails, titleHeight), Qt::AlignVCenter, lines[0]);
    }
    y += titleHeight;
    p.setFont(small);
    for (int i = entry ? 2 : 1; i < lines.size(); ++i) {
        const bool prompt = entry && i == 3;
        p.setPen(QColor(255, 255, 255, prompt ? 200 : 150));
        const double h = prompt ? size_.height() - kVertical - y : smallHeight;
        p.drawText(QRectF(x, y, kDetails, h), Qt::TextWordWrap | Qt::AlignTop, lines[i]);
        y += smallHeight;
    }
}

void HoverBar::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton) return;
    if (quitLight().contains(event->position()) && quit_) quit_();
    if (zoomLight().contains(event->position()))
        settings_.setValue(kCompactKey, !settings_.boolValue(kCompactKey, false));
}

bool HoverBar::event(QEvent* event)
{
    if (event->type() == QEvent::ToolTip) {
        auto* help = static_cast<QHelpEvent*>(event);
        if (quitLight().contains(help->pos()))
            QToolTip::showText(help->globalPos(), QStringLiteral("Quit Skeldrin"));
        else if (zoomLight().contains(help->pos()))
            QToolTip::showText(help->globalPos(), zoomLabel());
        else
            QToolTip::hideText();
        return true;
    }
    return QWidget::event(event);
}

} // namespace skeldrin

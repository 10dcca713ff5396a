#include "Skeldrin/ui/WidgetView.h"

#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/model/RowText.h"
#include "Skeldrin/model/Seams.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/ui/StatusDot.h"

#include <QContextMenuEvent>
#include <QFontMetricsF>
#include <QLoggingCategory>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QToolTip>

Q_LOGGING_CATEGORY(lcWidgetView, "app.skeldrin.widgetview")

namespace skeldrin {

namespace {

constexpr double kRowWidth = 260;
constexpr double kRowGap = 1;
constexpr double kLinkX = 15;
constexpr double kSpacerWidth = 4;
const QColor kSpacerColor(255, 255, 255, 46);
constexpr int kElapsedRefreshMs = 15000;
const QString kCompactKey = QStringLiteral("widget.compact");

bool isRun(const ListedSession& entry)
{
    return entry.role != ListedSession::Role::main;
}

bool rings(const Shade& shade)
{
    return shade.isStatus(Status::waiting) || shade.isStatus(Status::multiStepWaiting);
}

QColor white(double opacity)
{
    QColor c(Qt::white);
    c.setAlphaF(float(opacity));
    return c;
}

// The chevron is small; the pointer gets 3 points of slack around it.
bool onToggle(const WidgetView::RowBox& row, QPointF at)
{
    return !row.toggle.isEmpty() && row.toggle.adjusted(-3, -3, 3, 3).contains(at);
}

double lineHeight(const QFont& font)
{
    return std::ceil(QFontMetricsF(font).height());
}

double sessionRowHeight()
{
    return 6 + lineHeight(uiFont(12, QFont::DemiBold)) + 2 + lineHeight(uiFont(10.5, QFont::Normal)) + 6;
}

double runRowHeight()
{
    return 3 + lineHeight(uiFont(11, QFont::Medium)) + 3;
}

double noticeHeight()
{
    return 7 + lineHeight(uiFont(12, QFont::DemiBold)) + 7;
}

} // namespace

void WidgetHover::setSessionId(std::optional<std::string> id)
{
    if (id == sessionId_) return;
    sessionId_ = std::move(id);
    Q_EMIT sessionIdChanged();
}

QFont uiFont(double size, QFont::Weight weight, bool tabularDigits)
{
    QFont font;
    // Sizes are in layout points; at Qt's reference 96 dpi a point of text is 0.75 of a typographic point.
    font.setPointSizeF(size * 0.75);
    font.setWeight(weight);
    if (tabularDigits) font.setStyleHint(QFont::Monospace, QFont::PreferDefault);
    return font;
}

void paintCard(QPainter& painter, const QRectF& card, double radius)
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    // No blur behind windows here: a near-opaque dark base stands in for it, then the card's own black veil.
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(30, 30, 32, 225));
    painter.drawRoundedRect(card, radius, radius);
    painter.setBrush(QColor(0, 0, 0, 77));
    painter.drawRoundedRect(card, radius, radius);
    painter.setPen(QPen(white(0.14), 0.5));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(card.adjusted(0.25, 0.25, -0.25, -0.25), radius, radius);
    painter.restore();
}

WidgetView::WidgetView(SessionsModel& model, Updates& updates, AppSettings& settings, WidgetHover& hover,
                       Callbacks callbacks, Clock* clock, QWidget* parent)
    : QWidget(parent)
    , model_(model)
    , updates_(updates)
    , settings_(settings)
    , hover_(hover)
    , callbacks_(std::move(callbacks))
    , clock_(clock)
{
    if (!clock_) {
        ownClock_ = std::make_unique<SystemClock>();
        clock_ = ownClock_.get();
    }
    setAttribute(Qt::WA_TranslucentBackground);
    setMouseTracking(true);
    const auto refresh = [this] { relayout(); };
    connect(&model_, &SessionsModel::storedChanged, this, refresh);
    connect(&model_, &SessionsModel::hookStateChanged, this, refresh);
    connect(&model_, &SessionsModel::transcriptTitlesChanged, this, refresh);
    connect(&model_, &SessionsModel::foldedRunsChanged, this, refresh);
    connect(&model_, &SessionsModel::backgroundTasksChanged, this, refresh);
    connect(&updates_, &Updates::requiredChanged, this, refresh);
    connect(&updates_, &Updates::downloadingChanged, this, refresh);
    connect(&updates_, &Updates::awaitingInstallChanged, this, refresh);
    connect(&settings_, &AppSettings::changed, this, [this](const QString& key) {
        if (key == kCompactKey)
            relayout();
        else if (key.startsWith(QLatin1String("color.")))
            update();
    });
    connect(&hover_, &WidgetHover::sessionIdChanged, this, qOverload<>(&QWidget::update));
    elapsedRefresh_.setInterval(kElapsedRefreshMs);
    connect(&elapsedRefresh_, &QTimer::timeout, this, qOverload<>(&QWidget::update));
    relayout();
}

WidgetView::~WidgetView()
{
    PingClock::shared().unwatch(this);
}

QString WidgetView::updateTitle(const Updates& updates, const QString& latest)
{
    if (updates.downloading()) return QStringLiteral("Downloading update…");
    if (updates.awaitingInstall()) return QStringLiteral("Drag Skeldrin to Applications");
    return QStringLiteral("Update to ") + latest;
}

bool WidgetView::compact() const
{
    return settings_.boolValue(kCompactKey, false);
}

void WidgetView::relayout()
{
    const bool small = compact();
    const double outer = small ? 4 : 10;
    const double inner = small ? 4 : 8;
    const double x = outer + inner;
    double y = outer + inner;

    noticeTitle_.clear();
    noticeFrame_ = {};
    const std::vector<ListedSession> list = model_.list();
    if (const auto& manifest = updates_.required())
        noticeTitle_ = updateTitle(updates_, manifest->latest);
    else if (list.empty())
        noticeTitle_ = model_.hookState() == HookInstaller::State::outdated
                           ? QStringLiteral("Reconnect Claude Code")
                           : QStringLiteral("Connect Claude Code");
    if (!noticeTitle_.isEmpty()) {
        noticeFrame_ = QRectF(x, y, kRowWidth, noticeHeight());
        y += noticeFrame_.height() + (list.empty() ? 0 : kRowGap);
    }

    rows_.clear();
    hover_.itemFrames.clear();
    const double sessionHeight = sessionRowHeight(), runHeight = runRowHeight();
    for (std::size_t i = 0; i < list.size(); ++i) {
        const ListedSession& entry = list[i];
        if (i > 0) y += kRowGap;
        RowBox row{entry, QRectF(x, y, kRowWidth, isRun(entry) ? runHeight : sessionHeight), {}, {}, {}};
        const double column = entry.role == ListedSession::Role::child ? 9 : (isRun(entry) ? 12 : 14);
        // Sessions are set apart by a short dash under the dots; runs keep a clear gap, their connector
        // already crosses it.
        if (i > 0 && !isRun(entry))
            row.spacer = QRectF(x + 9 + column / 2 - kSpacerWidth / 2, y - kRowGap, kSpacerWidth, kRowGap);
        const double firstLine =
            isRun(entry) ? runHeight / 2 : 6 + lineHeight(uiFont(12, QFont::DemiBold)) / 2;
        row.dot = QPointF(x + 9 + column / 2, y + firstLine);
        if (!isRun(entry) && entry.runCount > 0)
            row.toggle = QRectF(row.frame.right() - 9 - 18, y + firstLine - 5.5, 18, 11);
        hover_.itemFrames[entry.id()] = row.frame;
        rows_.push_back(std::move(row));
        y += rows_.back().frame.height();
    }
    const double cardWidth = kRowWidth + 2 * inner;
    const double cardHeight = (y + inner) - outer;
    card_ = QRectF(outer, outer, cardWidth, cardHeight);
    const QSize size(int(std::ceil(cardWidth + 2 * outer)), int(std::ceil(cardHeight + 2 * outer)));
    if (size != size_) {
        size_ = size;
        resize(size);
        updateGeometry();
        if (callbacks_.onSize) callbacks_.onSize(size);
    }
    updatePing();
    update();
}

void WidgetView::updatePing()
{
    const bool waiting = isVisible() && std::any_of(rows_.begin(), rows_.end(),
                                                    [](const RowBox& r) { return rings(r.entry.shade); });
    if (!waiting) {
        PingClock::shared().unwatch(this);
        return;
    }
    // Only the dots are repainted on each frame.
    PingClock::shared().watch(this, [this] {
        for (const RowBox& row : rows_)
            if (rings(row.entry.shade))
                update(QRectF(row.dot - QPointF(12, 12), QSizeF(24, 24)).toAlignedRect());
    });
}

void WidgetView::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    elapsedRefresh_.start();
    updatePing();
}

void WidgetView::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    elapsedRefresh_.stop();
    PingClock::shared().unwatch(this);
}

void WidgetView::paintEvent(QPaintEvent* event)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::TextAntialiasing);
    paintCard(painter, card_, compact() ? 12 : 15);
    if (!noticeTitle_.isEmpty()) {
        painter.setPen(QPen(white(0.16), 1));
        painter.setBrush(white(0.1));
        painter.drawRoundedRect(noticeFrame_, 8, 8);
        painter.setFont(uiFont(12, QFont::DemiBold));
        painter.setPen(Qt::white);
        painter.drawText(noticeFrame_.adjusted(12, 0, -12, 0), Qt::AlignVCenter | Qt::AlignLeft,
                         noticeTitle_);
    }
    // A ring's frame repaints only its dot: rows it does not touch (grown by what they draw outside their
    // frame: ring, connector, spacer) are not laid out again.
    for (std::size_t i = 0; i < rows_.size(); ++i)
        if (event->region().intersects(rows_[i].frame.adjusted(0, -12, 0, 12).toAlignedRect()))
            paintRow(painter, rows_[i], i);
}

void WidgetView::paintRow(QPainter& painter, const RowBox& row, std::size_t index)
{
    const ListedSession& entry = row.entry;
    const QRectF& f = row.frame;
    if (!row.spacer.isEmpty()) painter.fillRect(row.spacer, kSpacerColor);
    if (hover_.sessionId() == entry.id()) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(white(0.08));
        painter.drawRoundedRect(f, 8, 8);
    }
    if (isRun(entry)) {
        // The connector ties a run to its session above and to the next run below.
        const bool fromAbove = index > 0;
        const bool toBelow = index + 1 < rows_.size() && isRun(rows_[index + 1].entry);
        painter.setPen(QPen(white(0.22), 1));
        const double lx = f.left() + kLinkX;
        if (fromAbove) painter.drawLine(QPointF(lx, f.top() - 3), QPointF(lx, f.center().y()));
        if (toBelow) painter.drawLine(QPointF(lx, f.center().y()), QPointF(lx, f.bottom() + 3));
    }
    const QColor colour = Palette::color(entry.shade, settings_);
    DotStyle dot{colour, isRun(entry) ? 7.0 : 9.0, entry.seen(), !entry.seen(), rings(entry.shade)};
    paintStatusDot(painter, row.dot, dot,
                   PingClock::shared().running() ? PingClock::shared().progress() : -1);

    const double column = entry.role == ListedSession::Role::child ? 9 : (isRun(entry) ? 12 : 14);
    const double textX = f.left() + 9 + column + (isRun(entry) ? 7 : 12);
    const double right = (row.toggle.isEmpty() ? f.right() - 9 : row.toggle.left() - 4);
    const QString name = QString::fromStdString(model_.displayName(entry.session));
    const QString when = QString::fromStdString(elapsed(entry.session.changedAt, clock_->now()));
    if (isRun(entry)) {
        const QFont whenFont = uiFont(10.5, QFont::Normal, true);
        const double whenWidth = QFontMetricsF(whenFont).horizontalAdvance(when);
        painter.setFont(whenFont);
        painter.setPen(white(0.5));
        painter.drawText(QRectF(f.right() - 9 - whenWidth, f.top(), whenWidth, f.height()), Qt::AlignVCenter,
                         when);
        const QFont nameFont = uiFont(11, QFont::Medium);
        painter.setFont(nameFont);
        painter.setPen(white(0.85));
        const double width = f.right() - 9 - whenWidth - 8 - textX;
        painter.drawText(QRectF(textX, f.top(), width, f.height()), Qt::AlignVCenter,
                         QFontMetricsF(nameFont).elidedText(name, Qt::ElideRight, width));
        return;
    }
    const QFont nameFont = uiFont(12, QFont::DemiBold);
    const QFont statusFont = uiFont(10.5, QFont::Medium);
    const double line1 = lineHeight(nameFont);
    const QString status = QString::fromStdString(statusWord(entry));
    const double statusWidth = QFontMetricsF(statusFont).horizontalAdvance(status);
    const double nameWidth = std::max(0.0, right - textX - statusWidth - 6);
    const QString shownName = QFontMetricsF(nameFont).elidedText(name, Qt::ElideRight, nameWidth);
    painter.setFont(nameFont);
    painter.setPen(Qt::white);
    const QRectF nameRect(textX, f.top() + 6, nameWidth, line1);
    painter.drawText(nameRect, Qt::AlignVCenter, shownName);
    const double statusX = textX + QFontMetricsF(nameFont).horizontalAdvance(shownName) + 6;
    painter.setFont(statusFont);
    painter.setPen(colour);
    painter.drawText(QRectF(statusX, f.top() + 6, right - statusX, line1), Qt::AlignVCenter, status);

    const QFont detailFont = uiFont(10.5, QFont::Normal, true);
    painter.setFont(detailFont);
    painter.setPen(white(0.55));
    const QString detail =
        QString::fromStdString(entry.session.origin.appName()) + QStringLiteral(" · ") + when;
    painter.drawText(QRectF(textX, f.top() + 6 + line1 + 2, f.right() - 9 - textX, lineHeight(detailFont)),
                     Qt::AlignVCenter,
                     QFontMetricsF(detailFont).elidedText(detail, Qt::ElideRight, f.right() - 9 - textX));

    if (!row.toggle.isEmpty()) {
        // A chevron pointing right while the runs are folded, down while they show.
        const QPointF c = row.toggle.center();
        QPainterPath chevron;
        if (entry.runsFolded) {
            chevron.moveTo(c + QPointF(-1.5, -3));
            chevron.lineTo(c + QPointF(1.5, 0));
            chevron.lineTo(c + QPointF(-1.5, 3));
        } else {
            chevron.moveTo(c + QPointF(-3, -1.5));
            chevron.lineTo(c + QPointF(0, 1.5));
            chevron.lineTo(c + QPointF(3, -1.5));
        }
        painter.setPen(QPen(white(0.55), 1.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.setBrush(Qt::NoBrush);
        painter.drawPath(chevron);
    }
}

void WidgetView::clickAt(QPointF at)
{
    if (!noticeTitle_.isEmpty() && noticeFrame_.contains(at)) {
        if (updates_.required())
            updates_.install();
        else
            model_.connectClaudeCode();
        return;
    }
    for (const RowBox& row : rows_) {
        if (!row.frame.contains(at)) continue;
        if (onToggle(row, at)) {
            if (callbacks_.onToggleRuns) callbacks_.onToggleRuns(row.entry);
        } else if (callbacks_.onActivate) {
            callbacks_.onActivate(row.entry);
        }
        return;
    }
}

QString WidgetView::helpTextAt(QPointF at) const
{
    for (const RowBox& row : rows_)
        if (onToggle(row, at))
            return row.entry.runsFolded ? QStringLiteral("Show background runs")
                                        : QStringLiteral("Hide background runs");
    return {};
}

bool WidgetView::animating() const
{
    return PingClock::shared().running() && PingClock::shared().watches(this);
}

bool WidgetView::event(QEvent* event)
{
    if (event->type() == QEvent::ToolTip) {
        const auto* help = static_cast<QHelpEvent*>(event);
        const QString text = helpTextAt(help->pos());
        if (text.isEmpty())
            QToolTip::hideText();
        else
            QToolTip::showText(help->globalPos(), text, this);
        return true;
    }
    return QWidget::event(event);
}

void WidgetView::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton) clickAt(event->position());
}

void WidgetView::fillCardMenu(QMenu& menu)
{
    QAction* compactAction = menu.addAction(QStringLiteral("Compact"));
    compactAction->setCheckable(true);
    compactAction->setChecked(compact());
    connect(compactAction, &QAction::toggled, this, [this](bool on) { settings_.setValue(kCompactKey, on); });
    menu.addAction(QStringLiteral("Settings…"), this, [this] {
        if (callbacks_.openSettings) callbacks_.openSettings();
    });
    menu.addSeparator();
    menu.addAction(QStringLiteral("Quit Skeldrin"), this, [this] {
        if (callbacks_.quit) callbacks_.quit();
    });
    if (callbacks_.extendCardMenu) callbacks_.extendCardMenu(menu);
}

void WidgetView::fillRowMenu(QMenu& menu, const ListedSession& entry)
{
    menu.addAction(QStringLiteral("Open in ") + QString::fromStdString(entry.session.origin.appName()), this,
                   [this, entry] { model_.jump(entry); });
    menu.addSeparator();
    menu.addAction(QStringLiteral("Remove from list"), this,
                   [this, entry] { model_.dismiss(entry.session); });
}

void WidgetView::contextMenuEvent(QContextMenuEvent* event)
{
    QMenu menu;
    const auto row = std::find_if(rows_.begin(), rows_.end(),
                                  [&](const RowBox& r) { return r.frame.contains(event->pos()); });
    if (row != rows_.end())
        fillRowMenu(menu, row->entry);
    else
        fillCardMenu(menu);
    menu.exec(event->globalPos());
}

} // namespace skeldrin

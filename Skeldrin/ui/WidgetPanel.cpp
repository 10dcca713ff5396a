#include "Skeldrin/ui/WidgetPanel.h"

#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Placement.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/platform/FloatingWindow.h"
#include "Skeldrin/ui/HoverBar.h"
#include "Skeldrin/ui/WidgetView.h"

#include <QCursor>
#include <QEasingCurve>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QLoggingCategory>
#include <QMouseEvent>
#include <QScreen>
#include <QTimer>
#include <QVariantAnimation>
#include <cmath>

Q_LOGGING_CATEGORY(lcWidgetPanel, "app.skeldrin.widgetpanel")

namespace skeldrin {

namespace {

const QString kPlacementKey = QStringLiteral("widget.placement");
const QString kVisibleKey = QStringLiteral("widget.visible");
const QString kCompactKey = QStringLiteral("widget.compact");
constexpr double kDragThreshold = 3;
constexpr int kPointerWatchMs = 100;
constexpr qint64 kLingerMs = 250;
constexpr int kSnapMs = 450;

void makePanelWindow(QWidget& window)
{
    window.setWindowFlags(Qt::Tool | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus |
                          Qt::FramelessWindowHint);
    window.setAttribute(Qt::WA_ShowWithoutActivating);
    window.setAttribute(Qt::WA_TranslucentBackground);
    window.setFocusPolicy(Qt::NoFocus);
}

// Whole pixels without changing the size, which toAlignedRect() would grow for a fractional origin.
QRect pixelRect(const QRectF& r)
{
    return {qRound(r.x()), qRound(r.y()), qRound(r.width()), qRound(r.height())};
}

} // namespace

struct WidgetPanel::State : QObject {
    State(WidgetPanel& panel, SessionsModel& model, Updates& updates, AppSettings& settings,
          Callbacks callbacks, Environment environment);

    bool eventFilter(QObject* watched, QEvent* event) override;

    QList<Screen> screens() const { return env.screens(); }
    double primaryHeight() const
    {
        const auto all = screens();
        return all.isEmpty() ? 0 : all.first().geometry.bottom() + 1;
    }
    YUpRect yUp(const QRect& r) const { return fromQt(QRectF(r), primaryHeight()); }
    // The available area of the first screen holding `p` (y-up), else of the primary one.
    YUpRect visibleFrame(std::optional<QPointF> p) const;
    std::optional<Placement> savedPlacement() const;
    YUpRect widgetFrame() const { return yUp(view->frameGeometry()); }
    void setWidgetFrame(const YUpRect& frame) { view->setGeometry(pixelRect(toQt(frame, primaryHeight()))); }
    QPointF pointer() const { return flipPoint(env.pointer(), primaryHeight()); }

    void onSize(QSize size);
    void onListChanged();
    void pointerMoved(QPointF local);
    void drag(QPointF pointer);
    void finishDrag();
    void showBar();
    void positionBar();
    void checkPointer();
    void hideBar();

    WidgetPanel& panel;
    SessionsModel& model;
    Updates& updates;
    AppSettings& settings;
    Callbacks callbacks;
    Environment env;
    std::function<void(QMenu&)> extendMenu;
    WidgetHover hover;
    std::unique_ptr<WidgetView> view;
    std::unique_ptr<HoverBar> barView;
    Placement placement;
    struct DragStart {
        QPointF pointer, origin; // y-up
    };
    std::optional<DragStart> dragStart;
    bool didDrag = false;
    QSize barSize;
    QTimer pointerWatch;
    std::optional<qint64> pointerLeftAt;
    std::size_t listedCount = 0;
    QVariantAnimation snapAnimation;
};

WidgetPanel::State::State(WidgetPanel& p, SessionsModel& m, Updates& u, AppSettings& s, Callbacks c,
                          Environment e)
    : panel(p)
    , model(m)
    , updates(u)
    , settings(s)
    , callbacks(std::move(c))
    , env(std::move(e))
{
    if (!env.screens)
        env.screens = [] {
            QList<Screen> all;
            if (QScreen* primary = QGuiApplication::primaryScreen())
                all.append({primary->geometry(), primary->availableGeometry()});
            for (QScreen* screen : QGuiApplication::screens())
                if (screen != QGuiApplication::primaryScreen())
                    all.append({screen->geometry(), screen->availableGeometry()});
            return all;
        };
    if (!env.pointer) env.pointer = [] { return QPointF(QCursor::pos()); };
    if (!env.milliseconds) {
        auto timer = std::make_shared<QElapsedTimer>();
        timer->start();
        env.milliseconds = [timer] { return timer->elapsed(); };
    }
    placement = savedPlacement().value_or(Placement::standard(visibleFrame(std::nullopt)));

    WidgetView::Callbacks viewCallbacks;
    viewCallbacks.onSize = [this](QSize size) { onSize(size); };
    // The click that ends a drag does nothing.
    viewCallbacks.onActivate = [this](const ListedSession& entry) {
        if (!didDrag) model.jump(entry);
    };
    viewCallbacks.onToggleRuns = [this](const ListedSession& entry) {
        if (!didDrag) model.toggleRuns(entry);
    };
    viewCallbacks.openSettings = [this] {
        if (callbacks.openSettings) callbacks.openSettings();
    };
    viewCallbacks.quit = [this] {
        if (callbacks.quit) callbacks.quit();
    };
    viewCallbacks.extendCardMenu = [this](QMenu& menu) {
        if (extendMenu) extendMenu(menu);
    };
    view = std::make_unique<WidgetView>(model, updates, settings, hover, std::move(viewCallbacks));
    makePanelWindow(*view);
    view->setWindowTitle(QStringLiteral("Skeldrin"));
    view->installEventFilter(this);

    barView = std::make_unique<HoverBar>(
        model, settings, hover,
        [this](QSize size) {
            barSize = size;
            positionBar();
        },
        [this] {
            if (callbacks.quit) callbacks.quit();
        });
    makePanelWindow(*barView);
    barView->setWindowTitle(QStringLiteral("Skeldrin details"));
    barSize = barView->sizeHint();

    pointerWatch.setInterval(kPointerWatchMs);
    connect(&pointerWatch, &QTimer::timeout, this, [this] { checkPointer(); });

    snapAnimation.setDuration(kSnapMs);
    QEasingCurve settle(QEasingCurve::BezierSpline);
    settle.addCubicBezierSegment(QPointF(0.22, 1.0), QPointF(0.36, 1.0), QPointF(1.0, 1.0));
    snapAnimation.setEasingCurve(settle);
    connect(&snapAnimation, &QVariantAnimation::valueChanged, this,
            [this](const QVariant& value) { view->move(value.toPoint()); });

    connect(&model, &SessionsModel::storedChanged, this, [this] { onListChanged(); });
    connect(&model, &SessionsModel::hookStateChanged, this, [this] { onListChanged(); });
    connect(&model, &SessionsModel::foldedRunsChanged, this, [this] { onListChanged(); });
    connect(&settings, &AppSettings::changed, this, [this](const QString& key) {
        if (key == kVisibleKey) panel.refreshVisibility();
    });
    listedCount = model.list().size();
    onSize(view->sizeHint());
}

YUpRect WidgetPanel::State::visibleFrame(std::optional<QPointF> p) const
{
    const auto all = screens();
    if (all.isEmpty()) return {};
    if (p)
        for (const Screen& screen : all)
            if (yUp(screen.geometry).contains(*p)) return yUp(screen.available);
    return yUp(all.first().available);
}

std::optional<Placement> WidgetPanel::State::savedPlacement() const
{
    QList<YUpRect> frames;
    for (const Screen& screen : screens())
        frames.append(yUp(screen.geometry));
    return Placement::fromJson(settings.value(kPlacementKey).toByteArray(), frames);
}

void WidgetPanel::State::onSize(QSize size)
{
    // The views report their first size while they are being built.
    if (!view || size.width() <= 0 || size.height() <= 0) return;
    setWidgetFrame(placement.frame(QSizeF(size), visibleFrame(placement.point)));
    positionBar();
}

void WidgetPanel::State::onListChanged()
{
    const std::size_t count = model.list().size();
    // A new session always expands a compact widget.
    if (listedCount == 0 && count > 0) settings.setValue(kCompactKey, false);
    listedCount = count;
    panel.refreshVisibility();
}

bool WidgetPanel::State::eventFilter(QObject* watched, QEvent* event)
{
    if (watched != view.get()) return false;
    switch (event->type()) {
    case QEvent::MouseButtonPress: {
        auto* mouse = static_cast<QMouseEvent*>(event);
        if (mouse->button() != Qt::LeftButton) return false;
        snapAnimation.stop();
        const YUpRect frame = widgetFrame();
        dragStart = DragStart{flipPoint(mouse->globalPosition(), primaryHeight()), QPointF(frame.x, frame.y)};
        didDrag = false;
        return false;
    }
    case QEvent::MouseMove: {
        auto* mouse = static_cast<QMouseEvent*>(event);
        if (dragStart && (mouse->buttons() & Qt::LeftButton)) {
            drag(flipPoint(mouse->globalPosition(), primaryHeight()));
            return true;
        }
        pointerMoved(mouse->position());
        return false;
    }
    case QEvent::MouseButtonRelease: {
        auto* mouse = static_cast<QMouseEvent*>(event);
        if (mouse->button() != Qt::LeftButton) return false;
        if (didDrag) finishDrag();
        dragStart.reset();
        // The view still sees the release; its click is ignored while didDrag holds.
        return false;
    }
    case QEvent::Leave:
        checkPointer();
        return false;
    default:
        return false;
    }
}

void WidgetPanel::State::drag(QPointF at)
{
    const QPointF delta = at - dragStart->pointer;
    if (!didDrag && std::hypot(delta.x(), delta.y()) <= kDragThreshold) return;
    if (!didDrag) {
        didDrag = true;
        hideBar();
    }
    const YUpRect current = widgetFrame();
    const YUpRect moved{dragStart->origin.x() + delta.x(), dragStart->origin.y() + delta.y(), current.width,
                        current.height};
    const YUpRect pulled = Placement::magnet(moved, visibleFrame(at));
    view->move(toQt(pulled, primaryHeight()).topLeft().toPoint());
}

void WidgetPanel::State::finishDrag()
{
    const YUpRect frame = widgetFrame();
    const YUpRect visible = visibleFrame(QPointF(frame.midX(), frame.midY()));
    const YUpRect target = Placement::snap(frame, visible);
    placement = Placement::describing(target, visible);
    if (!(target == frame)) {
        snapAnimation.setStartValue(view->pos());
        snapAnimation.setEndValue(pixelRect(toQt(target, primaryHeight())).topLeft());
        snapAnimation.start();
    }
    settings.setValue(kPlacementKey, QString::fromUtf8(placement.toJson()));
}

void WidgetPanel::State::pointerMoved(QPointF local)
{
    if (dragStart && didDrag) return;
    for (const ListedSession& entry : model.list()) {
        const auto frame = hover.itemFrames.find(entry.id());
        if (frame != hover.itemFrames.end() && frame->second.contains(local)) {
            hover.setSessionId(entry.id());
            break;
        }
    }
    showBar();
}

void WidgetPanel::State::showBar()
{
    if (!view->isVisible() || barView->isVisible()) return;
    barSize = barView->sizeHint();
    positionBar();
    barView->show();
    makeFloating(*barView);
    pointerLeftAt.reset();
    pointerWatch.start();
}

void WidgetPanel::State::positionBar()
{
    if (!view || !barView || barSize.width() <= 0) return;
    const YUpRect w = widgetFrame();
    const YUpRect visible = visibleFrame(QPointF(w.midX(), w.midY()));
    barView->setGeometry(pixelRect(toQt(placement.barFrame(QSizeF(barSize), w, visible), primaryHeight())));
}

void WidgetPanel::State::checkPointer()
{
    if (!barView->isVisible()) return;
    if (Placement::hoverZone(widgetFrame(), yUp(barView->frameGeometry()), pointer())) {
        pointerLeftAt.reset();
        return;
    }
    const qint64 now = env.milliseconds();
    if (!pointerLeftAt)
        pointerLeftAt = now;
    else if (now - *pointerLeftAt >= kLingerMs)
        hideBar();
}

void WidgetPanel::State::hideBar()
{
    pointerWatch.stop();
    barView->hide();
    hover.setSessionId(std::nullopt);
}

WidgetPanel::WidgetPanel(SessionsModel& model, Updates& updates, AppSettings& settings, Callbacks callbacks,
                         QObject* parent, Environment environment)
    : QObject(parent)
    , d_(std::make_unique<State>(*this, model, updates, settings, std::move(callbacks),
                                 std::move(environment)))
{
}

WidgetPanel::~WidgetPanel() = default;

void WidgetPanel::refreshVisibility()
{
    const bool visible = d_->settings.boolValue(kVisibleKey, true);
    const bool show = d_->model.list().empty()
                          ? visible && d_->model.hookState() != HookInstaller::State::installed
                          : visible;
    if (!show) {
        if (d_->view->isVisible()) {
            d_->hideBar();
            d_->view->hide();
        }
        return;
    }
    if (!d_->view->isVisible()) {
        d_->onSize(d_->view->sizeHint());
        d_->view->show();
        makeFloating(*d_->view);
    }
}

bool WidgetPanel::isShown() const
{
    return d_->view->isVisible();
}
void WidgetPanel::setCardMenuExtension(std::function<void(QMenu&)> extend)
{
    d_->extendMenu = std::move(extend);
}
QWidget* WidgetPanel::widget() const
{
    return d_->view.get();
}
QWidget* WidgetPanel::bar() const
{
    return d_->barView.get();
}
bool WidgetPanel::isBarShown() const
{
    return d_->barView->isVisible();
}
void WidgetPanel::checkPointer()
{
    d_->checkPointer();
}

} // namespace skeldrin

#include "Skeldrin/ui/SettingsView.h"

#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/model/SessionNotifier.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/platform/LoginItem.h"
#include "Skeldrin/ui/Theme.h"

#include <QColorDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QLoggingCategory>
#include <QPainter>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

Q_LOGGING_CATEGORY(lcSettings, "app.skeldrin.settings")

namespace skeldrin {

namespace {

const QColor accent(0x0A, 0x84, 0xFF);
const QColor errorRed(0xFF, 0x45, 0x3A);

QFont sized(int points, const QWidget& widget)
{
    QFont font = widget.font();
    font.setPixelSize(points); // points as the Mac counts them: one per logical pixel
    return font;
}

QLabel* caption(const QString& text, QWidget* parent, const QColor& colour)
{
    auto* label = new QLabel(text, parent);
    label->setFont(sized(11, *parent));
    label->setWordWrap(true);
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, colour);
    label->setPalette(palette);
    return label;
}

// A swatch that opens the colour panel.
class ColorWell : public QPushButton {
  public:
    explicit ColorWell(QWidget* parent)
        : QPushButton(parent)
    {
        setFixedSize(44, 22);
        setCursor(Qt::PointingHandCursor);
    }
    void setColor(const QColor& colour)
    {
        colour_ = colour;
        update();
    }

  protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(QColor(255, 255, 255, isDown() ? 140 : 60), 1));
        painter.setBrush(QColor(255, 255, 255, 18));
        painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 5, 5);
        painter.setPen(Qt::NoPen);
        painter.setBrush(colour_);
        painter.drawRoundedRect(QRectF(rect()).adjusted(4, 4, -4, -4), 3, 3);
    }

  private:
    QColor colour_;
};

QString colourLabel(Status status)
{
    return QString::fromUtf8(label(status).data(), qsizetype(label(status).size()));
}

} // namespace

QPointF colorPanelOrigin(const QRectF& window, const QSizeF& panel, const QRectF& visible)
{
    qreal x = window.right() + 12;
    if (visible.right() < x + panel.width()) x = window.left() - 12 - panel.width();
    qreal y = window.top();
    y = std::min(y, visible.bottom() - panel.height()); // above the visible bottom
    y = std::max(y, visible.top());                     // then never under the top edge
    x = std::max(x, visible.left());
    return {x, y};
}

Switch::Switch(QWidget* parent)
    : QAbstractButton(parent)
{
    setCheckable(true);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
}

QSize Switch::sizeHint() const
{
    return {34, 20};
}

void Switch::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track = QRectF(rect()).adjusted(1, 1, -1, -1);
    painter.setPen(Qt::NoPen);
    QColor fill = isChecked() ? accent : QColor(255, 255, 255, 46);
    if (!isEnabled()) fill.setAlphaF(fill.alphaF() * 0.5);
    painter.setBrush(fill);
    painter.drawRoundedRect(track, track.height() / 2, track.height() / 2);
    const qreal knob = track.height() - 4;
    const qreal x = isChecked() ? track.right() - 2 - knob : track.left() + 2;
    painter.setBrush(QColor(isDown() ? 0xE0 : 0xFF, isDown() ? 0xE0 : 0xFF, isDown() ? 0xE0 : 0xFF));
    painter.drawEllipse(QRectF(x, track.top() + 2, knob, knob));
}

SettingsView::SettingsView(SessionsModel& model, AppSettings& settings, QWidget* parent)
    : QWidget(parent)
    , model_(model)
    , settings_(settings)
{
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(12, 12, 12, 12);
    column->setSpacing(0);

    auto row = [&](const QString& title, QWidget* control) {
        auto* line = new QHBoxLayout;
        auto* label = new QLabel(title, this);
        label->setFont(sized(13, *this));
        line->addWidget(label);
        line->addStretch();
        line->addWidget(control);
        auto* holder = new QWidget(this);
        holder->setLayout(line);
        line->setContentsMargins(0, 0, 0, 0);
        holder->setMinimumHeight(30);
        column->addWidget(holder);
    };
    auto makeSwitch = [this](const char* name) {
        auto* s = new Switch(this);
        s->setObjectName(QLatin1String(name));
        return s;
    };

    claudeCode_ = makeSwitch("claudeCode");
    row(QStringLiteral("Claude Code"), claudeCode_);
    compact_ = makeSwitch("compact");
    row(QStringLiteral("Compact"), compact_);
    headlines_ = makeSwitch("headlines");
    row(QStringLiteral("Better headlines"), headlines_);
    column->addWidget(caption(QStringLiteral("Claude Haiku names each session from its prompt, through your "
                                             "Claude Code login."),
                              this, QColor(255, 255, 255, 140)));
    headlineError_ = caption({}, this, errorRed);
    headlineError_->setObjectName(QStringLiteral("headlineError"));
    column->addWidget(headlineError_);
    openAtLogin_ = makeSwitch("openAtLogin");
    row(QStringLiteral("Open at login"), openAtLogin_);
    loginError_ = caption({}, this, errorRed);
    loginError_->setObjectName(QStringLiteral("loginError"));
    loginError_->hide();
    column->addWidget(loginError_);
    // Desktop notifications: each switch is one key in the app's settings.
    for (const auto& [key, label, fallback] :
         {std::tuple{SessionNotifier::waitingKey, SessionNotifier::waitingLabel, SessionNotifier::waitingDefault},
          std::tuple{SessionNotifier::finishedKey, SessionNotifier::finishedLabel, SessionNotifier::finishedDefault}}) {
        auto* notify = new Switch(this);
        notify->setObjectName(key);
        notify->setChecked(settings_.boolValue(key, fallback));
        row(label, notify);
        connect(notify, &Switch::clicked, this, [this, key = key](bool on) { settings_.setValue(key, on); });
        connect(&settings_, &AppSettings::changed, notify, [this, notify, key = key, fallback = fallback](const QString& changed) {
            if (changed == key) notify->setChecked(settings_.boolValue(key, fallback));
        });
    }

    column->addSpacing(6);
    for (Status status : allStatuses) {
        auto* well = new ColorWell(this);
        well->setObjectName(Palette::key(status));
        connect(well, &QPushButton::clicked, this, [this, status] { pickColor(status); });
        row(colourLabel(status), well);
    }
    auto* reset = new QPushButton(QStringLiteral("Reset"), this);
    reset->setObjectName(QStringLiteral("reset"));
    reset->setFont(sized(11, *this));
    reset->setCursor(Qt::PointingHandCursor);
    connect(reset, &QPushButton::clicked, this, [this] { Palette::reset(settings_); });
    auto* resetLine = new QHBoxLayout;
    resetLine->addStretch();
    resetLine->addWidget(reset);
    column->addSpacing(4);
    column->addLayout(resetLine);

    // User clicks only: a programmatic setChecked during a sync must not write anything back.
    connect(claudeCode_, &Switch::clicked, this, [this](bool on) {
        if (on)
            model_.connectClaudeCode();
        else
            model_.disconnectClaudeCode();
        syncFromModel(); // a failed write snaps the switch back to the real state
    });
    connect(compact_, &Switch::clicked, this,
            [this](bool on) { settings_.setValue(QStringLiteral("widget.compact"), on); });
    connect(headlines_, &Switch::clicked, this, [this](bool on) { model_.setHeadlinesEnabled(on); });
    connect(openAtLogin_, &Switch::clicked, this, &SettingsView::setOpenAtLogin);

    connect(&model_, &SessionsModel::hookStateChanged, this, &SettingsView::syncFromModel);
    connect(&model_, &SessionsModel::headlinesEnabledChanged, this, &SettingsView::syncFromModel);
    connect(&model_, &SessionsModel::headlineErrorChanged, this, &SettingsView::syncFromModel);
    connect(&settings_, &AppSettings::changed, this, [this](const QString& key) {
        if (key == QLatin1String("widget.compact")) syncFromModel();
        if (key.startsWith(QLatin1String("color."))) syncColors();
    });

    openAtLogin_->setChecked(LoginItem::isEnabled());
    syncFromModel();
    syncColors();
}

void SettingsView::syncFromModel()
{
    claudeCode_->setChecked(model_.hookState() == HookInstaller::State::installed);
    compact_->setChecked(settings_.boolValue(QStringLiteral("widget.compact"), false));
    headlines_->setChecked(model_.headlinesEnabled());
    headlineError_->setText(model_.headlineError().value_or(QString()));
    headlineError_->setVisible(model_.headlineError().has_value());
}

void SettingsView::syncColors()
{
    for (Status status : allStatuses)
        if (auto* well = findChild<QPushButton*>(Palette::key(status)))
            static_cast<ColorWell*>(well)->setColor(Palette::color(status, settings_));
    if (colorPanel_ && colorPanel_->isVisible()) {
        const QSignalBlocker quiet(colorPanel_);
        colorPanel_->setCurrentColor(Palette::color(editing_, settings_));
    }
}

void SettingsView::setOpenAtLogin(bool enabled)
{
    try {
        LoginItem::setEnabled(enabled);
        loginError_->clear();
        loginError_->hide();
    } catch (const std::exception& error) {
        loginError_->setText(QString::fromStdString(error.what()));
        loginError_->show();
    }
    openAtLogin_->setChecked(LoginItem::isEnabled());
}

void SettingsView::pickColor(Status status)
{
    editing_ = status;
    if (!colorPanel_) {
        // One non-modal panel for all four colours, without opacity.
        colorPanel_ = new QColorDialog(window());
        colorPanel_->setObjectName(QStringLiteral("colorPanel"));
        colorPanel_->setOption(QColorDialog::ShowAlphaChannel, false);
        colorPanel_->setOption(QColorDialog::NoButtons, true);
        colorPanel_->setModal(false);
        Theme::makeDark(*colorPanel_);
        connect(colorPanel_, &QColorDialog::currentColorChanged, this,
                [this](const QColor& colour) { Palette::setColor(editing_, colour, settings_); });
    }
    colorPanel_->setWindowTitle(colourLabel(status));
    {
        const QSignalBlocker quiet(colorPanel_);
        colorPanel_->setCurrentColor(Palette::color(status, settings_));
    }
    placeColorPanel(*window());
    colorPanel_->show();
    colorPanel_->raise();
}

void SettingsView::placeColorPanel(const QWidget& window)
{
    if (!colorPanel_ || colorPanel_->isVisible()) return;
    const QScreen* screen = window.screen();
    if (!screen) return;
    const QSize panel =
        colorPanel_->frameSize().isValid() && colorPanel_->testAttribute(Qt::WA_WState_Created)
            ? colorPanel_->frameSize()
            : colorPanel_->sizeHint();
    colorPanel_->move(colorPanelOrigin(window.frameGeometry(), panel, screen->availableGeometry()).toPoint());
}

} // namespace skeldrin

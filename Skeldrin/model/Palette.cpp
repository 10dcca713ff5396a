#include "Skeldrin/model/Palette.h"

#include "Skeldrin/model/ColorText.h"

namespace skeldrin {

std::optional<QColor> colorFromHex(const QString& text)
{
    const auto value = rgbFromHex(text);
    if (!value) return std::nullopt;
    return QColor::fromRgbF(static_cast<float>(((*value >> 16) & 0xFF) / 255.0),
                            static_cast<float>(((*value >> 8) & 0xFF) / 255.0),
                            static_cast<float>((*value & 0xFF) / 255.0), 1.0f);
}

std::optional<QString> hexString(const QColor& color)
{
    if (!color.isValid()) return std::nullopt;
    const QColor rgb = color.toExtendedRgb();
    return hexText(rgb.redF(), rgb.greenF(), rgb.blueF());
}

namespace Palette {

QString key(Status status) { return QStringLiteral("color.") + QLatin1String(rawValue(status)); }

QString defaultHex(Status status)
{
    switch (status) {
    case Status::running: return QStringLiteral("#0A84FF");
    case Status::ready: return QStringLiteral("#30D158");
    case Status::waiting: return QStringLiteral("#FFD60A");
    case Status::multiStepWaiting: return QStringLiteral("#FF453A");
    }
    return {};
}

QColor color(Status status, const AppSettings& settings)
{
    const QString stored = settings.value(key(status), defaultHex(status)).toString();
    if (const auto chosen = colorFromHex(stored)) return *chosen;
    return *colorFromHex(defaultHex(status));
}

QColor color(const Shade& shade, const AppSettings& settings)
{
    if (shade.kind == Shade::Kind::waitingOnRuns) return waitingOnRuns();
    return color(shade.status, settings);
}

QColor waitingOnRuns()
{
    static const QColor grey(142, 142, 147);
    return grey;
}

void setColor(Status status, const QColor& color, AppSettings& settings)
{
    if (const auto text = hexString(color)) settings.setValue(key(status), *text);
}

void reset(AppSettings& settings)
{
    for (const Status status : allStatuses) settings.remove(key(status));
}

} // namespace Palette
} // namespace skeldrin

#include "Skeldrin/model/Palette.h"

#include <algorithm>
#include <cmath>

namespace skeldrin {

std::optional<QColor> colorFromHex(const QString& text)
{
    QStringView digits(text);
    if (digits.startsWith(QLatin1Char('#'))) digits = digits.mid(1);
    if (digits.size() != 6) return std::nullopt;
    // As an ordinary unsigned parse: one sign character may lead, and "-0" is zero.
    bool negative = false;
    QStringView magnitude = digits;
    if (magnitude.front() == QLatin1Char('+') || magnitude.front() == QLatin1Char('-')) {
        negative = magnitude.front() == QLatin1Char('-');
        magnitude = magnitude.mid(1);
    }
    std::uint32_t value = 0;
    for (const QChar c : magnitude) {
        int digit = -1;
        if (c >= QLatin1Char('0') && c <= QLatin1Char('9')) digit = c.unicode() - '0';
        else if (c >= QLatin1Char('a') && c <= QLatin1Char('f')) digit = c.unicode() - 'a' + 10;
        else if (c >= QLatin1Char('A') && c <= QLatin1Char('F')) digit = c.unicode() - 'A' + 10;
        if (digit < 0) return std::nullopt;
        value = value * 16 + static_cast<std::uint32_t>(digit);
    }
    if (negative && value != 0) return std::nullopt;
    return QColor::fromRgbF(static_cast<float>(((value >> 16) & 0xFF) / 255.0),
                            static_cast<float>(((value >> 8) & 0xFF) / 255.0),
                            static_cast<float>((value & 0xFF) / 255.0), 1.0f);
}

std::optional<QString> hexString(const QColor& color)
{
    if (!color.isValid()) return std::nullopt;
    const QColor rgb = color.toExtendedRgb();
    const auto byte = [](double component) {
        return static_cast<int>(std::clamp(std::round(component * 255.0), 0.0, 255.0));
    };
    return QString::asprintf("#%02X%02X%02X", byte(rgb.redF()), byte(rgb.greenF()), byte(rgb.blueF()));
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

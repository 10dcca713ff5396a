#include "Skeldrin/model/ColorText.h"

#include <algorithm>
#include <cmath>

namespace skeldrin {

std::optional<std::uint32_t> rgbFromHex(QStringView text)
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
        if (c >= QLatin1Char('0') && c <= QLatin1Char('9'))
            digit = c.unicode() - '0';
        else if (c >= QLatin1Char('a') && c <= QLatin1Char('f'))
            digit = c.unicode() - 'a' + 10;
        else if (c >= QLatin1Char('A') && c <= QLatin1Char('F'))
            digit = c.unicode() - 'A' + 10;
        if (digit < 0) return std::nullopt;
        value = value * 16 + static_cast<std::uint32_t>(digit);
    }
    if (negative && value != 0) return std::nullopt;
    return value;
}

std::optional<QString> hexText(double red, double green, double blue)
{
    // Converting a NaN or an infinity to int is undefined.
    if (!std::isfinite(red) || !std::isfinite(green) || !std::isfinite(blue)) return std::nullopt;
    const auto byte = [](double component) {
        return static_cast<int>(std::clamp(std::round(component * 255.0), 0.0, 255.0));
    };
    return QString::asprintf("#%02X%02X%02X", byte(red), byte(green), byte(blue));
}

} // namespace skeldrin

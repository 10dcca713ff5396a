// Colour texts from the settings file: any text reads as a colour or as none, and what a colour writes
// reads back as the same colour; any components, also out of range or not numbers, write such a text or
// none.
#include "fuzz/FuzzTarget.h"

#include "Skeldrin/model/ColorText.h"

#include <QRegularExpression>
#include <cstring>

using namespace skeldrin;

SKELDRIN_FUZZ_TARGET(color_text)
{
    const QString text = QString::fromUtf8(data.data(), static_cast<qsizetype>(data.size()));
    if (const auto rgb = rgbFromHex(text)) {
        SKELDRIN_FUZZ_CHECK(*rgb <= 0xFFFFFF);
        const auto written =
            hexText(((*rgb >> 16) & 0xFF) / 255.0, ((*rgb >> 8) & 0xFF) / 255.0, (*rgb & 0xFF) / 255.0);
        SKELDRIN_FUZZ_CHECK(written && rgbFromHex(*written) == rgb);
        static const QRegularExpression plain(QStringLiteral("^#?[0-9A-Fa-f]{6}$"));
        if (plain.match(text).hasMatch())
            SKELDRIN_FUZZ_CHECK(*written == QLatin1Char('#') + text.right(6).toUpper());
    }
    if (data.size() >= 3 * sizeof(double)) {
        double components[3];
        std::memcpy(components, data.data(), sizeof components);
        if (const auto written = hexText(components[0], components[1], components[2])) {
            static const QRegularExpression form(QStringLiteral("^#[0-9A-F]{6}$"));
            SKELDRIN_FUZZ_CHECK(form.match(*written).hasMatch());
        }
    }
}

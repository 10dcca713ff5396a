#pragma once
// Colours as the settings file writes them, "#RRGGBB": the text side alone, which needs no GUI library.
#include <QString>
#include <QStringView>
#include <cstdint>
#include <optional>

namespace skeldrin {

// "#0A84FF", "0a84ff" -> 0x0A84FF; anything but one optional "#" and six hexadecimal characters -> none.
std::optional<std::uint32_t> rgbFromHex(QStringView text);
// "#RRGGBB" in upper case from components in 0...1, each rounded half away from zero and clamped; none
// when a component is not a number or infinite.
std::optional<QString> hexText(double red, double green, double blue);

} // namespace skeldrin

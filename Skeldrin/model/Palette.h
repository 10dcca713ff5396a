#pragma once
// The four user-adjustable status colours and the fixed grey of a session that only waits on its runs.
#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/SessionList.h"
#include "TrackerCore/Session.h"

#include <QColor>
#include <QString>
#include <optional>

namespace skeldrin {

// "#0A84FF", "0a84ff" -> the colour; anything but one optional "#" and six hexadecimal characters -> none.
std::optional<QColor> colorFromHex(const QString& text);
// "#RRGGBB" in upper case, components rounded half away from zero; none for an invalid colour.
std::optional<QString> hexString(const QColor& color);

namespace Palette {

// "color.running", "color.ready", "color.waiting", "color.multiStepWaiting".
QString key(Status status);
QString defaultHex(Status status);
// The colour in force: the user's choice when it decodes, else the default.
QColor color(Status status, const AppSettings& settings);
// The colour a row or dot of that shade is painted in.
QColor color(const Shade& shade, const AppSettings& settings);
// The grey of a ready session that waits on background runs; not adjustable.
QColor waitingOnRuns();
// Stores the colour's text under the status's key; a colour without a text form is dropped.
void setColor(Status status, const QColor& color, AppSettings& settings);
// Forgets every user choice.
void reset(AppSettings& settings);

} // namespace Palette
} // namespace skeldrin

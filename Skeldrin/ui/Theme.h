#pragma once
// The app's own windows and menus are dark whatever the desktop's theme, as the widget is.
#include <QPalette>

class QWidget;

namespace skeldrin::Theme {

QPalette dark();
// Fusion style with the dark palette, for a top-level window or a menu.
void makeDark(QWidget& widget);

} // namespace skeldrin::Theme

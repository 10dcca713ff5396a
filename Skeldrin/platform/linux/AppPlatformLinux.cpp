#include "Skeldrin/platform/AppPlatform.h"

namespace skeldrin::platform {

// The widget, the bar and the settings window are tool windows: no taskbar entry to remove.
void becomeAccessoryApp() {}
// The window manager decides; QWidget::activateWindow does the rest.
void activateApp() {}

} // namespace skeldrin::platform

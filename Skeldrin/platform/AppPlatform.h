#pragma once
// What the application does to itself at start-up on each platform.

namespace skeldrin::platform {

// No Dock icon and no main menu bar on macOS (the accessory activation policy); nothing on Linux, where
// the tool windows already keep out of the taskbar.
void becomeAccessoryApp();
// Brings the application in front of others, before a window or an alert of its own is shown.
void activateApp();

} // namespace skeldrin::platform

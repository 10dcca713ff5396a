#pragma once
// Starting the application when the user logs in: the login item on macOS, an XDG autostart entry on
// Linux.
#include <QString>

namespace skeldrin::LoginItem {

// Whether the application is set to open at login now, as the system sees it.
bool isEnabled();
// Adds or removes the login item; throws std::runtime_error with a sentence for the user on failure.
void setEnabled(bool enabled);

} // namespace skeldrin::LoginItem

#pragma once
#include <QString>

namespace skeldrin::Quarantine {

// Removes the download-quarantine flag from everything inside the folder (the app's own bundle), so that a
// freshly installed copy starts without the first-launch prompt. Failures are logged; nothing on Linux.
void clear(const QString& folder);

} // namespace skeldrin::Quarantine

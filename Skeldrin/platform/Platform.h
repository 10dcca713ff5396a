#pragma once
#include <QString>

namespace skeldrin::platform {

// How user-visible text names the machine: "this Mac" on macOS, "this computer" elsewhere.
QString thisMachine();

} // namespace skeldrin::platform

#include "Skeldrin/platform/Platform.h"

namespace skeldrin::platform {

QString thisMachine() { return QStringLiteral("this Mac"); }

} // namespace skeldrin::platform

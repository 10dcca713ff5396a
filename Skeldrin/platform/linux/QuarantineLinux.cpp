#include "Skeldrin/platform/Quarantine.h"

namespace skeldrin::Quarantine {

// Linux marks no downloads for a first-launch prompt.
void clear(const QString&) {}

} // namespace skeldrin::Quarantine

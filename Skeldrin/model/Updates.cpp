// Placeholder until the updater lands: never offers an update.
#include "Skeldrin/model/Updates.h"

namespace skeldrin {

Updates::Updates(QObject* parent)
    : QObject(parent)
{
}

Updates::~Updates() = default;

QString Updates::currentVersion() const { return QStringLiteral(SKELDRIN_VERSION); }

void Updates::start() {}
void Updates::check() {}
void Updates::install() {}

} // namespace skeldrin

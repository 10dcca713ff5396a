#include "Skeldrin/cli/Cli.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // Before anything reads settings: QSettings finds the user's settings by these names.
    QCoreApplication::setOrganizationName(QStringLiteral("Skeldrin"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("skeldrin.app"));
    QCoreApplication::setApplicationName(QStringLiteral("Skeldrin"));
    return skeldrin::cli::run(QCoreApplication::arguments());
}

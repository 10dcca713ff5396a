#include "Skeldrin/cli/Cli.h"
#include "Skeldrin/ui/AppDelegate.h"

#include <QApplication>
#include <QCoreApplication>
#include <iostream>

namespace {

void nameApplication()
{
    // Before anything reads settings: QSettings finds the user's settings by these names.
    QCoreApplication::setOrganizationName(QStringLiteral("Skeldrin"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("skeldrin.app"));
    QCoreApplication::setApplicationName(QStringLiteral("Skeldrin"));
}

int runApp(int argc, char** argv)
{
    // Wayland lets no client keep its own windows above the others or on every workspace: run through
    // XWayland unless the user chose a platform.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") &&
        (qgetenv("XDG_SESSION_TYPE") == "wayland" || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) &&
        !qEnvironmentVariableIsEmpty("DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    nameApplication();
    QApplication::setQuitOnLastWindowClosed(false);
    skeldrin::AppDelegate delegate;
    try {
        if (!delegate.start()) return 0; // the running instance shows its widget
    } catch (const std::exception& error) {
        std::cerr << "skeldrin: " << error.what() << '\n';
        return 1;
    }
    return QApplication::exec();
}

} // namespace

int main(int argc, char** argv)
{
    // The desktop app without arguments; any argument is the command line, which needs no display.
    if (argc < 2) return runApp(argc, argv);
    QCoreApplication app(argc, argv);
    nameApplication();
    return skeldrin::cli::run(QCoreApplication::arguments());
}

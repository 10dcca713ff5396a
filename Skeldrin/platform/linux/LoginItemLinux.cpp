#include "Skeldrin/platform/LoginItem.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QStandardPaths>
#include <stdexcept>

Q_LOGGING_CATEGORY(lcLoginItem, "app.skeldrin.loginitem")

namespace skeldrin::LoginItem {

namespace {

QString autostartFile()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/skeldrin.desktop");
}

// Exec arguments with spaces or quotes must be quoted, or the session launcher splits them.
QString execArgument(QString path)
{
    path.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    for (const char* special : {"\"", "`", "$"})
        path.replace(QLatin1String(special), QLatin1String("\\") + QLatin1String(special));
    return QLatin1Char('"') + path + QLatin1Char('"');
}

std::runtime_error failure(const QString& what)
{
    qCWarning(lcLoginItem, "%s", qPrintable(what));
    return std::runtime_error(what.toStdString());
}

} // namespace

bool isEnabled()
{
    QFile file(autostartFile());
    if (!file.open(QIODevice::ReadOnly)) return false;
    // A user who switched the entry off in their desktop's own settings has "Hidden=true" in it.
    const QByteArray text = file.readAll();
    return !text.contains("\nHidden=true") && !text.contains("\nX-GNOME-Autostart-enabled=false");
}

void setEnabled(bool enabled)
{
    const QString path = autostartFile();
    if (!enabled) {
        if (QFile::exists(path) && !QFile::remove(path))
            throw failure(QStringLiteral("Couldn't remove %1.").arg(path));
        return;
    }
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        throw failure(QStringLiteral("Couldn't create the folder %1.").arg(QFileInfo(path).absolutePath()));
    const QString text = QStringLiteral("[Desktop Entry]\n"
                                        "Type=Application\n"
                                        "Name=Skeldrin\n"
                                        "Comment=Shows what your Claude Code sessions are doing\n"
                                        "Exec=%1\n"
                                        "Icon=skeldrin\n"
                                        "Terminal=false\n"
                                        "X-GNOME-Autostart-enabled=true\n")
                             .arg(execArgument(QCoreApplication::applicationFilePath()));
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.commit())
        throw failure(QStringLiteral("Couldn't write %1: %2").arg(path, file.errorString()));
}

} // namespace skeldrin::LoginItem

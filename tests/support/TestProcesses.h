#pragma once
// Real child processes for tests: shell scripts, a temporary home to run the app in, a private
// D-Bus session bus and an X server.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>

#include <initializer_list>

namespace skeldrin::test {

// Writes a shell script with `body`, executable unless asked otherwise.
inline bool writeScript(const QString& path, const QByteArray& body, bool executable = true)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return false;
    file.write("#!/bin/sh\n" + body + "\n");
    file.close();
    return file.setPermissions(QFile::ReadOwner | QFile::WriteOwner |
                               (executable ? QFile::ExeOwner : QFile::Permissions()));
}

// A home with its own XDG folders, for running the app and the hook without touching the user's.
struct TempHome {
    QTemporaryDir dir;

    QString path(const QString& relative) const { return dir.filePath(relative); }

    // The app checks for no updates (no network); the runtime folder exists and is private.
    QProcessEnvironment environment() const
    {
        QDir().mkpath(path(QStringLiteral("run")));
        QFile::setPermissions(path(QStringLiteral("run")),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), dir.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), path(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), path(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), path(QStringLiteral("run")));
        env.insert(QStringLiteral("SKELDRIN_UPDATE_URL"), QString());
        return env;
    }

    // The app's own settings file.
    QVariant setting(const QString& key) const
    {
        return QSettings(path(QStringLiteral("config/Skeldrin/Skeldrin.conf")), QSettings::IniFormat)
            .value(key);
    }
    void setSetting(const QString& key, const QVariant& value) const
    {
        QSettings(path(QStringLiteral("config/Skeldrin/Skeldrin.conf")), QSettings::IniFormat)
            .setValue(key, value);
    }
};

// Starts a program that reports where it listens on its first line of output; that line, or empty.
inline QString startAndReadFirstLine(QProcess& process, const QString& program, const QStringList& arguments)
{
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(program, arguments);
    if (!process.waitForStarted()) return {};
    while (!process.canReadLine())
        if (!process.waitForReadyRead(20000)) return {};
    return QString::fromUtf8(process.readLine()).trimmed();
}

// A private session bus; its address, or empty.
inline QString startSessionBus(QProcess& bus)
{
    return startAndReadFirstLine(
        bus, QStringLiteral("dbus-daemon"),
        {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
}

// An X server on a display it picks itself (-displayfd); the display name, or empty.
inline QString startXvfb(QProcess& server)
{
    const QString number = startAndReadFirstLine(
        server, QStringLiteral("Xvfb"),
        {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"), QStringLiteral("0"),
         QStringLiteral("1280x800x24"), QStringLiteral("-nolisten"), QStringLiteral("tcp")});
    return number.isEmpty() ? QString() : QLatin1Char(':') + number;
}

inline void stopAll(std::initializer_list<QProcess*> processes)
{
    for (QProcess* process : processes) {
        if (process->state() == QProcess::NotRunning) continue;
        process->terminate();
        if (!process->waitForFinished(5000)) process->kill();
        process->waitForFinished();
    }
}

} // namespace skeldrin::test

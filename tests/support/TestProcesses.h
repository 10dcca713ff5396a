#pragma once
// Real child processes for tests: shell scripts, a temporary home to run the app in, servers they talk to.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>

#include <initializer_list>

namespace skeldrin::test {

// A file's bytes, or empty when it cannot be read.
inline QByteArray readBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Writes `bytes` to `path`, making its folder first.
inline bool writeBytes(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

// Writes a shell script with `body`, executable unless asked otherwise.
inline bool writeScript(const QString& path, const QByteArray& body, bool executable = true)
{
    return writeBytes(path, "#!/bin/sh\n" + body + "\n") &&
           QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner |
                                           (executable ? QFile::ExeOwner : QFile::Permissions()));
}

// A home with its own XDG folders, for running the app and the hook without touching the user's.
struct TempHome {
    QTemporaryDir dir;

    QString path(const QString& relative) const { return dir.filePath(relative); }

    // The app checks for no updates (no network); the runtime folder exists and is private.
    QProcessEnvironment environment() const
    {
        QDir().mkdir(path("run"), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", dir.path());
        for (const auto& [key, folder] :
             {std::pair{"XDG_DATA_HOME", "data"}, {"XDG_CONFIG_HOME", "config"}, {"XDG_RUNTIME_DIR", "run"}})
            env.insert(key, path(folder));
        env.insert("SKELDRIN_UPDATE_URL", QString());
        return env;
    }

    // The app's own settings file.
    QVariant setting(const QString& key) const
    {
        return QSettings(path("config/Skeldrin/Skeldrin.conf"), QSettings::IniFormat).value(key);
    }
    void setSetting(const QString& key, const QVariant& value) const
    {
        QSettings(path("config/Skeldrin/Skeldrin.conf"), QSettings::IniFormat).setValue(key, value);
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
    return startAndReadFirstLine(bus, "dbus-daemon", {"--session", "--nofork", "--print-address"});
}

// An X server on a display it picks itself (-displayfd); the display name, or empty.
inline QString startXvfb(QProcess& server)
{
    const QString number = startAndReadFirstLine(
        server, "Xvfb", {"-displayfd", "1", "-screen", "0", "1280x800x24", "-nolisten", "tcp"});
    return number.isEmpty() ? QString() : ':' + number;
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

// What a program printed and how it ended; exit code -1 when it did not start, crashed or hung.
struct Ran {
    int exitCode = -1;
    QByteArray out, err;
};

// Runs a program to its end with `input` on its standard input.
inline Ran runToEnd(const QString& program, const QStringList& arguments, const QProcessEnvironment& env,
                    const QByteArray& input = {}, int timeoutMs = 30000)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, arguments);
    if (!process.waitForStarted(timeoutMs)) return {};
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return {};
    }
    if (process.exitStatus() != QProcess::NormalExit) return {};
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

// The home's variables and `searchPath` only: nothing the tests run in (a terminal, tmux, a bus) leaks.
inline QProcessEnvironment bareEnvironment(const TempHome& home, const QString& searchPath)
{
    const QProcessEnvironment full = home.environment();
    QProcessEnvironment env;
    for (const char* key :
         {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR", "SKELDRIN_UPDATE_URL"})
        env.insert(key, full.value(key));
    env.insert("PATH", searchPath);
    return env;
}

} // namespace skeldrin::test

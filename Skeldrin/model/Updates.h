#pragma once
// Keeps the application current: a periodic version check, the download, the hand-over to the system's
// installer, and the relaunch into the installed copy.
#include "Skeldrin/model/UpdateManifest.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUrl>
#include <chrono>
#include <functional>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;
class QSaveFile;
class QTimer;

namespace skeldrin {

class Updates : public QObject {
    Q_OBJECT
public:
    // What the updater asks of the world; the defaults (systemDependencies()) are the real ones.
    struct Dependencies {
        QString baseAddress; // the site's root; empty: never touch the network
        QString currentVersion;
        QString installedCopy;  // the app bundle (macOS) or executable (Linux) that an update replaces
        QString downloadFolder; // where the package is kept
        std::function<bool(const QUrl& fileOrPage, QString* error)> open;
        // Calls back with the installed copy's version, or nothing when it cannot be read.
        std::function<void(const QString& installedCopy, QObject* context,
                           std::function<void(std::optional<QString>)> done)>
            readInstalledVersion;
        // Starts the installed copy anew; calls back with an error text, or nothing on success.
        std::function<void(const QString& installedCopy, QObject* context,
                           std::function<void(std::optional<QString>)> done)>
            launch;
        std::function<void()> quit;
        std::chrono::milliseconds checkTimeout = std::chrono::seconds(60);
        std::chrono::milliseconds checkInterval = std::chrono::hours(6);
        std::chrono::milliseconds installPoll = std::chrono::seconds(2);
    };
    // The build's SKELDRIN_UPDATE_URL, overridden by the environment variable of the same name.
    static Dependencies systemDependencies();

    explicit Updates(QObject* parent = nullptr);
    explicit Updates(Dependencies dependencies, QObject* parent = nullptr);
    ~Updates() override;

    // The pending update; none when up to date.
    const std::optional<UpdateManifest>& required() const { return required_; }
    bool downloading() const { return downloading_; }
    bool awaitingInstall() const { return awaitingInstall_; }
    QString currentVersion() const { return deps_.currentVersion; }
    // The downloaded package, once complete.
    const std::optional<QString>& downloadedFile() const { return downloadedFile_; }

    void start();
    void check();
    void install();
    void installedVersion(std::function<void(std::optional<QString>)> done);
    void finishWhenInstalled();
    void relaunch();

Q_SIGNALS:
    void requiredChanged();
    void downloadingChanged();
    void awaitingInstallChanged();
    // One check has ended, whatever its outcome (for tests and the command line).
    void checkFinished();

protected:
    std::optional<UpdateManifest> required_;
    bool downloading_ = false;
    bool awaitingInstall_ = false;

private:
    void setRequired(std::optional<UpdateManifest> manifest);
    void setDownloading(bool downloading);
    void setAwaitingInstall(bool awaiting);
    QNetworkReply* get(const QUrl& url, std::chrono::milliseconds timeout);
    void endCheck(QNetworkReply* reply, const std::optional<QString>& failure);
    void checkEnded(QNetworkReply* reply);
    void downloadEnded(QNetworkReply* reply, const UpdateManifest& manifest);
    void downloadFailed(const QString& why, const UpdateManifest& manifest);
    void openPage(const QUrl& page);
    bool openFile(const QString& path, QString* error);
    void pollInstalled();

    Dependencies deps_;
    QNetworkAccessManager* network_ = nullptr;
    QTimer* checking_ = nullptr;
    QTimer* installWatch_ = nullptr;
    QNetworkReply* check_ = nullptr;
    QNetworkReply* downloadReply_ = nullptr;
    QByteArray checkBody_;
    QSaveFile* download_ = nullptr;
    qint64 downloadSize_ = 0;
    std::optional<QString> downloadedFile_;
    std::optional<QString> installTarget_;
    bool readingInstalled_ = false;
};

} // namespace skeldrin

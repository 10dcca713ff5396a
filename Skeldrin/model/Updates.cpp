#include "Skeldrin/model/Updates.h"

#include "Skeldrin/platform/UpdateInstaller.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSaveFile>
#include <QTimer>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

#ifndef SKELDRIN_UPDATE_URL
#define SKELDRIN_UPDATE_URL ""
#endif

namespace skeldrin {

namespace {

Q_LOGGING_CATEGORY(lcUpdates, "app.skeldrin.updates")

// The manifest is a few lines; anything larger is not one.
constexpr qint64 kManifestCap = 64 * 1024;
// Far above any package, far below filling a disk by accident.
constexpr qint64 kDownloadCap = qint64(1) << 30;
constexpr std::chrono::milliseconds kDownloadTimeout = std::chrono::seconds(60);

const char* const kRefusedRedirect = "skeldrinRefusedRedirect";
const char* const kFailure = "skeldrinFailure";

bool isLoopback(const QUrl& url)
{
    if (url.host().compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0) return true;
    const QHostAddress address(url.host());
    return !address.isNull() && address.isLoopback();
}

// Only https is fetched; plain http only from this machine, for tests and demos.
bool mayFetch(const QUrl& url)
{
    return isWebUrl(url) && (url.scheme() == QLatin1String("https") || isLoopback(url));
}

// The status of a final answer other than 200; nothing when the transfer itself failed (a request that
// timed out after a redirect still carries the redirect's status).
std::optional<int> unexpectedStatus(QNetworkReply* reply)
{
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const bool transferFailed = reply->property(kRefusedRedirect).isValid() ||
                                reply->property(kFailure).isValid() ||
                                (reply->error() != QNetworkReply::NoError && reply->error() < 200);
    if (transferFailed || !status.isValid() || status.toInt() == 200) return std::nullopt;
    return status.toInt();
}

// Why a finished reply failed, or nothing when it brought a complete 200 answer.
std::optional<QString> replyFailure(QNetworkReply* reply)
{
    if (const QVariant refused = reply->property(kRefusedRedirect); refused.isValid())
        return QStringLiteral("refused the redirect to %1").arg(refused.toUrl().toDisplayString());
    if (const QVariant failure = reply->property(kFailure); failure.isValid()) return failure.toString();
    if (const std::optional<int> status = unexpectedStatus(reply))
        return QStringLiteral("the server answered %1").arg(*status);
    if (reply->error() != QNetworkReply::NoError) return reply->errorString();
    return std::nullopt;
}

void abortWith(QNetworkReply* reply, const QString& failure)
{
    reply->setProperty(kFailure, failure);
    reply->abort();
}

} // namespace

Updates::Dependencies Updates::systemDependencies()
{
    Dependencies deps;
    deps.baseAddress = qEnvironmentVariableIsSet("SKELDRIN_UPDATE_URL")
                           ? qEnvironmentVariable("SKELDRIN_UPDATE_URL")
                           : QStringLiteral(SKELDRIN_UPDATE_URL);
    deps.currentVersion = QStringLiteral(SKELDRIN_VERSION);
    deps.installedCopy = platform::installedCopy();
    deps.downloadFolder = platform::updateDownloadFolder();
    deps.open = platform::openWithSystem;
    deps.readInstalledVersion = platform::readInstalledVersion;
    deps.launch = platform::launchInstalledCopy;
    deps.quit = [] { QCoreApplication::quit(); };
    return deps;
}

Updates::Updates(QObject* parent)
    : Updates(systemDependencies(), parent)
{
}

Updates::Updates(Dependencies dependencies, QObject* parent)
    : QObject(parent)
    , deps_(std::move(dependencies))
    , network_(new QNetworkAccessManager(this))
{
}

Updates::~Updates()
{
    // Replies finish while they are torn down; none of that may reach a half-destroyed updater.
    for (QNetworkReply* reply : {check_, downloadReply_}) {
        if (!reply) continue;
        reply->disconnect(this);
        reply->abort();
    }
}

void Updates::start()
{
    if (checking_) return;
    checking_ = new QTimer(this);
    checking_->setTimerType(Qt::VeryCoarseTimer);
    checking_->setInterval(deps_.checkInterval);
    connect(checking_, &QTimer::timeout, this, &Updates::check);
    checking_->start();
    check();
}

QNetworkReply* Updates::get(const QUrl& url, std::chrono::milliseconds timeout)
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::UserVerifiedRedirectPolicy);
    request.setHeader(QNetworkRequest::UserAgentHeader,
                      QStringLiteral("Skeldrin/%1").arg(deps_.currentVersion));
    QNetworkReply* reply = network_->get(request);
    // Silence for the whole timeout ends the request; every sign of life restarts the clock.
    auto* idle = new QTimer(reply);
    idle->setSingleShot(true);
    idle->setInterval(timeout);
    connect(idle, &QTimer::timeout, reply, [reply, timeout] {
        abortWith(reply, QStringLiteral("no answer for %1 seconds").arg(double(timeout.count()) / 1000.0));
    });
    connect(reply, &QNetworkReply::metaDataChanged, idle, qOverload<>(&QTimer::start));
    connect(reply, &QNetworkReply::downloadProgress, idle, qOverload<>(&QTimer::start));
    idle->start();
    // A redirect must lead somewhere we would have asked ourselves.
    connect(reply, &QNetworkReply::redirected, reply, [reply](const QUrl& to) {
        if (mayFetch(to)) {
            Q_EMIT reply->redirectAllowed();
        } else {
            reply->setProperty(kRefusedRedirect, to);
            reply->abort();
        }
    });
    return reply;
}

void Updates::check()
{
    if (check_ || deps_.baseAddress.isEmpty()) {
        if (!check_) Q_EMIT checkFinished();
        return;
    }
    QString base = deps_.baseAddress;
    if (!base.endsWith(QLatin1Char('/'))) base += QLatin1Char('/');
    const QUrl manifest = QUrl(base).resolved(QUrl(QStringLiteral("version.json")));
    if (!mayFetch(manifest)) {
        qCWarning(lcUpdates, "refusing the update address %s: only https, or http on this machine",
                  qUtf8Printable(deps_.baseAddress));
        Q_EMIT checkFinished();
        return;
    }
    checkBody_.clear();
    QNetworkReply* reply = check_ = get(manifest, deps_.checkTimeout);
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        checkBody_ += reply->read(kManifestCap + 1 - checkBody_.size());
        if (checkBody_.size() > kManifestCap)
            abortWith(reply, QStringLiteral("the manifest is larger than 64 KiB"));
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { checkEnded(reply); });
}

void Updates::checkEnded(QNetworkReply* reply)
{
    if (const std::optional<int> status = unexpectedStatus(reply)) {
        qCWarning(lcUpdates, "version check answered %d", *status);
        endCheck(reply, std::nullopt);
        return;
    }
    std::optional<QString> failure = replyFailure(reply);
    if (!failure) {
        try {
            checkBody_ += reply->read(kManifestCap + 1 - checkBody_.size());
            if (checkBody_.size() > kManifestCap)
                throw std::runtime_error("The update manifest is larger than 64 KiB.");
            const UpdateManifest manifest = UpdateManifest::decode(checkBody_);
            setRequired(AppVersion::isOlder(deps_.currentVersion, manifest.latest) ? std::optional(manifest)
                                                                                   : std::nullopt);
        } catch (const std::exception& error) {
            failure = QString::fromStdString(error.what());
        }
    }
    endCheck(reply, failure);
}

void Updates::endCheck(QNetworkReply* reply, const std::optional<QString>& failure)
{
    if (failure) qCWarning(lcUpdates, "version check failed: %s", qUtf8Printable(*failure));
    reply->disconnect(this);
    reply->deleteLater();
    check_ = nullptr;
    checkBody_.clear();
    Q_EMIT checkFinished();
}

void Updates::install()
{
    if (downloadedFile_) {
        if (QFileInfo::exists(*downloadedFile_)) {
            QString error;
            if (!openFile(*downloadedFile_, &error))
                qCWarning(lcUpdates, "couldn't open the downloaded update: %s", qUtf8Printable(error));
            return;
        }
        downloadedFile_.reset(); // removed since: fetch it again
    }
    if (downloading_ || !required_) return;

    const UpdateManifest manifest = *required_;
    const std::optional<QUrl> package = platform::updatePackage(manifest);
    if (!package) {
        openPage(manifest.url);
        return;
    }
    if (!mayFetch(*package)) {
        downloadFailed(QStringLiteral("refusing to download from %1").arg(package->toDisplayString()),
                       manifest);
        return;
    }
    if (!QDir().mkpath(deps_.downloadFolder)) {
        downloadFailed(QStringLiteral("couldn't create %1").arg(deps_.downloadFolder), manifest);
        return;
    }
    // Written under a temporary name and renamed over any earlier download only once complete.
    auto file =
        std::make_unique<QSaveFile>(QDir(deps_.downloadFolder).filePath(platform::updateFileName(*package)));
    if (!file->open(QIODevice::WriteOnly)) {
        downloadFailed(file->errorString(), manifest);
        return;
    }
    download_ = file.release();
    download_->setParent(this);
    downloadSize_ = 0;
    setDownloading(true);

    QNetworkReply* reply = downloadReply_ = get(*package, kDownloadTimeout);
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        const QByteArray chunk = reply->readAll();
        downloadSize_ += chunk.size();
        if (downloadSize_ > kDownloadCap)
            abortWith(reply, QStringLiteral("the download is larger than 1 GiB"));
        else if (download_->write(chunk) != chunk.size())
            abortWith(reply, download_->errorString());
    });
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, manifest] { downloadEnded(reply, manifest); });
}

void Updates::downloadEnded(QNetworkReply* reply, const UpdateManifest& manifest)
{
    reply->disconnect(this);
    reply->deleteLater();
    downloadReply_ = nullptr;
    std::unique_ptr<QSaveFile> file(std::exchange(download_, nullptr));

    std::optional<QString> failure = replyFailure(reply);
    if (!failure) {
        const QByteArray rest = reply->readAll();
        if (file->write(rest) != rest.size() || !file->commit()) failure = file->errorString();
    }
    if (failure) {
        file.reset(); // drops the partial file
        downloadFailed(*failure, manifest);
        return;
    }

    downloadedFile_ = file->fileName();
    QString error;
    if (openFile(*downloadedFile_, &error)) {
        setAwaitingInstall(true);
    } else {
        qCWarning(lcUpdates, "couldn't open the downloaded update: %s", qUtf8Printable(error));
        openPage(manifest.url);
    }
    installTarget_ = manifest.latest;
    finishWhenInstalled();
    setDownloading(false);
}

void Updates::downloadFailed(const QString& why, const UpdateManifest& manifest)
{
    qCWarning(lcUpdates, "update download failed: %s", qUtf8Printable(why));
    openPage(manifest.url);
    setDownloading(false);
}

void Updates::openPage(const QUrl& page)
{
    QString error;
    if (!deps_.open(page, &error))
        qCWarning(lcUpdates, "couldn't open %s: %s", qUtf8Printable(page.toDisplayString()),
                  qUtf8Printable(error));
}

bool Updates::openFile(const QString& path, QString* error)
{
    return deps_.open(QUrl::fromLocalFile(path), error);
}

void Updates::installedVersion(std::function<void(std::optional<QString>)> done)
{
    deps_.readInstalledVersion(deps_.installedCopy, this, std::move(done));
}

void Updates::finishWhenInstalled()
{
    if (!installTarget_ && required_) installTarget_ = required_->latest;
    if (!installTarget_) return;
    delete installWatch_;
    installWatch_ = new QTimer(this);
    installWatch_->setInterval(deps_.installPoll);
    connect(installWatch_, &QTimer::timeout, this, &Updates::pollInstalled);
    installWatch_->start();
}

void Updates::pollInstalled()
{
    if (readingInstalled_) return;
    readingInstalled_ = true;
    installedVersion([this](std::optional<QString> version) {
        readingInstalled_ = false;
        if (!installWatch_ || !version || !installTarget_ || AppVersion::isOlder(*version, *installTarget_))
            return;
        installWatch_->stop();
        installWatch_->deleteLater();
        installWatch_ = nullptr;
        relaunch();
    });
}

void Updates::relaunch()
{
    deps_.launch(deps_.installedCopy, this, [this](std::optional<QString> error) {
        if (error) {
            qCWarning(lcUpdates, "couldn't open the updated app: %s", qUtf8Printable(*error));
            return;
        }
        deps_.quit();
    });
}

void Updates::setRequired(std::optional<UpdateManifest> manifest)
{
    if (manifest == required_) return;
    required_ = std::move(manifest);
    Q_EMIT requiredChanged();
}

void Updates::setDownloading(bool downloading)
{
    if (downloading == downloading_) return;
    downloading_ = downloading;
    Q_EMIT downloadingChanged();
}

void Updates::setAwaitingInstall(bool awaiting)
{
    if (awaiting == awaitingInstall_) return;
    awaitingInstall_ = awaiting;
    Q_EMIT awaitingInstallChanged();
}

} // namespace skeldrin

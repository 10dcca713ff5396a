#include "Skeldrin/ui/SingleInstance.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLoggingCategory>
#include <QStandardPaths>
#include <QThread>
#include <stdexcept>

Q_LOGGING_CATEGORY(lcSingleInstance, "app.skeldrin.instance")

namespace skeldrin {

namespace {

constexpr char reopenMessage[] = "reopen\n";
constexpr char acknowledgement[] = "ok\n";

QString runtimeFolder()
{
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty()) folder = QDir::tempPath();
    QDir().mkpath(folder);
    return folder;
}

} // namespace

SingleInstance::SingleInstance(const QString& storeDirectory, QObject* parent)
    : QObject(parent)
{
    // The same store reached through a symbolic link is still the same store.
    const QString canonical = QFileInfo(storeDirectory).canonicalFilePath();
    const QString store = canonical.isEmpty() ? QDir::cleanPath(storeDirectory) : canonical;
    const QByteArray digest =
        QCryptographicHash::hash(store.toUtf8(), QCryptographicHash::Sha1).toHex().left(16);
    name_ = runtimeFolder() + QStringLiteral("/skeldrin-") + QString::fromLatin1(digest);
}

SingleInstance::~SingleInstance() = default;

bool SingleInstance::claim()
{
    // The lock decides who runs; the socket only carries the reopen request. A crashed instance's lock
    // is stale (its process is gone) and is taken over, and so is its socket file.
    lock_ = std::make_unique<QLockFile>(name_ + QStringLiteral(".lock"));
    lock_->setStaleLockTime(0);
    if (lock_->tryLock(0)) {
        QLocalServer::removeServer(name_);
        server_ = new QLocalServer(this);
        server_->setSocketOptions(QLocalServer::UserAccessOption);
        if (!server_->listen(name_))
            throw std::runtime_error("Couldn't listen on " + name_.toStdString() + ": " +
                                     server_->errorString().toStdString());
        connect(server_, &QLocalServer::newConnection, this, [this] {
            while (QLocalSocket* socket = server_->nextPendingConnection()) {
                connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                    if (!socket->canReadLine()) return;
                    if (socket->readLine() == reopenMessage) {
                        socket->write(acknowledgement);
                        socket->flush();
                        Q_EMIT reopenRequested();
                    }
                    socket->disconnectFromServer();
                });
            }
        });
        return true;
    }
    if (lock_->error() != QLockFile::LockFailedError)
        throw std::runtime_error("Couldn't create the lock file " + name_.toStdString() + ".lock");
    lock_.reset();

    // The running instance may still be starting: give it a few seconds to listen.
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < 5000) {
        QLocalSocket socket;
        socket.connectToServer(name_);
        if (socket.waitForConnected(500)) {
            socket.write(reopenMessage);
            if (socket.waitForBytesWritten(1000) && socket.waitForReadyRead(2000) &&
                socket.readLine() == acknowledgement)
                return false;
        }
        QThread::msleep(50);
    }
    throw std::runtime_error("Skeldrin is already running but does not answer.");
}

} // namespace skeldrin

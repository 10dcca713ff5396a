#pragma once
// A small HTTP/1.1 server on 127.0.0.1 for tests: fixed answers per path, or answers that never come or stop
// half-way. One request per connection.
#include <QHash>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

namespace skeldrin::test {

class LoopbackHttpServer {
  public:
    struct Response {
        enum class Ending { complete, silent, cutShort, stalled };
        int status = 200;
        QByteArray body = {};
        QByteArray location = {}; // where a redirect leads
        Ending ending = Ending::complete;
    };

    static Response redirect(const QUrl& to) { return Response{302, {}, to.toEncoded()}; }

    LoopbackHttpServer()
    {
        server_.listen(QHostAddress::LocalHost);
        QObject::connect(&server_, &QTcpServer::newConnection, &server_, [this] {
            while (QTcpSocket* socket = server_.nextPendingConnection()) {
                QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { read(socket); });
                QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }

    void serve(const QString& path, Response response) { routes_.insert(path, std::move(response)); }
    QUrl url(const QString& path = QStringLiteral("/")) const
    {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(server_.serverPort()).arg(path));
    }
    // The paths asked for, in order.
    const QStringList& requests() const { return requests_; }

  private:
    void read(QTcpSocket* socket)
    {
        QByteArray head = socket->property("head").toByteArray() + socket->readAll();
        socket->setProperty("head", head);
        if (!head.contains("\r\n\r\n") || socket->property("answered").toBool()) return;
        socket->setProperty("answered", true);
        const QList<QByteArray> requestLine = head.left(head.indexOf("\r\n")).split(' ');
        const QString target = requestLine.size() > 1 ? QString::fromLatin1(requestLine[1]) : QString();
        const QString path = target.section(u'?', 0, 0);
        requests_.append(path);
        const Response response = routes_.value(path, Response{404, "not here"});
        if (response.ending == Response::Ending::silent) return;

        // Cut short: promise twice the body, send it, hang up. Stalled: the same, but stay connected.
        const bool half =
            response.ending == Response::Ending::cutShort || response.ending == Response::Ending::stalled;
        const qsizetype promised = response.body.size() * (half ? 2 : 1);
        QByteArray out = "HTTP/1.1 " + QByteArray::number(response.status) + " Answer\r\n";
        out += "Content-Length: " + QByteArray::number(promised) + "\r\nConnection: close\r\n";
        if (!response.location.isEmpty()) out += "Location: " + response.location + "\r\n";
        out += "\r\n" + response.body;
        socket->write(out);
        if (response.ending != Response::Ending::stalled) socket->disconnectFromHost();
    }

    QTcpServer server_;
    QHash<QString, Response> routes_;
    QStringList requests_;
};

} // namespace skeldrin::test

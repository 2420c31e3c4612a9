#include "LocalHttpServer.h"

#include <QTcpSocket>

namespace kelvo::test {

LocalHttpServer::LocalHttpServer(int lifetimeMs) {
    server_.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&server_, &QTcpServer::newConnection, &server_, [this] { accept(); });
    lifetime_.setSingleShot(true);
    QObject::connect(&lifetime_, &QTimer::timeout, &server_, [this] { server_.close(); });
    lifetime_.start(lifetimeMs);
}

LocalHttpServer::~LocalHttpServer() {
    server_.close();
}

QUrl LocalHttpServer::url(const QString& path) const {
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(server_.serverPort()).arg(path));
}

void LocalHttpServer::accept() {
    while (QTcpSocket* socket = server_.nextPendingConnection()) {
        QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
            const QByteArray request = socket->peek(64 * 1024);
            if (!request.contains("\r\n\r\n")) return;
            socket->readAll();
            answer(socket, request);
        });
    }
}

void LocalHttpServer::answer(QTcpSocket* socket, const QByteArray& request) {
    const QList<QByteArray> line = request.left(request.indexOf("\r\n")).split(' ');
    const QString path = line.size() >= 2 ? QString::fromLatin1(line[1]) : QString();
    hits_[path] += 1;
    const HttpResponse response =
        routes_.value(path, HttpResponse{404, QByteArrayLiteral("not here"), -1});
    QByteArray head = "HTTP/1.0 " + QByteArray::number(response.status) +
                      (response.status < 400 ? " OK" : " Error") + "\r\n";
    head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    head += "Connection: close\r\n\r\n";
    socket->write(head);
    socket->write(response.sendOnly < 0 ? response.body : response.body.left(response.sendOnly));
    socket->disconnectFromHost();
}

quint16 closedLoopbackPort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

}  // namespace kelvo::test

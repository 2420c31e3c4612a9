// A small HTTP/1.0 server for the updater tests: listens on 127.0.0.1 only, serves fixed
// responses by path, counts requests, and stops itself after a time limit so a stuck test can
// never leave it running.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QTcpServer>
#include <QTimer>
#include <QUrl>

namespace kelvo::test {

struct HttpResponse {
    int status = 200;
    QByteArray body;
    // Bytes of the body actually sent before the connection is dropped; -1: all of it.
    qint64 sendOnly = -1;
};

class LocalHttpServer {
public:
    explicit LocalHttpServer(int lifetimeMs = 60000);
    ~LocalHttpServer();

    bool listening() const { return server_.isListening(); }
    void serve(const QString& path, HttpResponse response) { routes_[path] = std::move(response); }
    QUrl url(const QString& path) const;
    int hits(const QString& path) const { return hits_.value(path); }

private:
    void accept();
    void answer(QTcpSocket* socket, const QByteArray& request);

    QTcpServer server_;
    QTimer lifetime_;
    QHash<QString, HttpResponse> routes_;
    QHash<QString, int> hits_;
};

// A port on 127.0.0.1 that nothing listens on (bound once, then released).
quint16 closedLoopbackPort();

}  // namespace kelvo::test

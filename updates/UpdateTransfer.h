// Network transfers of the updater: the feed into memory (bounded), a build onto disk with
// progress (bounded by its announced length). Every outcome ends in exactly one callback.
#pragma once

#include <QFile>
#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QUrl>
#include <functional>
#include <memory>

class QNetworkReply;

namespace kelvo {

class UpdateTransfer : public QObject {
    Q_OBJECT
public:
    // body is valid when error is empty.
    using FetchHandler = std::function<void(const QByteArray& body, const QString& error)>;
    using ProgressHandler = std::function<void(qint64 received, qint64 total)>;
    using DownloadHandler = std::function<void(const QString& error)>;

    explicit UpdateTransfer(QObject* parent = nullptr);
    ~UpdateTransfer() override;

    // A transfer that stalls this long fails.
    void setTransferTimeout(int milliseconds) { timeoutMs_ = milliseconds; }

    void fetch(const QUrl& url, qint64 maximumBytes, FetchHandler done);
    void download(const QUrl& url, const QString& destination, qint64 expectedLength,
                  ProgressHandler progress, DownloadHandler done);
    // Ends the running transfer without calling its handler.
    void cancel();
    bool busy() const { return !reply_.isNull(); }

private:
    QNetworkReply* start(const QUrl& url);
    QString replyError(QNetworkReply* reply) const;
    void finishDownload(QNetworkReply* reply, const DownloadHandler& done);

    QNetworkAccessManager network_;
    QPointer<QNetworkReply> reply_;
    std::unique_ptr<QFile> file_;
    QString overrunError_;
    int timeoutMs_ = 30000;
};

// The reason a URL cannot be used for updates, or empty (http, https and local files only).
QString updateUrlProblem(const QUrl& url);

}  // namespace kelvo

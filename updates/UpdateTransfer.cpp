#include "updates/UpdateTransfer.h"

#include <QNetworkReply>
#include <QNetworkRequest>

namespace kelvo {

QString updateUrlProblem(const QUrl& url) {
    if (!url.isValid() || url.scheme().isEmpty())
        return QStringLiteral("'%1' is not a valid URL").arg(url.toString());
    const QString scheme = url.scheme().toLower();
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https") &&
        scheme != QLatin1String("file"))
        return QStringLiteral("the URL scheme '%1' is not supported").arg(scheme);
    return {};
}

UpdateTransfer::UpdateTransfer(QObject* parent) : QObject(parent) {}

UpdateTransfer::~UpdateTransfer() {
    cancel();
}

void UpdateTransfer::cancel() {
    if (reply_) {
        QNetworkReply* reply = reply_;
        reply_.clear();
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
    }
    if (file_) {
        file_->close();
        file_.reset();
    }
}

QNetworkReply* UpdateTransfer::start(const QUrl& url) {
    cancel();
    overrunError_.clear();
    QNetworkRequest request(url);
    request.setTransferTimeout(timeoutMs_);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Kelvo updater"));
    reply_ = network_.get(request);
    return reply_;
}

QString UpdateTransfer::replyError(QNetworkReply* reply) const {
    if (!overrunError_.isEmpty()) return overrunError_;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid() && status.toInt() >= 400) {
        const QString reason =
            reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        return QStringLiteral("the server answered HTTP %1%2")
            .arg(status.toInt())
            .arg(reason.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(reason));
    }
    if (reply->error() != QNetworkReply::NoError)
        return QStringLiteral("cannot fetch %1: %2")
            .arg(reply->url().toDisplayString(), reply->errorString());
    return {};
}

void UpdateTransfer::fetch(const QUrl& url, qint64 maximumBytes, FetchHandler done) {
    const QString problem = updateUrlProblem(url);
    if (!problem.isEmpty()) {
        done({}, problem);
        return;
    }
    QNetworkReply* reply = start(url);
    connect(reply, &QNetworkReply::downloadProgress, this,
            [this, reply, maximumBytes](qint64 received, qint64 total) {
                if (received <= maximumBytes && total <= maximumBytes) return;
                overrunError_ =
                    QStringLiteral("the appcast is larger than %1 bytes").arg(maximumBytes);
                reply->abort();
            });
    connect(reply, &QNetworkReply::finished, this, [this, reply, done = std::move(done)] {
        reply_.clear();
        reply->deleteLater();
        const QString error = replyError(reply);
        done(error.isEmpty() ? reply->readAll() : QByteArray(), error);
    });
}

void UpdateTransfer::download(const QUrl& url, const QString& destination, qint64 expectedLength,
                              ProgressHandler progress, DownloadHandler done) {
    const QString problem = updateUrlProblem(url);
    if (!problem.isEmpty()) {
        done(problem);
        return;
    }
    auto file = std::make_unique<QFile>(destination);
    if (!file->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        done(QStringLiteral("cannot write the download: %1").arg(file->errorString()));
        return;
    }
    QNetworkReply* reply = start(url);
    file_ = std::move(file);
    connect(reply, &QNetworkReply::readyRead, this, [this, reply, expectedLength] {
        const QByteArray chunk = reply->readAll();
        if (file_->size() + chunk.size() > expectedLength) {
            overrunError_ =
                QStringLiteral("the download is longer than the %1 bytes the feed announced")
                    .arg(expectedLength);
            reply->abort();
            return;
        }
        if (file_->write(chunk) != chunk.size()) {
            overrunError_ =
                QStringLiteral("cannot write the download: %1").arg(file_->errorString());
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::downloadProgress, this,
            [expectedLength, progress = std::move(progress)](qint64 received, qint64) {
                if (progress) progress(received, expectedLength);
            });
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, done = std::move(done)] { finishDownload(reply, done); });
}

void UpdateTransfer::finishDownload(QNetworkReply* reply, const DownloadHandler& done) {
    reply_.clear();
    reply->deleteLater();
    QString error = replyError(reply);
    if (file_) {
        if (!file_->flush() && error.isEmpty())
            error = QStringLiteral("cannot write the download: %1").arg(file_->errorString());
        file_->close();
        file_.reset();
    }
    done(error);
}

}  // namespace kelvo

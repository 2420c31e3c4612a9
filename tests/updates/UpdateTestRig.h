// Shared pieces of the updater tests: a signing key pair made for the test run, a private
// settings file, an install target in a temporary folder, and appcast documents.
#pragma once

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <memory>

#include "LocalHttpServer.h"
#include "updates/UpdateSignature.h"
#include "updates/UpdaterConfiguration.h"

namespace kelvo::test {

struct FeedItem {
    QString version;
    QString shortVersion;
    QString path;  // enclosure path on the server
    QByteArray payload;
    QString minimumSystemVersion;
    QByteArray signature;  // empty: signed with the rig's key
    qint64 length = -1;    // -1: the payload's size
};

class UpdateTestRig {
public:
    UpdateTestRig() : keys(UpdateSignature::generateKeyPair()) {
        settings = std::make_unique<QSettings>(dir.filePath(QStringLiteral("settings.ini")),
                                               QSettings::IniFormat);
    }

    QString path(const QString& name) const { return dir.filePath(name); }

    // An installed AppImage-like file holding `content`.
    QString installFile(const QByteArray& content) {
        const QString target = path(QStringLiteral("Kelvo.AppImage"));
        writeFile(target, content);
        return target;
    }

    static void writeFile(const QString& name, const QByteArray& content) {
        QFile file(name);
        file.open(QIODevice::WriteOnly | QIODevice::Truncate);
        file.write(content);
    }

    static QByteArray readFile(const QString& name) {
        QFile file(name);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    UpdaterConfiguration configuration(const QUrl& feed, const QString& target) {
        UpdaterConfiguration configuration;
        configuration.feedUrl = feed;
        configuration.publicKey = keys.publicKey;
        configuration.displayVersion = QStringLiteral("0.1.0");
        configuration.buildVersion = QStringLiteral("10");
        configuration.systemVersion = QStringLiteral("6.1.0");
        configuration.installTarget = target;
        configuration.settings = settings.get();
        configuration.transferTimeoutMs = 5000;
        return configuration;
    }

    QByteArray itemXml(const LocalHttpServer& server, const FeedItem& item) const {
        const QByteArray signature = item.signature.isEmpty()
                                         ? UpdateSignature::sign(item.payload, keys.secretKey)
                                         : item.signature;
        const qint64 length = item.length < 0 ? item.payload.size() : item.length;
        QByteArray xml = "<item><title>Kelvo " + item.shortVersion.toUtf8() + "</title>";
        xml += "<up:version>" + item.version.toUtf8() + "</up:version>";
        xml += "<up:shortVersionString>" + item.shortVersion.toUtf8() + "</up:shortVersionString>";
        xml += "<up:releaseNotesLink>https://kelvo.invalid/notes/" + item.version.toUtf8() +
               ".html</up:releaseNotesLink>";
        if (!item.minimumSystemVersion.isEmpty())
            xml += "<up:minimumSystemVersion>" + item.minimumSystemVersion.toUtf8() +
                   "</up:minimumSystemVersion>";
        xml += "<enclosure url=\"" + server.url(item.path).toEncoded() + "\" length=\"" +
               QByteArray::number(length) +
               "\" type=\"application/octet-stream\" up:edSignature=\"" + signature + "\"/></item>";
        return xml;
    }

    static QByteArray feed(const QByteArray& items) {
        return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
               "<rss version=\"2.0\" xmlns:up=\"https://kelvo.invalid/xml-namespaces/update\">"
               "<channel><title>Kelvo</title>" +
               items + "</channel></rss>";
    }

    // Serves the feed at /appcast.xml and every item's payload at its path.
    void publish(LocalHttpServer& server, const QList<FeedItem>& items) const {
        QByteArray xml;
        for (const FeedItem& item : items) {
            xml += itemXml(server, item);
            server.serve(item.path, {200, item.payload, -1});
        }
        server.serve(QStringLiteral("/appcast.xml"), {200, feed(xml), -1});
    }

    QTemporaryDir dir;
    UpdateSignature::KeyPair keys;
    std::unique_ptr<QSettings> settings;
};

}  // namespace kelvo::test

// An update feed: an RSS document whose items describe published builds with the usual update
// attributes (version, short version, release notes, minimum system version, enclosure with
// length and Ed25519 signature). Attributes are matched by local name, whatever their namespace
// prefix, so feeds written by other appcast tools read the same.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>
#include <optional>

namespace kelvo {

struct AppcastItem {
    QString title;
    QString version;       // the build number, which orders updates
    QString shortVersion;  // what users see; the build number when the feed has none
    QUrl releaseNotesLink;
    QString minimumSystemVersion;  // empty: any system
    QUrl enclosureUrl;
    qint64 enclosureLength = 0;
    QByteArray edSignature;  // base64, as in the feed

    bool operator==(const AppcastItem&) const = default;
};

struct AppcastParseResult {
    QList<AppcastItem> items;
    QStringList skipped;  // one reason per item that could not be used
    QString error;        // empty when the document could be read

    bool ok() const { return error.isEmpty(); }
};

namespace Appcast {

// Feeds above this size are refused before parsing: a real feed is a few kilobytes.
inline constexpr qint64 kMaximumBytes = 1024 * 1024;
inline constexpr int kMaximumItems = 500;

// Reads a feed. Only UTF-8 documents are accepted; a document type declaration (the way to
// entity expansion attacks) is refused. Never throws.
AppcastParseResult parse(const QByteArray& document);

// The newest item that is newer than currentBuild and whose minimum system version the system
// meets; none when there is no such item.
std::optional<AppcastItem> newestApplicableItem(const QList<AppcastItem>& items,
                                                const QString& currentBuild,
                                                const QString& systemVersion);

}  // namespace Appcast

}  // namespace kelvo

#include "updates/Appcast.h"

#include <QStringDecoder>
#include <QXmlStreamReader>

#include "updates/UpdateVersionComparator.h"

namespace kelvo::Appcast {

namespace {

QString encodingError(const QByteArray& document) {
    QXmlStreamReader probe(document);
    while (!probe.atEnd() && probe.tokenType() != QXmlStreamReader::StartDocument) probe.readNext();
    const QString declared = probe.documentEncoding().toString().trimmed();
    if (!declared.isEmpty() && declared.compare(QLatin1String("UTF-8"), Qt::CaseInsensitive) != 0)
        return QStringLiteral("the appcast declares the unsupported encoding %1").arg(declared);
    QStringDecoder decoder(QStringDecoder::Utf8);
    [[maybe_unused]] const QString text = decoder.decode(document);
    if (decoder.hasError()) return QStringLiteral("the appcast is not valid UTF-8");
    return {};
}

// Reads one enclosure's attributes into the item; the item's own elements win for versions.
void readEnclosure(const QXmlStreamAttributes& attributes, AppcastItem& item) {
    for (const QXmlStreamAttribute& attribute : attributes) {
        const auto name = attribute.name();
        const QString value = attribute.value().toString().trimmed();
        if (name == QLatin1String("url"))
            item.enclosureUrl = QUrl(value);
        else if (name == QLatin1String("length"))
            item.enclosureLength = value.toLongLong();
        else if (name == QLatin1String("edSignature"))
            item.edSignature = value.toLatin1();
        else if (name == QLatin1String("version") && item.version.isEmpty())
            item.version = value;
        else if (name == QLatin1String("shortVersionString") && item.shortVersion.isEmpty())
            item.shortVersion = value;
    }
}

void readItemElement(QXmlStreamReader& reader, AppcastItem& item) {
    const auto name = reader.name();
    if (name == QLatin1String("enclosure")) {
        readEnclosure(reader.attributes(), item);
        reader.skipCurrentElement();
        return;
    }
    if (name == QLatin1String("title")) {
        item.title = reader.readElementText(QXmlStreamReader::IncludeChildElements).trimmed();
    } else if (name == QLatin1String("version")) {
        item.version = reader.readElementText().trimmed();
    } else if (name == QLatin1String("shortVersionString")) {
        item.shortVersion = reader.readElementText().trimmed();
    } else if (name == QLatin1String("releaseNotesLink")) {
        item.releaseNotesLink = QUrl(reader.readElementText().trimmed());
    } else if (name == QLatin1String("minimumSystemVersion")) {
        item.minimumSystemVersion = reader.readElementText().trimmed();
    } else {
        reader.skipCurrentElement();
    }
}

QString missingField(const AppcastItem& item) {
    if (item.version.isEmpty()) return QStringLiteral("no version");
    if (!item.enclosureUrl.isValid() || item.enclosureUrl.scheme().isEmpty())
        return QStringLiteral("no valid enclosure URL");
    if (item.enclosureLength <= 0) return QStringLiteral("no enclosure length");
    if (item.edSignature.isEmpty()) return QStringLiteral("no Ed25519 signature");
    return {};
}

void readItem(QXmlStreamReader& reader, AppcastParseResult& result) {
    AppcastItem item;
    while (reader.readNextStartElement()) readItemElement(reader, item);
    if (reader.hasError()) return;
    if (item.shortVersion.isEmpty()) item.shortVersion = item.version;
    const QString missing = missingField(item);
    if (!missing.isEmpty()) {
        result.skipped << QStringLiteral("item %1: %2")
                              .arg(result.items.size() + result.skipped.size() + 1)
                              .arg(missing);
        return;
    }
    result.items << item;
}

void readChannel(QXmlStreamReader& reader, AppcastParseResult& result) {
    while (reader.readNextStartElement()) {
        if (reader.name() != QLatin1String("item")) {
            reader.skipCurrentElement();
            continue;
        }
        if (result.items.size() + result.skipped.size() >= kMaximumItems) {
            reader.raiseError(QStringLiteral("more than %1 items").arg(kMaximumItems));
            return;
        }
        readItem(reader, result);
    }
}

QString readDocument(QXmlStreamReader& reader, AppcastParseResult& result) {
    bool sawChannel = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.tokenType() == QXmlStreamReader::DTD)
            return QStringLiteral("the appcast contains a document type declaration");
        if (reader.tokenType() != QXmlStreamReader::StartElement) continue;
        if (reader.name() == QLatin1String("channel")) {
            sawChannel = true;
            readChannel(reader, result);
        } else if (reader.name() != QLatin1String("rss")) {
            reader.skipCurrentElement();
        }
    }
    if (reader.hasError())
        return QStringLiteral("the appcast is not well-formed XML (line %1: %2)")
            .arg(reader.lineNumber())
            .arg(reader.errorString());
    if (!sawChannel) return QStringLiteral("the appcast has no RSS channel");
    return {};
}

bool meetsMinimum(const AppcastItem& item, const QString& systemVersion) {
    if (item.minimumSystemVersion.isEmpty()) return true;
    return UpdateVersionComparator::compare(systemVersion, item.minimumSystemVersion) >= 0;
}

}  // namespace

AppcastParseResult parse(const QByteArray& document) {
    AppcastParseResult result;
    if (document.size() > kMaximumBytes) {
        result.error = QStringLiteral("the appcast is larger than %1 bytes").arg(kMaximumBytes);
        return result;
    }
    if (document.trimmed().isEmpty()) {
        result.error = QStringLiteral("the appcast is empty");
        return result;
    }
    result.error = encodingError(document);
    if (!result.ok()) return result;
    QXmlStreamReader reader(document);
    result.error = readDocument(reader, result);
    if (!result.ok()) result.items.clear();
    return result;
}

std::optional<AppcastItem> newestApplicableItem(const QList<AppcastItem>& items,
                                                const QString& currentBuild,
                                                const QString& systemVersion) {
    std::optional<AppcastItem> best;
    for (const AppcastItem& item : items) {
        if (!meetsMinimum(item, systemVersion)) continue;
        if (UpdateVersionComparator::compare(item.version, currentBuild) <= 0) continue;
        if (!best || UpdateVersionComparator::compare(item.version, best->version) > 0) best = item;
    }
    return best;
}

}  // namespace kelvo::Appcast

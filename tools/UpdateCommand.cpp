#include "tools/UpdateCommand.h"

#include "tools/TerminalText.h"

#include <sys/stat.h>

#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <cstdio>
#include <optional>

#include "updates/Appcast.h"
#include "updates/BuildAwareVersionDisplayer.h"
#include "updates/UpdateSignature.h"
#include "updates/UpdateTransfer.h"
#include "updates/UpdaterConfiguration.h"

namespace kelvo::kelvoctl {

namespace {

constexpr int kUsageError = 2;
constexpr char kNamespace[] = "urn:kelvo:update";

void printLine(std::FILE* stream, const QString& line) {
    say(stream, "%s\n", line.toUtf8().constData());
}

int failure(const QString& reason) {
    printLine(stderr, QStringLiteral("kelvoctl: ") + reason);
    return 1;
}

// "--name VALUE" or "--name=VALUE"; removes it from words.
std::optional<QString> takeOption(QStringList& words, const QString& name) {
    for (qsizetype i = 0; i < words.size(); ++i) {
        if (words[i] == name && i + 1 < words.size()) {
            const QString value = words[i + 1];
            words.remove(i, 2);
            return value;
        }
        if (words[i].startsWith(name + QLatin1Char('='))) {
            const QString value = words[i].mid(name.size() + 1);
            words.remove(i);
            return value;
        }
    }
    return std::nullopt;
}

int check(QStringList words) {
    const UpdaterConfiguration build = UpdaterConfiguration::fromBuild();
    const std::optional<QString> feedOption = takeOption(words, QStringLiteral("--feed"));
    if (!words.isEmpty()) {
        printUpdateUsage();
        return kUsageError;
    }
    const QUrl feed = feedOption ? QUrl::fromUserInput(*feedOption) : build.feedUrl;
    if (feed.isEmpty())
        return failure(QStringLiteral("no update feed is configured; use --feed URL"));
    UpdateTransfer transfer;
    QEventLoop loop;
    QByteArray body;
    QString error;
    transfer.fetch(feed, Appcast::kMaximumBytes,
                   [&](const QByteArray& data, const QString& problem) {
                       body = data;
                       error = problem;
                       loop.quit();
                   });
    if (transfer.busy()) loop.exec();
    if (!error.isEmpty()) return failure(error);
    const AppcastParseResult parsed = Appcast::parse(body);
    if (!parsed.ok()) return failure(parsed.error);
    if (parsed.items.isEmpty() && !parsed.skipped.isEmpty())
        return failure(QStringLiteral("the appcast has no usable item (%1)")
                           .arg(parsed.skipped.join(QStringLiteral("; "))));
    const BuildAwareVersionDisplayer displayer;
    const auto item =
        Appcast::newestApplicableItem(parsed.items, build.buildVersion, build.systemVersion);
    if (!item) {
        printLine(stdout, QStringLiteral("Kelvo %1 is up to date.")
                              .arg(displayer.formatBundleDisplayVersion(build.displayVersion,
                                                                        build.buildVersion)));
        return 0;
    }
    printLine(stdout,
              QStringLiteral("Update available: Kelvo %1")
                  .arg(displayer.formatBundleDisplayVersion(item->shortVersion, item->version)));
    printLine(stdout,
              QStringLiteral("Release notes: %1")
                  .arg(item->releaseNotesLink.isEmpty() ? QStringLiteral("none")
                                                        : item->releaseNotesLink.toString()));
    return 0;
}

// Writes a new secret key to the file (never over an existing one) and prints the public key.
int keygen(const QStringList& words) {
    if (words.size() != 1) {
        printUpdateUsage();
        return kUsageError;
    }
    const QString path = words.front();
    if (QFileInfo::exists(path))
        return failure(QStringLiteral("%1 exists; not replacing a key").arg(path));
    const UpdateSignature::KeyPair keys = UpdateSignature::generateKeyPair();
    if (keys.publicKey.isEmpty()) return failure(QStringLiteral("libsodium could not start"));
    const mode_t previous = ::umask(077);
    QSaveFile file(path);
    const bool written =
        file.open(QIODevice::WriteOnly) && file.write(keys.secretKey + '\n') > 0 && file.commit();
    ::umask(previous);
    if (!written)
        return failure(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    printLine(stdout, QString::fromLatin1(keys.publicKey));
    return 0;
}

QString escaped(const QString& text) {
    return text.toHtmlEscaped();
}

int sign(QStringList words) {
    const auto keyFile = takeOption(words, QStringLiteral("--key"));
    const auto version = takeOption(words, QStringLiteral("--version"));
    const auto url = takeOption(words, QStringLiteral("--url"));
    const auto shortVersion = takeOption(words, QStringLiteral("--short-version"));
    const auto notes = takeOption(words, QStringLiteral("--notes"));
    const auto minimumSystem = takeOption(words, QStringLiteral("--minimum-system"));
    if (!keyFile || !version || !url || words.size() != 1) {
        printUpdateUsage();
        return kUsageError;
    }
    QFile key(*keyFile);
    if (!key.open(QIODevice::ReadOnly))
        return failure(QStringLiteral("cannot read %1: %2").arg(*keyFile, key.errorString()));
    QFile release(words.front());
    if (!release.open(QIODevice::ReadOnly))
        return failure(
            QStringLiteral("cannot read %1: %2").arg(words.front(), release.errorString()));
    const QByteArray data = release.readAll();
    const QByteArray signature = UpdateSignature::sign(data, key.readAll().trimmed());
    if (signature.isEmpty())
        return failure(QStringLiteral("%1 is not a secret signing key").arg(*keyFile));
    const QString shown = shortVersion.value_or(*version);
    QString item = QStringLiteral("<item>\n  <title>Kelvo %1</title>\n").arg(escaped(shown));
    item += QStringLiteral("  <kelvo:version>%1</kelvo:version>\n").arg(escaped(*version));
    item += QStringLiteral("  <kelvo:shortVersionString>%1</kelvo:shortVersionString>\n")
                .arg(escaped(shown));
    if (notes)
        item += QStringLiteral("  <kelvo:releaseNotesLink>%1</kelvo:releaseNotesLink>\n")
                    .arg(escaped(*notes));
    if (minimumSystem)
        item += QStringLiteral("  <kelvo:minimumSystemVersion>%1</kelvo:minimumSystemVersion>\n")
                    .arg(escaped(*minimumSystem));
    item += QStringLiteral(
                "  <enclosure url=\"%1\" length=\"%2\" type=\"application/octet-stream\" "
                "kelvo:edSignature=\"%3\"/>\n</item>")
                .arg(escaped(*url))
                .arg(data.size())
                .arg(QString::fromLatin1(signature));
    printLine(stdout, item);
    return 0;
}

}  // namespace

void printUpdateUsage(std::FILE* stream) {
    say(stream,
        "usage: kelvoctl update check [--feed URL]\n"
        "       kelvoctl update keygen SECRET_KEY_FILE\n"
        "       kelvoctl update sign --key SECRET_KEY_FILE --version BUILD --url URL\n"
        "                            [--short-version VERSION] [--notes URL]\n"
        "                            [--minimum-system KERNEL_VERSION] RELEASE_FILE\n"
        "keygen prints the public key to build Kelvo with (-DKELVO_UPDATE_PUBLIC_KEY=...);\n"
        "sign prints the release's appcast item; the feed's <rss> element declares\n"
        "xmlns:kelvo=\"%s\".\n",
        kNamespace);
}

int runUpdateCommand(const QStringList& words) {
    if (words.isEmpty()) {
        printUpdateUsage();
        return kUsageError;
    }
    const QString command = words.front();
    const QStringList rest = words.mid(1);
    if (command == QLatin1String("check")) return check(rest);
    if (command == QLatin1String("keygen")) return keygen(rest);
    if (command == QLatin1String("sign")) return sign(rest);
    say(stderr, "kelvoctl: unknown update command '%s'\n", command.toUtf8().constData());
    printUpdateUsage();
    return kUsageError;
}

}  // namespace kelvo::kelvoctl

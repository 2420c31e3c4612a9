#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include "updates/Appcast.h"

using kelvo::AppcastItem;
namespace Appcast = kelvo::Appcast;

namespace {

QByteArray item(const QByteArray& version, const QByteArray& extra = {},
                const QByteArray& enclosure =
                    "url=\"https://kelvo.invalid/k.AppImage\" "
                    "length=\"42\" up:edSignature=\"c2ln\"") {
    return "<item><title>Kelvo " + version + "</title><up:version>" + version + "</up:version>" +
           extra + "<enclosure " + enclosure + "/></item>";
}

QByteArray feed(const QByteArray& items, const QByteArray& prefix = "up") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><rss version=\"2.0\" xmlns:" + prefix +
           "=\"https://kelvo.invalid/ns\"><channel><title>Kelvo</title>" + items +
           "</channel></rss>";
}

AppcastItem makeItem(const QString& version, const QString& minimumSystem = {}) {
    AppcastItem result;
    result.version = version;
    result.shortVersion = version;
    result.minimumSystemVersion = minimumSystem;
    return result;
}

}  // namespace

TEST(Appcast, ReadsEveryUpdateAttributeOfAnItem) {
    const auto result = Appcast::parse(
        feed(item("12",
                  "<up:shortVersionString>0.2.0</up:shortVersionString>"
                  "<up:releaseNotesLink>https://kelvo.invalid/notes/12.html</up:releaseNotesLink>"
                  "<up:minimumSystemVersion>5.10</up:minimumSystemVersion>",
                  "url=\"https://kelvo.invalid/Kelvo-0.2.0.AppImage\" length=\"1234\" "
                  "type=\"application/octet-stream\" up:edSignature=\"QUJD\"")));
    ASSERT_TRUE(result.ok()) << result.error.toStdString();
    ASSERT_EQ(result.items.size(), 1);
    const AppcastItem& read = result.items.front();
    EXPECT_EQ(read.title, QStringLiteral("Kelvo 12"));
    EXPECT_EQ(read.version, QStringLiteral("12"));
    EXPECT_EQ(read.shortVersion, QStringLiteral("0.2.0"));
    EXPECT_EQ(read.releaseNotesLink, QUrl(QStringLiteral("https://kelvo.invalid/notes/12.html")));
    EXPECT_EQ(read.minimumSystemVersion, QStringLiteral("5.10"));
    EXPECT_EQ(read.enclosureUrl,
              QUrl(QStringLiteral("https://kelvo.invalid/Kelvo-0.2.0.AppImage")));
    EXPECT_EQ(read.enclosureLength, 1234);
    EXPECT_EQ(read.edSignature, QByteArray("QUJD"));
}

TEST(Appcast, VersionsOnTheEnclosureAndAnyNamespacePrefixAreRead) {
    const auto result = Appcast::parse(
        feed("<item><enclosure url=\"https://kelvo.invalid/a\" length=\"5\" other:version=\"7\" "
             "other:shortVersionString=\"0.1.7\" other:edSignature=\"c2ln\"/></item>",
             "other"));
    ASSERT_TRUE(result.ok()) << result.error.toStdString();
    ASSERT_EQ(result.items.size(), 1);
    EXPECT_EQ(result.items.front().version, QStringLiteral("7"));
    EXPECT_EQ(result.items.front().shortVersion, QStringLiteral("0.1.7"));
}

TEST(Appcast, AMissingShortVersionShowsTheBuildNumber) {
    const auto result = Appcast::parse(feed(item("12")));
    ASSERT_EQ(result.items.size(), 1);
    EXPECT_EQ(result.items.front().shortVersion, QStringLiteral("12"));
}

TEST(Appcast, ItemsWithMissingFieldsAreSkippedWithTheirReason) {
    const auto result = Appcast::parse(
        feed(item("12", {}, "url=\"https://kelvo.invalid/a\" up:edSignature=\"c2ln\"") +
             item("13", {}, "url=\"https://kelvo.invalid/a\" length=\"5\"") +
             item("", {}, "url=\"https://kelvo.invalid/a\" length=\"5\" up:edSignature=\"c2ln\"") +
             "<item><up:version>15</up:version></item>" + item("16")));
    ASSERT_TRUE(result.ok());
    ASSERT_EQ(result.items.size(), 1);
    EXPECT_EQ(result.items.front().version, QStringLiteral("16"));
    EXPECT_EQ(result.skipped, QStringList({QStringLiteral("item 1: no enclosure length"),
                                           QStringLiteral("item 2: no Ed25519 signature"),
                                           QStringLiteral("item 3: no version"),
                                           QStringLiteral("item 4: no valid enclosure URL")}));
}

TEST(Appcast, MalformedXmlIsAnError) {
    const auto result = Appcast::parse("<rss><channel><item><title>x</channel>");
    EXPECT_FALSE(result.ok());
    EXPECT_TRUE(result.error.startsWith(QStringLiteral("the appcast is not well-formed XML")))
        << result.error.toStdString();
    EXPECT_TRUE(result.items.isEmpty());
}

TEST(Appcast, ADocumentThatIsNoFeedIsAnError) {
    EXPECT_EQ(Appcast::parse("<html><body>Not found</body></html>").error,
              QStringLiteral("the appcast has no RSS channel"));
    EXPECT_EQ(Appcast::parse("   ").error, QStringLiteral("the appcast is empty"));
}

TEST(Appcast, AHugeDocumentIsRefusedUnread) {
    QByteArray huge = feed(item("12"));
    huge.append(QByteArray(Appcast::kMaximumBytes, ' '));
    EXPECT_EQ(Appcast::parse(huge).error,
              QStringLiteral("the appcast is larger than %1 bytes").arg(Appcast::kMaximumBytes));
}

TEST(Appcast, TooManyItemsAreRefused) {
    QByteArray items;
    for (int i = 0; i <= Appcast::kMaximumItems; ++i) items += item(QByteArray::number(i));
    const auto result = Appcast::parse(feed(items));
    EXPECT_FALSE(result.ok());
    EXPECT_TRUE(result.error.contains(QStringLiteral("more than 500 items")))
        << result.error.toStdString();
}

TEST(Appcast, WrongEncodingsAreRefused) {
    QByteArray latin =
        feed(item("12", "<up:shortVersionString>0.2 \xe9t\xe9</up:shortVersionString>"));
    EXPECT_EQ(Appcast::parse(latin).error, QStringLiteral("the appcast is not valid UTF-8"));
    QByteArray declared = latin;
    declared.replace("encoding=\"UTF-8\"", "encoding=\"ISO-8859-1\"");
    EXPECT_EQ(Appcast::parse(declared).error,
              QStringLiteral("the appcast declares the unsupported encoding ISO-8859-1"));
}

TEST(Appcast, EntityDeclarationsAreRefused) {
    const QByteArray bomb =
        "<?xml version=\"1.0\"?><!DOCTYPE rss [<!ENTITY a \"aaaaaaaaaa\">"
        "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">]><rss><channel><title>&b;</title>"
        "</channel></rss>";
    EXPECT_EQ(Appcast::parse(bomb).error,
              QStringLiteral("the appcast contains a document type declaration"));
}

TEST(Appcast, TheNewestNewerItemIsOffered) {
    const QList<AppcastItem> items = {makeItem(QStringLiteral("11")),
                                      makeItem(QStringLiteral("13")),
                                      makeItem(QStringLiteral("12"))};
    const auto offered =
        Appcast::newestApplicableItem(items, QStringLiteral("10"), QStringLiteral("6.1"));
    ASSERT_TRUE(offered.has_value());
    EXPECT_EQ(offered->version, QStringLiteral("13"));
}

TEST(Appcast, NothingIsOfferedWhenNoItemIsNewer) {
    const QList<AppcastItem> items = {makeItem(QStringLiteral("9")),
                                      makeItem(QStringLiteral("10"))};
    EXPECT_FALSE(Appcast::newestApplicableItem(items, QStringLiteral("10"), QStringLiteral("6.1")));
    EXPECT_FALSE(Appcast::newestApplicableItem({}, QStringLiteral("10"), QStringLiteral("6.1")));
}

TEST(Appcast, ItemsNeedingANewerSystemAreNotOffered) {
    const QList<AppcastItem> items = {makeItem(QStringLiteral("12"), QStringLiteral("5.10")),
                                      makeItem(QStringLiteral("13"), QStringLiteral("6.8"))};
    const auto offered = Appcast::newestApplicableItem(items, QStringLiteral("10"),
                                                       QStringLiteral("6.1.0-18-amd64"));
    ASSERT_TRUE(offered.has_value());
    EXPECT_EQ(offered->version, QStringLiteral("12"));
}

TEST(Appcast, APreReleaseBuildIsOfferedItsRelease) {
    const QList<AppcastItem> items = {makeItem(QStringLiteral("2.0b3")),
                                      makeItem(QStringLiteral("2.0"))};
    const auto offered =
        Appcast::newestApplicableItem(items, QStringLiteral("2.0b2"), QStringLiteral("6.1"));
    ASSERT_TRUE(offered.has_value());
    EXPECT_EQ(offered->version, QStringLiteral("2.0"));
}

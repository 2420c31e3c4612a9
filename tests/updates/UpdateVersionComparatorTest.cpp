#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include "updates/UpdateVersionComparator.h"

using kelvo::UpdateVersionComparator::compare;

namespace {
void expectOlder(const char* older, const char* newer) {
    EXPECT_LT(compare(QString::fromLatin1(older), QString::fromLatin1(newer)), 0)
        << older << " < " << newer;
    EXPECT_GT(compare(QString::fromLatin1(newer), QString::fromLatin1(older)), 0)
        << newer << " > " << older;
}
}  // namespace

TEST(UpdateVersionComparator, NumbersCompareByValueNotByText) {
    expectOlder("1.9", "1.10");
    expectOlder("9", "10");
    expectOlder("1.2.3", "1.2.10");
    expectOlder("99999999999999999999", "100000000000000000000");
}

TEST(UpdateVersionComparator, EqualVersionsCompareEqual) {
    EXPECT_EQ(compare(QStringLiteral("1.2.3"), QStringLiteral("1.2.3")), 0);
    EXPECT_EQ(compare(QStringLiteral("343"), QStringLiteral("343")), 0);
    EXPECT_EQ(compare(QStringLiteral("1.02"), QStringLiteral("1.2")), 0);
}

TEST(UpdateVersionComparator, PreReleaseComesBeforeItsRelease) {
    expectOlder("1.0b1", "1.0");
    expectOlder("1.0a2", "1.0b1");
    expectOlder("1.0b1", "1.0b2");
    expectOlder("1.0rc1", "1.0");
    expectOlder("1.0b9", "1.0.1");
}

TEST(UpdateVersionComparator, AFurtherComponentIsNewer) {
    expectOlder("1.0", "1.0.1");
    expectOlder("2", "2.0.1");
}

#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include "updates/AppUpdaterControllerDelegate.h"

TEST(BuildAwareVersionDisplayer, BothInstalledAndOfferedBuildsShowTheirBuildNumbers) {
    kelvo::AppUpdaterControllerDelegate delegate;
    const auto& displayer = delegate.standardUserDriverRequestsVersionDisplayer();
    EXPECT_EQ(&displayer, &delegate.versionDisplayer);
    kelvo::AppcastItem update;
    update.version = QStringLiteral("344");
    update.shortVersion = QStringLiteral("0.2.0");
    QString installed = QStringLiteral("0.1.0");
    EXPECT_EQ(displayer.formatUpdateVersion(update, installed, QStringLiteral("343")),
              QStringLiteral("0.2.0 (344)"));
    EXPECT_EQ(installed, QStringLiteral("0.1.0 (343)"));
}

TEST(BuildAwareVersionDisplayer, BundleDisplayVersionCarriesTheBuild) {
    kelvo::BuildAwareVersionDisplayer displayer;
    EXPECT_EQ(displayer.formatBundleDisplayVersion(QStringLiteral("1.0"), QStringLiteral("42")),
              QStringLiteral("1.0 (42)"));
}

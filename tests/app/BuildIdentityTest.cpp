#include <gtest/gtest.h>

#include "app/BuildIdentity.h"

using namespace kelvo;

namespace {

BuildIdentity sample() {
    BuildIdentity identity;
    identity.shortVersion = QStringLiteral("0.1.0");
    identity.build = QStringLiteral("42");
    identity.backend = QStringLiteral("hybrid");
    identity.helper = QStringLiteral("1.3");
    identity.fingerprint = QStringLiteral("size=10,mtime=20");
    identity.bundlePath = QStringLiteral("/opt/kelvo/bin");
    identity.stamp = QStringLiteral("05/06 07:08:09");
    return identity;
}

TEST(AppRuntimeBuildIdentity, SummaryNamesEveryPartInOneLine) {
    EXPECT_EQ(sample().summary(),
              QStringLiteral("app 0.1.0 (42), backend hybrid, helper 1.3, exe size=10,mtime=20, "
                             "bundle /opt/kelvo/bin"));
}

TEST(AppRuntimeBuildIdentity, DashboardLabelAndDetail) {
    EXPECT_EQ(sample().versionLabel(), QStringLiteral("Build 0.1.0 (42) \u2022 05/06 07:08:09"));
    EXPECT_EQ(sample().versionDetail(), QStringLiteral("Backend hybrid \u2022 Helper 1.3"));
}

}  // namespace

// kelvo's command line as a user types it: help and version answer, a flag Kelvo does not know is
// an error that names it, the older flag names still work, and what the program reads carries the
// names it checks.
#include <gtest/gtest.h>

#include "app_common/KelvoCommandLine.h"

namespace kelvo {
namespace {

KelvoCommandLine parse(QStringList arguments) {
    arguments.prepend(QStringLiteral("kelvo"));
    return KelvoCommandLine::parse(arguments);
}

TEST(KelvoCommandLine, HelpListsEveryFlagAUserNeedsWithASentenceEach) {
    for (const char* asked : {"--help", "-h"}) {
        const KelvoCommandLine line = parse({QString::fromLatin1(asked)});
        ASSERT_EQ(line.outcome, KelvoCommandLine::Outcome::help) << asked;
        for (const char* flag :
             {"--headless", "--mode MODE", "--simulated-fans", "--helper-only-fans",
              "--hwmon-only-fans", "--hwmon-fallback", "--sysfs-root PATH", "--helper-socket PATH",
              "--metrics-listen ADDRESS", "--allow-external-control", "--autostart on|off",
              "--capture", "--capture-notes TEXT", "--version", "-h, --help"})
            EXPECT_TRUE(line.text.contains(QString::fromLatin1(flag))) << flag;
        EXPECT_TRUE(line.text.startsWith(QStringLiteral("usage: kelvo")))
            << line.text.toStdString();
        EXPECT_TRUE(line.text.contains(QStringLiteral("quietHybrid")));
        // Developer flags stay out of a user's help.
        EXPECT_FALSE(line.text.contains(QStringLiteral("adaptive-refresh")));
    }
}

TEST(KelvoCommandLine, VersionNamesTheBuild) {
    const KelvoCommandLine line = parse({QStringLiteral("--version")});
    ASSERT_EQ(line.outcome, KelvoCommandLine::Outcome::version);
    EXPECT_EQ(line.text, QStringLiteral("kelvo " KELVO_VERSION_STRING
                                        " (build " KELVO_BUILD_NUMBER_STRING ")"));
}

TEST(KelvoCommandLine, AFlagKelvoDoesNotKnowIsAnErrorThatNamesIt) {
    for (const char* typed : {"--bogus", "--harness-simulated-fan", "--headles", "-x"}) {
        const KelvoCommandLine line = parse({QString::fromLatin1(typed)});
        EXPECT_EQ(line.outcome, KelvoCommandLine::Outcome::error) << typed;
        const QString name = QString::fromLatin1(typed).mid(typed[1] == '-' ? 2 : 1);
        EXPECT_TRUE(line.text.contains(QLatin1Char('\'') + name + QLatin1Char('\'')))
            << typed << ": " << line.text.toStdString();
    }
    const KelvoCommandLine stray = parse({QStringLiteral("--headless"), QStringLiteral("quiet")});
    EXPECT_EQ(stray.outcome, KelvoCommandLine::Outcome::error);
    EXPECT_TRUE(stray.text.contains(QStringLiteral("'quiet'"))) << stray.text.toStdString();
    const KelvoCommandLine noValue = parse({QStringLiteral("--mode")});
    EXPECT_EQ(noValue.outcome, KelvoCommandLine::Outcome::error);
}

TEST(KelvoCommandLine, ModeTakesTheModesByNameInAnyCaseAndRefusesAnythingElse) {
    const std::pair<const char*, ControlMode> accepted[] = {
        {"system", ControlMode::systemAuto},
        {"systemAuto", ControlMode::systemAuto},
        {"quiet", ControlMode::quiet},
        {"quietHybrid", ControlMode::quietHybrid},
        {"quiet-hybrid", ControlMode::quietHybrid},
        {"PERFORMANCE", ControlMode::performance}};
    for (const auto& [typed, mode] : accepted) {
        const KelvoCommandLine line = parse({QStringLiteral("--mode"), QString::fromLatin1(typed)});
        ASSERT_EQ(line.outcome, KelvoCommandLine::Outcome::run) << typed;
        ASSERT_TRUE(line.mode.has_value()) << typed;
        EXPECT_EQ(*line.mode, mode) << typed;
    }
    const KelvoCommandLine joined = parse({QStringLiteral("--mode=quiet")});
    ASSERT_TRUE(joined.mode.has_value());
    EXPECT_EQ(*joined.mode, ControlMode::quiet);
    const KelvoCommandLine loud = parse({QStringLiteral("--mode"), QStringLiteral("loud")});
    EXPECT_EQ(loud.outcome, KelvoCommandLine::Outcome::error);
    EXPECT_TRUE(loud.text.contains(QStringLiteral("'loud'")));
    EXPECT_TRUE(loud.text.contains(QStringLiteral("quietHybrid")));
    EXPECT_FALSE(parse({QStringLiteral("--headless")}).mode.has_value());
}

TEST(KelvoCommandLine, NewAndEarlierFlagNamesReachTheProgramUnderTheNamesItChecks) {
    const KelvoCommandLine fresh =
        parse({QStringLiteral("--simulated-fans"), QStringLiteral("--hwmon-fallback"),
               QStringLiteral("--sysfs-root"), QStringLiteral("/tmp/root"),
               QStringLiteral("--metrics-listen=[::1]:9464"), QStringLiteral("--headless")});
    ASSERT_EQ(fresh.outcome, KelvoCommandLine::Outcome::run) << fresh.text.toStdString();
    EXPECT_TRUE(fresh.headless);
    EXPECT_EQ(
        fresh.arguments,
        (QStringList{QStringLiteral("kelvo"), QStringLiteral("--headless"),
                     QStringLiteral("--harness-simulated-fans"), QStringLiteral("--hybrid-fans"),
                     QStringLiteral("--sysfs-root"), QStringLiteral("/tmp/root"),
                     QStringLiteral("--metrics-listen"), QStringLiteral("[::1]:9464")}));
    const KelvoCommandLine earlier =
        parse({QStringLiteral("--harness-simulated-fans"), QStringLiteral("--local-only-fans")});
    ASSERT_EQ(earlier.outcome, KelvoCommandLine::Outcome::run) << earlier.text.toStdString();
    EXPECT_EQ(earlier.arguments,
              (QStringList{QStringLiteral("kelvo"), QStringLiteral("--harness-simulated-fans"),
                           QStringLiteral("--local-only-fans")}));
    const KelvoCommandLine helperOnly = parse({QStringLiteral("--helper-only-fans")});
    ASSERT_EQ(helperOnly.arguments.size(), 2);
    const KelvoCommandLine helperOnlyEarlier = parse({helperOnly.arguments[1]});
    EXPECT_EQ(helperOnlyEarlier.arguments, helperOnly.arguments)
        << "the earlier name of --helper-only-fans is accepted and read the same";
}

TEST(KelvoCommandLine, QtsOwnOptionsAreLeftToQt) {
    const KelvoCommandLine line = parse({QStringLiteral("-platform"), QStringLiteral("offscreen"),
                                         QStringLiteral("-reverse"), QStringLiteral("--headless")});
    ASSERT_EQ(line.outcome, KelvoCommandLine::Outcome::run) << line.text.toStdString();
    EXPECT_EQ(line.arguments, (QStringList{QStringLiteral("kelvo"), QStringLiteral("--headless")}));
}

TEST(KelvoCommandLine, AutostartTakesOnOrOff) {
    EXPECT_EQ(parse({QStringLiteral("--autostart"), QStringLiteral("on")}).outcome,
              KelvoCommandLine::Outcome::run);
    const KelvoCommandLine maybe = parse({QStringLiteral("--autostart"), QStringLiteral("maybe")});
    EXPECT_EQ(maybe.outcome, KelvoCommandLine::Outcome::error);
    EXPECT_TRUE(maybe.text.contains(QStringLiteral("'maybe'")));
}

}  // namespace
}  // namespace kelvo

// A sleep logind announces and then does not bring: Kelvo waits a bounded, awake time for it,
// says so, and takes the fans back; a wake in time cancels the wait.
#include <gtest/gtest.h>

#include <QSettings>
#include <QTemporaryDir>
#include <chrono>
#include <vector>

#include "app/AppRuntime.h"
#include "app/SleepWatcher.h"
#include "tests/EventLoopWait.h"
#include "tests/PrivateHome.h"

using namespace kelvo;
using namespace std::chrono_literals;
using kelvo::testing::processFor;
using kelvo::testing::waitFor;

namespace {

struct Seen {
    std::vector<bool> changes;
    int neverCame = 0;
};

SleepWatcher::Callbacks recordInto(Seen& seen) {
    SleepWatcher::Callbacks callbacks;
    callbacks.changed = [&seen](bool sleeping) { seen.changes.push_back(sleeping); };
    callbacks.sleepNeverCame = [&seen](std::chrono::milliseconds) { ++seen.neverCame; };
    return callbacks;
}

TEST(SleepWatcher, ASleepThatNeverComesGivesControlBackAndSaysSo) {
    Seen seen;
    SleepWatcher watcher(recordInto(seen), 100ms);
    watcher.onPrepareForSleep(true);
    EXPECT_TRUE(watcher.sleeping());
    ASSERT_TRUE(waitFor([&] { return seen.changes.size() == 2; }));
    EXPECT_EQ(seen.changes, (std::vector<bool>{true, false}));
    EXPECT_EQ(seen.neverCame, 1);
    EXPECT_FALSE(watcher.sleeping());
    // A wake that arrives late changes nothing more.
    watcher.onPrepareForSleep(false);
    EXPECT_EQ(seen.changes.size(), 2u);
}

TEST(SleepWatcher, AWakeInTimeEndsTheWait) {
    Seen seen;
    SleepWatcher watcher(recordInto(seen), 300ms);
    watcher.onPrepareForSleep(true);
    watcher.onPrepareForSleep(false);
    processFor(900);
    EXPECT_EQ(seen.changes, (std::vector<bool>{true, false}));
    EXPECT_EQ(seen.neverCame, 0);
}

TEST(SleepWatcher, RepeatedAnnouncementsAreOne) {
    Seen seen;
    SleepWatcher watcher(recordInto(seen), 100ms);
    for (int i = 0; i < 1000; ++i) watcher.onPrepareForSleep(true);
    ASSERT_TRUE(waitFor([&] { return seen.neverCame == 1; }));
    processFor(300);
    EXPECT_EQ(seen.changes, (std::vector<bool>{true, false}));
    EXPECT_EQ(seen.neverCame, 1);
}

class SleepRuntime : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home.isValid());
        settings = kelvo::testing::enterPrivateHome(home);
    }
    QTemporaryDir home;
    std::unique_ptr<QSettings> settings;
};

TEST_F(SleepRuntime, KelvoResumesControlWithAnEventWhenTheSleepNeverComes) {
    AppRuntimeOptions options;
    options.arguments = {QStringLiteral("--harness-simulated-fans")};
    options.settings = settings.get();
    options.loopConfig.tickSeconds = 0.25;
    options.sleepNeverCameAfter = 300ms;
    AppRuntime runtime(options);
    ASSERT_TRUE(waitFor([&] { return runtime.startupFinished(); }));
    ASSERT_NE(runtime.sleepWatcher(), nullptr);
    runtime.sleepWatcher()->onPrepareForSleep(true);
    auto position = [&](const std::string& text) {
        const auto events = runtime.eventRing().recent(160);
        for (std::size_t i = 0; i < events.size(); ++i)
            if (events[i].message.find(text) != std::string::npos) return static_cast<int>(i);
        return -1;
    };
    ASSERT_TRUE(waitFor([&] { return position("Fan control resumed after sleep") >= 0; }))
        << "no resume";
    const int slept = position("Fans handed to the firmware for sleep");
    const int neverCame = position("announced a sleep that never came");
    const int resumed = position("Fan control resumed after sleep");
    EXPECT_GE(slept, 0);
    EXPECT_GE(neverCame, 0);
    const auto events = runtime.eventRing().recent(160);
    ASSERT_GE(neverCame, 0);
    EXPECT_TRUE(events[static_cast<std::size_t>(neverCame)].isFailure);
    // In the order they happened, whichever way the ring lists them.
    EXPECT_TRUE((slept < neverCame && neverCame < resumed) ||
                (slept > neverCame && neverCame > resumed));
    runtime.shutdown();
}

}  // namespace

// FanSettingsChanged needs no permission, so anyone may send thousands: Kelvo re-reads the
// settings a bounded number of times, records one event for the burst with its count, and the
// last change before the burst ended is the one in force.
#include <gtest/gtest.h>

#include <QDBusMessage>
#include <QMetaObject>
#include <QSettings>
#include <QTemporaryDir>

#include "app/AppRuntime.h"
#include "app_common/FanSettings.h"
#include "tests/EventLoopWait.h"
#include "tests/PrivateHome.h"

using namespace kelvo;
using kelvo::testing::processFor;
using kelvo::testing::waitFor;

namespace {

class FanSettingsFlood : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home.isValid());
        settings = kelvo::testing::enterPrivateHome(home);
    }
    // What the session bus delivers: the bridge's own slot, as the bus would call it.
    static void deliver(ExternalControlBridge* bridge, int times) {
        const auto message =
            QDBusMessage::createSignal(ExternalControl::objectPath, ExternalControl::interfaceName,
                                       ExternalControl::fanSettingsChangedNotificationName);
        for (int i = 0; i < times; ++i)
            QMetaObject::invokeMethod(bridge, "onFanSettingsChanged", Qt::DirectConnection,
                                      Q_ARG(QDBusMessage, message));
    }
    static int reReadEvents(AppRuntime& runtime) {
        int count = 0;
        for (const auto& e : runtime.eventRing().recent(160))
            count += e.message.find("re-read from the settings") != std::string::npos ? 1 : 0;
        return count;
    }
    QTemporaryDir home;
    std::unique_ptr<QSettings> settings;
};

TEST_F(FanSettingsFlood, AFloodIsOneEventAndTheLastChangeApplies) {
    AppRuntimeOptions options;
    options.arguments = {QStringLiteral("--harness-simulated-fans")};
    options.settings = settings.get();
    options.loopConfig.tickSeconds = 0.25;
    AppRuntime runtime(options);
    ASSERT_TRUE(waitFor([&] { return runtime.startupFinished(); }));
    // The watch on the session bus, whether or not this test has one.
    ExternalControlBridge* bridge = runtime.fanSettingsWatch();
    ASSERT_NE(bridge, nullptr);

    fan_settings::writeLimit(*settings, UserLimitKind::cpuQuiet, 70);
    deliver(bridge, 5000);
    QCoreApplication::processEvents();
    fan_settings::writeLimit(*settings, UserLimitKind::cpuQuiet, 75);
    deliver(bridge, 5000);

    ASSERT_TRUE(waitFor([&] { return runtime.fanSettings()->cpuQuietLimit() == 75; }));
    ASSERT_TRUE(waitFor([&] { return reReadEvents(runtime) >= 1; }));
    processFor(1500);  // anything still to come
    EXPECT_EQ(reReadEvents(runtime), 1);
    EXPECT_EQ(runtime.fanSettings()->cpuQuietLimit(), 75);
    bool counted = false;
    for (const auto& e : runtime.eventRing().recent(160))
        counted |= e.message.find("10000 change notices") != std::string::npos;
    EXPECT_TRUE(counted);
    runtime.shutdown();
}

TEST_F(FanSettingsFlood, ALoneNoticeIsReadAndRecordedOnce) {
    AppRuntimeOptions options;
    options.arguments = {QStringLiteral("--harness-simulated-fans")};
    options.settings = settings.get();
    options.loopConfig.tickSeconds = 0.25;
    AppRuntime runtime(options);
    ASSERT_TRUE(waitFor([&] { return runtime.startupFinished(); }));
    ExternalControlBridge* bridge = runtime.fanSettingsWatch();
    ASSERT_NE(bridge, nullptr);
    fan_settings::writeLimit(*settings, UserLimitKind::cpuQuiet, 72);
    deliver(bridge, 1);
    ASSERT_TRUE(waitFor([&] { return runtime.fanSettings()->cpuQuietLimit() == 72; }));
    ASSERT_TRUE(waitFor([&] { return reReadEvents(runtime) == 1; }));
    processFor(800);
    EXPECT_EQ(reReadEvents(runtime), 1);
    runtime.shutdown();
}

}  // namespace

#include <gtest/gtest.h>

#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>

#include "app/ControlModeStore.h"

using namespace kelvo;

namespace {

class ControlModeStoreTest : public ::testing::Test {
protected:
    QString stored() { return settings.value(QStringLiteral("kelvo.control.mode")).toString(); }
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("k.conf")), QSettings::IniFormat};
};

TEST_F(ControlModeStoreTest, StartsFromThePersistedModeOrSystem) {
    EXPECT_EQ(ControlModeStore(&settings).mode(), ControlMode::systemAuto);
    settings.setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("quietHybrid"));
    ControlModeStore store(&settings);
    EXPECT_EQ(store.mode(), ControlMode::quietHybrid);
    EXPECT_EQ(store.modeRawValue(), QStringLiteral("quietHybrid"));
    settings.setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("turbo"));
    EXPECT_EQ(ControlModeStore(&settings).mode(), ControlMode::systemAuto);
}

TEST_F(ControlModeStoreTest, SelectionSignalsOnlyAChangeAndIsWrittenThrough) {
    ControlModeStore store(&settings);
    QSignalSpy changed(&store, &ControlModeStore::modeChanged);
    store.select(ControlMode::performance);
    EXPECT_EQ(changed.count(), 1);
    EXPECT_EQ(store.mode(), ControlMode::performance);
    EXPECT_EQ(stored(), QStringLiteral("performance"));
    EXPECT_EQ(store.property("mode").toString(), QStringLiteral("performance"));
    // Someone edits the file; selecting the same mode again puts it back without a signal.
    settings.setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("quiet"));
    store.select(ControlMode::performance);
    EXPECT_EQ(changed.count(), 1);
    EXPECT_EQ(stored(), QStringLiteral("performance"));
}

TEST_F(ControlModeStoreTest, NextLaunchStartsWhereThisOneStopped) {
    {
        ControlModeStore store(&settings);
        store.select(ControlMode::quiet);
    }
    QSettings reopened(settings.fileName(), QSettings::IniFormat);
    EXPECT_EQ(ControlModeStore::restoredMode(reopened), ControlMode::quiet);
}

}  // namespace

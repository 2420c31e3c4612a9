// Test main for the areas whose code needs a Qt core application object (stores, coroutine
// helpers, the capture coordinator); every test also runs with its own data and config homes so
// that nothing touches the user's files.
#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>

int main(int argc, char** argv) {
    QTemporaryDir home;
    if (!home.isValid()) return 1;
    qputenv("XDG_DATA_HOME", QDir(home.path()).filePath(QStringLiteral("data")).toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", QDir(home.path()).filePath(QStringLiteral("config")).toLocal8Bit());
    qunsetenv("KELVO_REPO_ROOT");

    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

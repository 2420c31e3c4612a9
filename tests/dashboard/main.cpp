// Dashboard tests measure text, which needs a GUI application; the offscreen platform is enough
// for font metrics. Each run gets its own data and config homes, so that a runtime built here
// never touches the user's files.
#include <gtest/gtest.h>

#include <QDir>
#include <QGuiApplication>
#include <QTemporaryDir>

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QTemporaryDir home;
    if (!home.isValid()) return 1;
    qputenv("XDG_DATA_HOME", QDir(home.path()).filePath(QStringLiteral("data")).toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", QDir(home.path()).filePath(QStringLiteral("config")).toLocal8Bit());
    qunsetenv("KELVO_REPO_ROOT");
    QGuiApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

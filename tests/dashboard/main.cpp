// Dashboard tests measure text, which needs a GUI application; the offscreen platform is enough.
#include <gtest/gtest.h>

#include <QGuiApplication>

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

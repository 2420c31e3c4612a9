// Test main for the areas that draw real windows (the trend chart, the dashboard, the update
// windows): they run on X11 through Mesa's software OpenGL. Without a display a private Xvfb server
// is started (and stopped at exit), so the tests run the same from ctest, a terminal or CI.
// Listing the tests needs no display at all.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QTemporaryDir>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

pid_t xvfbPid = -1;

void stopXvfb() {
    if (xvfbPid <= 0) return;
    ::kill(xvfbPid, SIGTERM);
    ::waitpid(xvfbPid, nullptr, 0);
    xvfbPid = -1;
}

// The private screen: KELVO_TEST_SCREEN where a test run asks for a particular one, as
// WIDTHxHEIGHT with an optional "@SCALE" (e.g. "1366x768@2"), else 1024x768 at scale 1.
struct TestScreen {
    std::string geometry = "1024x768";
    int scale = 1;
};

TestScreen testScreen() {
    TestScreen screen;
    const char* wanted = std::getenv("KELVO_TEST_SCREEN");
    int width = 0;
    int height = 0;
    int scale = 1;
    if (!wanted) return screen;
    const int fields = std::sscanf(wanted, "%dx%d@%d", &width, &height, &scale);
    if (fields < 2 || width < 320 || height < 240 || width > 8192 || height > 8192) return screen;
    screen.geometry = std::to_string(width) + "x" + std::to_string(height);
    if (fields == 3 && scale >= 1 && scale <= 4) screen.scale = scale;
    return screen;
}

// Starts Xvfb on a display it picks itself (-displayfd), so parallel runs never collide.
bool startXvfb() {
    int fds[2];
    if (::pipe(fds) != 0) return false;
    xvfbPid = ::fork();
    if (xvfbPid < 0) return false;
    if (xvfbPid == 0) {
        ::close(fds[0]);
        const std::string fd = std::to_string(fds[1]);
        const std::string screen = testScreen().geometry + "x24";
        ::execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", screen.c_str(),
                 "-nolisten", "tcp", "-noreset", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(fds[1]);
    std::string display;
    char c;
    while (::read(fds[0], &c, 1) == 1 && c != '\n') display.push_back(c);
    ::close(fds[0]);
    if (display.empty()) return false;
    ::setenv("DISPLAY", (":" + display).c_str(), 1);
    // Tests that start a window manager or a panel do so only on a display of their own.
    ::setenv("KELVO_TEST_PRIVATE_DISPLAY", "1", 1);
    std::atexit(stopXvfb);
    return true;
}

bool listingOnly(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--gtest_list_tests") == 0) return true;
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (listingOnly(argc, argv)) return RUN_ALL_TESTS();
    const char* display = std::getenv("DISPLAY");
    if ((!display || !*display) && !startXvfb()) {
        std::fprintf(stderr, "%s: no display and Xvfb could not start\n", argv[0]);
        return 1;
    }
    if (const int scale = testScreen().scale; scale != 1)
        qputenv("QT_SCALE_FACTOR", QByteArray::number(scale));
    qputenv("QT_QPA_PLATFORM", "xcb");
    qputenv("LIBGL_ALWAYS_SOFTWARE", "1");
    QTemporaryDir home;
    if (!home.isValid()) return 1;
    qputenv("XDG_DATA_HOME", QDir(home.path()).filePath(QStringLiteral("data")).toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", QDir(home.path()).filePath(QStringLiteral("config")).toLocal8Bit());
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    const int result = RUN_ALL_TESTS();
    stopXvfb();
    return result;
}

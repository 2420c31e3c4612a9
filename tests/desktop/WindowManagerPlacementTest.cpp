// The dashboard under a window manager that decorates its windows and a panel that reserves a
// strip of the screen (openbox and tint2, as Debian ships them): the title bar and the whole
// frame open inside the work area, not above the screen or under the panel.
#include <QGuiApplication>
#include <QProcess>
#include <QScreen>
#include <QStandardPaths>

#include "DesktopTestSupport.h"

namespace kelvo::testing {
namespace {

class WindowManagerPlacement : public DesktopFixture {
protected:
    void SetUp() override {
        DesktopFixture::SetUp();
        if (qgetenv("KELVO_TEST_PRIVATE_DISPLAY") != "1")
            GTEST_SKIP() << "starts a window manager: only on the test's own Xvfb";
        for (const char* program : {"openbox", "tint2"})
            if (QStandardPaths::findExecutable(QString::fromLatin1(program)).isEmpty())
                GTEST_SKIP() << program << " is not installed (scripts/setup-tests.sh)";
        start(windowManager, QStringLiteral("openbox"), {});
        start(panel, QStringLiteral("tint2"), {});
    }
    void TearDown() override {
        DesktopFixture::TearDown();
        for (QProcess* process : {&panel, &windowManager}) {
            process->terminate();
            if (!process->waitForFinished(5000)) process->kill();
            process->waitForFinished(5000);
        }
    }
    static void start(QProcess& process, const QString& program, const QStringList& args) {
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program, args);
        ASSERT_TRUE(process.waitForStarted(10000)) << program.toStdString();
    }
    static QRect workArea() { return QGuiApplication::primaryScreen()->availableGeometry(); }
    static QRect screenArea() { return QGuiApplication::primaryScreen()->geometry(); }

    QProcess windowManager;
    QProcess panel;
};

TEST_F(WindowManagerPlacement, TheFrameOpensInsideTheWorkArea) {
    // The panel's strut reaches Qt through the window manager's _NET_WORKAREA.
    ASSERT_TRUE(waitFor([] { return workArea().height() < screenArea().height(); }, 30000))
        << "the panel reserved no space; openbox: " << windowManager.readAll().toStdString()
        << " tint2: " << panel.readAll().toStdString();
    openDashboard();
    const auto describe = [this] {
        const QRect frame = window()->frameGeometry();
        const QRect area = workArea();
        return QStringLiteral("frame %1,%2 %3x%4, margins top %5, work area %6,%7 %8x%9")
            .arg(frame.x())
            .arg(frame.y())
            .arg(frame.width())
            .arg(frame.height())
            .arg(window()->frameMargins().top())
            .arg(area.x())
            .arg(area.y())
            .arg(area.width())
            .arg(area.height())
            .toStdString();
    };
    // Decorated: the window manager's title bar is part of the frame.
    ASSERT_TRUE(waitFor([this] { return window()->frameMargins().top() > 0; }, 30000))
        << describe();
    EXPECT_TRUE(waitFor([this] { return workArea().contains(window()->frameGeometry()); }, 30000))
        << describe();
    EXPECT_GE(window()->frameGeometry().top(), workArea().top()) << describe();
    EXPECT_LE(window()->frameGeometry().bottom(), workArea().bottom()) << describe();
}

}  // namespace
}  // namespace kelvo::testing

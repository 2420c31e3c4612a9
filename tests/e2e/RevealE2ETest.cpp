// Showing an export: the file manager's D-Bus service selects it; without that service the
// folder holding it is opened with the desktop's default handler (xdg-open).
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QUrl>

#include "capture/FileManagerReveal.h"
#include "tests/EventLoopWait.h"

namespace {

class FakeFileManager : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")
public:
    QStringList shown;
public slots:
    void ShowItems(const QStringList& uris, const QString&) { shown << uris; }
};

using kelvo::testing::waitFor;

TEST(Reveal, TheFileManagerSelectsTheBundle) {
    auto bus = QDBusConnection::sessionBus();
    ASSERT_TRUE(bus.isConnected());
    FakeFileManager manager;
    ASSERT_TRUE(bus.registerObject(QStringLiteral("/org/freedesktop/FileManager1"), &manager,
                                   QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(bus.registerService(QStringLiteral("org.freedesktop.FileManager1")));
    QTemporaryDir dir;
    const QString bundle = dir.filePath(QStringLiteral("20260101-000000.kelvocapture"));
    kelvo::revealInFileManager(bundle);
    EXPECT_TRUE(waitFor([&] { return !manager.shown.isEmpty(); }));
    EXPECT_EQ(manager.shown, QStringList{QUrl::fromLocalFile(bundle).toString()});
    bus.unregisterService(QStringLiteral("org.freedesktop.FileManager1"));
    bus.unregisterObject(QStringLiteral("/org/freedesktop/FileManager1"));
}

TEST(Reveal, WithoutAFileManagerTheFolderIsOpened) {
    auto bus = QDBusConnection::sessionBus();
    ASSERT_FALSE(
        bus.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.FileManager1")));
    // A stand-in xdg-open that records what it was asked to open.
    QTemporaryDir tools;
    const QString record = tools.filePath(QStringLiteral("opened.txt"));
    QFile script(tools.filePath(QStringLiteral("xdg-open")));
    ASSERT_TRUE(script.open(QIODevice::WriteOnly));
    script.write(QStringLiteral("#!/bin/sh\nprintf '%s' \"$1\" > '%1'\n").arg(record).toUtf8());
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", tools.path().toUtf8() + ":" + path);
    QTemporaryDir exports;
    kelvo::revealInFileManager(exports.filePath(QStringLiteral("20260101-000000")));
    const bool opened = waitFor([&] { return QFile::exists(record); });
    qputenv("PATH", path);
    ASSERT_TRUE(opened);
    ASSERT_TRUE(waitFor([&] {
        QFile f(record);
        return f.open(QIODevice::ReadOnly) && !f.readAll().isEmpty();
    }));
    QFile f(record);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(f.readAll()), QDir(exports.path()).absolutePath());
}

}  // namespace

#include "RevealE2ETest.moc"

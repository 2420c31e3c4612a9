// Shared by the trend render tests: snapshots with known content, fake clocks, and pixel
// helpers that keep the frames of a failing test as PNG files.
#pragma once

#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImage>
#include <QQuickWindow>
#include <functional>

#include "dashboard/FixedViewportTrendSnapshot.h"

namespace kelvo::test {

struct FakeClocks {
    Timestamp wall = 1'700'000'000;
    double media = 100;
};

inline FixedViewportTrendSnapshot snapshotEndingAt(Timestamp reference, double windowSeconds = 60,
                                                   double revealSeconds = 1) {
    FixedViewportTrendSnapshot snapshot;
    snapshot.viewportDomain =
        FixedViewportTrendViewportDomain::make(reference, windowSeconds, revealSeconds);
    snapshot.liveRevealDurationSeconds = revealSeconds;
    return snapshot;
}

// Processes events until `done` holds or `ms` pass; returns whether it held.
inline bool waitUntil(const std::function<bool()>& done, int ms = 3000) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > ms) return false;
        QGuiApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

inline void processFor(int ms) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) QGuiApplication::processEvents(QEventLoop::AllEvents, 5);
}

// Where frames of failing pixel tests go.
inline QString failureFramePath(const QString& name) {
    const QString dir = QStringLiteral(KELVO_BINARY_DIR "/test-artifacts/trend_render");
    QDir().mkpath(dir);
    return dir + QLatin1Char('/') + name + QStringLiteral(".png");
}

// Saves `frame` when the current test has failed so far.
inline void keepFrameIfFailed(const QImage& frame, const QString& name) {
    if (!::testing::Test::HasFailure()) return;
    const QString path = failureFramePath(name);
    frame.save(path);
    ADD_FAILURE() << "frame saved to " << path.toStdString();
}

inline bool isRed(QRgb p) {
    return qRed(p) > 180 && qGreen(p) < 90 && qBlue(p) < 90;
}

}  // namespace kelvo::test

// Shared by the trend render tests: snapshots with known content, fake clocks, and pixel
// helpers that keep the frames of a failing test as PNG files.
#pragma once

#include <gtest/gtest.h>

#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QQuickWindow>

#include "dashboard/FixedViewportTrendSnapshot.h"
#include "tests/EventLoopWait.h"

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

using kelvo::testing::processFor;
using kelvo::testing::waitFor;

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

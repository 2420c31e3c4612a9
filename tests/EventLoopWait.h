// Waiting in tests whose work arrives through the Qt event loop: queued calls, timers, finished
// coroutines, rendered frames.
#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <functional>

namespace kelvo::testing {

// Runs the event loop until `condition` holds or `timeoutMs` pass; returns whether it held. The
// timeout only matters when a test fails, so it leaves room for a loaded machine.
inline bool waitFor(const std::function<bool()>& condition, int timeoutMs = 15000) {
    QElapsedTimer timer;
    timer.start();
    while (!condition() && timer.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    return condition();
}

// Runs the event loop for `ms`, for checks that something did not happen meanwhile.
inline void processFor(int ms) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

}  // namespace kelvo::testing

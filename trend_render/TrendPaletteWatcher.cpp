#include "trend_render/TrendPaletteWatcher.h"

#include <QCoreApplication>
#include <QEvent>
#include <QPointer>

namespace kelvo {

TrendPaletteWatcher::TrendPaletteWatcher() : QObject(QCoreApplication::instance()) {
    QCoreApplication::instance()->installEventFilter(this);
}

TrendPaletteWatcher* TrendPaletteWatcher::instance() {
    // Owned by the application object, so it goes (and is made again) with it.
    static QPointer<TrendPaletteWatcher> watcher;
    if (!watcher) watcher = new TrendPaletteWatcher;
    return watcher;
}

bool TrendPaletteWatcher::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::ApplicationPaletteChange &&
        watched == QCoreApplication::instance())
        emit paletteChanged();
    return QObject::eventFilter(watched, event);
}

}  // namespace kelvo

#include "trend_render/TrendPaletteWatcher.h"

#include <QCoreApplication>
#include <QEvent>

namespace kelvo {

TrendPaletteWatcher::TrendPaletteWatcher() : QObject(QCoreApplication::instance()) {
    QCoreApplication::instance()->installEventFilter(this);
}

TrendPaletteWatcher* TrendPaletteWatcher::instance() {
    static TrendPaletteWatcher* watcher = new TrendPaletteWatcher;  // owned by the application
    return watcher;
}

bool TrendPaletteWatcher::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::ApplicationPaletteChange &&
        watched == QCoreApplication::instance())
        emit paletteChanged();
    return QObject::eventFilter(watched, event);
}

}  // namespace kelvo

// Tells the charts when the application palette (light or dark appearance) changes. Qt
// delivers that change to the application object only, so one watcher filters it there for
// every chart.
#pragma once

#include <QObject>

namespace kelvo {

class TrendPaletteWatcher : public QObject {
    Q_OBJECT
public:
    // The process-wide watcher; made on first use, needs the application object.
    static TrendPaletteWatcher* instance();

signals:
    void paletteChanged();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    TrendPaletteWatcher();
};

}  // namespace kelvo

// Follows the updater's canCheckForUpdates for the "Check for Updates…" command.
#pragma once

#include <QObject>
#include <QPointer>

#include "updates/Updater.h"

namespace kelvo {

class CheckForUpdatesViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)
public:
    explicit CheckForUpdatesViewModel(Updater& updater, QObject* parent = nullptr);

    bool canCheckForUpdates() const { return canCheckForUpdates_; }

signals:
    void canCheckForUpdatesChanged(bool canCheck);

private:
    void setCanCheckForUpdates(bool canCheck);

    bool canCheckForUpdates_ = false;
};

}  // namespace kelvo

#include "updates/CheckForUpdatesViewModel.h"

namespace kelvo {

CheckForUpdatesViewModel::CheckForUpdatesViewModel(Updater& updater, QObject* parent)
    : QObject(parent), canCheckForUpdates_(updater.canCheckForUpdates()) {
    // Queued: changes arrive on the main thread's event loop, after the updater's own step.
    connect(&updater, &Updater::canCheckForUpdatesChanged, this,
            &CheckForUpdatesViewModel::setCanCheckForUpdates, Qt::QueuedConnection);
}

void CheckForUpdatesViewModel::setCanCheckForUpdates(bool canCheck) {
    if (canCheckForUpdates_ == canCheck) return;
    canCheckForUpdates_ = canCheck;
    emit canCheckForUpdatesChanged(canCheck);
}

}  // namespace kelvo

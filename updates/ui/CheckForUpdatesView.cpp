#include "updates/ui/CheckForUpdatesView.h"

namespace kelvo {

CheckForUpdatesView::CheckForUpdatesView(Updater& updater, QObject* parent)
    : QObject(parent), updater_(updater), viewModel_(updater) {
    action_.setText(QStringLiteral("Check for Updates\u2026"));
    action_.setEnabled(viewModel_.canCheckForUpdates());
    connect(&viewModel_, &CheckForUpdatesViewModel::canCheckForUpdatesChanged, &action_,
            &QAction::setEnabled);
    connect(&action_, &QAction::triggered, this, [this] { updater_.checkForUpdates(); });
}

}  // namespace kelvo

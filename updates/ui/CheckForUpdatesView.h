// The "Check for Updates…" command as an action for any menu: it starts a check and is disabled
// while the updater cannot check (a check or install is running, or no feed is configured).
#pragma once

#include <QAction>
#include <QObject>

#include "updates/CheckForUpdatesViewModel.h"
#include "updates/Updater.h"

namespace kelvo {

class CheckForUpdatesView : public QObject {
    Q_OBJECT
public:
    explicit CheckForUpdatesView(Updater& updater, QObject* parent = nullptr);

    QAction* action() { return &action_; }
    const CheckForUpdatesViewModel& viewModel() const { return viewModel_; }

private:
    Updater& updater_;
    CheckForUpdatesViewModel viewModel_;
    QAction action_;
};

}  // namespace kelvo

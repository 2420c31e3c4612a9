// The update settings window: automatic checks, their frequency, automatic installs and a
// check on demand. Whoever owns the tray opens it with show().
#pragma once

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QWidget>

#include "updates/UpdateCheckIntervalOption.h"
#include "updates/Updater.h"

namespace kelvo {

class UpdaterSettingsView : public QWidget {
    Q_OBJECT
public:
    static constexpr int kWidth = 420;
    static constexpr int kPadding = 20;

    explicit UpdaterSettingsView(Updater& updater, QWidget* parent = nullptr);

    bool automaticallyChecksForUpdates() const { return automaticallyChecks_; }
    bool automaticallyDownloadsUpdates() const { return automaticallyDownloads_; }
    UpdateCheckIntervalOption selectedCheckInterval() const { return selectedInterval_; }

    QCheckBox* automaticCheckToggle() const { return checkToggle_; }
    QComboBox* frequencyPicker() const { return frequencyPicker_; }
    QCheckBox* automaticDownloadToggle() const { return downloadToggle_; }
    QPushButton* checkNowButton() const { return checkNowButton_; }
    QLabel* footnote() const { return footnote_; }
    // Shown only in a build without an update feed (a distribution package), with the reason
    // every update control is disabled.
    QLabel* noFeedNotice() const { return noFeedNotice_; }

private:
    void buildLayout();
    void connectControls();
    void refreshEnabledState();

    Updater& updater_;
    bool automaticallyChecks_;
    bool automaticallyDownloads_;
    UpdateCheckIntervalOption selectedInterval_;
    QCheckBox* checkToggle_ = nullptr;
    QComboBox* frequencyPicker_ = nullptr;
    QCheckBox* downloadToggle_ = nullptr;
    QPushButton* checkNowButton_ = nullptr;
    QLabel* footnote_ = nullptr;
    QLabel* noFeedNotice_ = nullptr;
};

}  // namespace kelvo

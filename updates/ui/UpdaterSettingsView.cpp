#include "updates/ui/UpdaterSettingsView.h"

#include <QFormLayout>
#include <QGroupBox>
#include <QVBoxLayout>

namespace kelvo {

UpdaterSettingsView::UpdaterSettingsView(Updater& updater, QWidget* parent)
    : QWidget(parent),
      updater_(updater),
      automaticallyChecks_(updater.automaticallyChecksForUpdates()),
      automaticallyDownloads_(updater.automaticallyDownloadsUpdates()),
      selectedInterval_(UpdateCheckIntervalOptions::closest(updater.updateCheckInterval())) {
    setWindowTitle(QStringLiteral("Kelvo Settings"));
    buildLayout();
    connectControls();
    refreshEnabledState();
}

void UpdaterSettingsView::buildLayout() {
    checkToggle_ = new QCheckBox(QStringLiteral("Automatically check for updates"));
    checkToggle_->setChecked(automaticallyChecks_);
    frequencyPicker_ = new QComboBox;
    for (auto option : kAllUpdateCheckIntervalOptions)
        frequencyPicker_->addItem(label(option), rawValue(option));
    frequencyPicker_->setCurrentIndex(static_cast<int>(selectedInterval_));
    downloadToggle_ = new QCheckBox(QStringLiteral("Automatically download and install updates"));
    downloadToggle_->setChecked(automaticallyDownloads_);
    checkNowButton_ = new QPushButton(QStringLiteral("Check for Updates Now"));
    footnote_ = new QLabel(QStringLiteral(
        "Kelvo keeps using the existing beta installer for first-time installs and helper "
        "deployment. Kelvo's updater covers app bundle updates after installation."));
    footnote_->setWordWrap(true);
    footnote_->setForegroundRole(QPalette::PlaceholderText);  // the secondary text style
    QFont small = footnote_->font();
    small.setPointSizeF(small.pointSizeF() * 0.9);
    footnote_->setFont(small);

    noFeedNotice_ = new QLabel(QStringLiteral(
        "This build of Kelvo has no update feed: new versions come from your package manager "
        "(sudo apt update && sudo apt upgrade)."));
    noFeedNotice_->setWordWrap(true);
    noFeedNotice_->setVisible(!updater_.hasFeed());

    auto* section = new QGroupBox(QStringLiteral("Updates"));
    auto* form = new QFormLayout(section);
    form->addRow(checkToggle_);
    form->addRow(QStringLiteral("Check frequency"), frequencyPicker_);
    form->addRow(downloadToggle_);
    form->addRow(checkNowButton_);
    form->addRow(noFeedNotice_);
    form->addRow(footnote_);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(kPadding, kPadding, kPadding, kPadding);
    layout->addWidget(section);
    setFixedWidth(kWidth);
}

void UpdaterSettingsView::connectControls() {
    connect(checkToggle_, &QCheckBox::toggled, this, [this](bool on) {
        automaticallyChecks_ = on;
        updater_.setAutomaticallyChecksForUpdates(on);
        refreshEnabledState();
    });
    connect(frequencyPicker_, &QComboBox::currentIndexChanged, this, [this](int index) {
        if (index < 0 || index >= static_cast<int>(kAllUpdateCheckIntervalOptions.size())) return;
        selectedInterval_ = kAllUpdateCheckIntervalOptions[static_cast<std::size_t>(index)];
        updater_.setUpdateCheckInterval(rawValue(selectedInterval_));
    });
    connect(downloadToggle_, &QCheckBox::toggled, this, [this](bool on) {
        automaticallyDownloads_ = on;
        updater_.setAutomaticallyDownloadsUpdates(on);
    });
    connect(checkNowButton_, &QPushButton::clicked, this, [this] { updater_.checkForUpdates(); });
}

void UpdaterSettingsView::refreshEnabledState() {
    // Without a feed a check can only fail: nothing is offered, and the notice says why.
    const bool feed = updater_.hasFeed();
    checkToggle_->setEnabled(feed);
    checkNowButton_->setEnabled(feed);
    frequencyPicker_->setEnabled(feed && automaticallyChecks_);
    downloadToggle_->setEnabled(feed && automaticallyChecks_ && updater_.allowsAutomaticUpdates());
}

}  // namespace kelvo

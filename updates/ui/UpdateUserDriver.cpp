#include "updates/ui/UpdateUserDriver.h"

#include <QPushButton>
#include <QtGlobal>

namespace kelvo {

UpdateUserDriver::UpdateUserDriver(Updater& updater, const AppUpdaterControllerDelegate& delegate,
                                   QObject* parent)
    : QObject(parent), updater_(updater), delegate_(delegate) {
    connect(&updater, &Updater::updateFound, this,
            [this](const AppcastItem& item, bool) { showOffer(item); });
    connect(&updater, &Updater::updateNotFound, this, [this](bool userInitiated) {
        if (!userInitiated) return;
        const auto& displayer = delegate_.standardUserDriverRequestsVersionDisplayer();
        const auto& configuration = updater_.configuration();
        showMessage(QMessageBox::Information, QStringLiteral("You\u2019re up to date!"),
                    QStringLiteral("Kelvo %1 is currently the newest version available.")
                        .arg(displayer.formatBundleDisplayVersion(configuration.displayVersion,
                                                                  configuration.buildVersion)));
    });
    connect(&updater, &Updater::updateFailed, this,
            [this](const QString& message, bool userInitiated) {
                closeProgress();
                if (!userInitiated) {
                    qWarning("kelvo: scheduled update check: %s", qPrintable(message));
                    return;
                }
                showMessage(QMessageBox::Warning, QStringLiteral("Update Error"), message);
            });
    connect(&updater, &Updater::downloadProgress, this, &UpdateUserDriver::showProgress);
    connect(&updater, &Updater::updateInstalled, this, [this](const AppcastItem& item) {
        closeProgress();
        const auto& displayer = delegate_.standardUserDriverRequestsVersionDisplayer();
        showMessage(
            QMessageBox::Information, QStringLiteral("Update Installed"),
            QStringLiteral("Kelvo %1 has been installed. It runs the next time Kelvo "
                           "starts.")
                .arg(displayer.formatBundleDisplayVersion(item.shortVersion, item.version)));
    });
}

QString UpdateUserDriver::offerText(const AppcastItem& item) const {
    const auto& configuration = updater_.configuration();
    QString installed = configuration.displayVersion;
    const QString offered =
        delegate_.standardUserDriverRequestsVersionDisplayer().formatUpdateVersion(
            item, installed, configuration.buildVersion);
    return QStringLiteral("Kelvo %1 is available. You have %2.").arg(offered, installed);
}

void UpdateUserDriver::showOffer(const AppcastItem& item) {
    showMessage(QMessageBox::Information, QStringLiteral("A new version of Kelvo is available!"),
                offerText(item));
    if (item.releaseNotesLink.isValid())
        dialog_->setInformativeText(QStringLiteral("<a href=\"%1\">Release notes</a>")
                                        .arg(item.releaseNotesLink.toString().toHtmlEscaped()));
    QPushButton* install =
        dialog_->addButton(QStringLiteral("Install Update"), QMessageBox::AcceptRole);
    dialog_->addButton(QStringLiteral("Later"), QMessageBox::RejectRole);
    connect(install, &QPushButton::clicked, this, [this, item] { updater_.installUpdate(item); });
}

void UpdateUserDriver::showMessage(QMessageBox::Icon icon, const QString& title,
                                   const QString& text) {
    if (dialog_) dialog_->close();
    auto* box = new QMessageBox(icon, title, text);
    box->setWindowTitle(QStringLiteral("Kelvo Updates"));
    box->setText(
        QStringLiteral("<b>%1</b><br>%2").arg(title.toHtmlEscaped(), text.toHtmlEscaped()));
    box->setTextFormat(Qt::RichText);
    box->setTextInteractionFlags(Qt::TextBrowserInteraction);
    box->setAttribute(Qt::WA_DeleteOnClose);
    dialog_ = box;
    box->show();
}

void UpdateUserDriver::showProgress(qint64 received, qint64 total) {
    if (!progress_) {
        progress_ = new QProgressDialog(QStringLiteral("Downloading the update\u2026"),
                                        QStringLiteral("Cancel"), 0, 1000);
        progress_->setAttribute(Qt::WA_DeleteOnClose);
        progress_->setMinimumDuration(0);
        connect(progress_, &QProgressDialog::canceled, this, [this] {
            updater_.cancel();
            closeProgress();
        });
    }
    progress_->setValue(
        total > 0 ? static_cast<int>(std::min<qint64>(received * 1000 / total, 1000)) : 0);
}

void UpdateUserDriver::closeProgress() {
    if (progress_) progress_->close();
}

}  // namespace kelvo

// The update dialogs: an offered update (install or later), "up to date" and failures of checks
// the user asked for, download progress, and the installed build. Versions are written by the
// delegate's version displayer. Failures of scheduled checks are only logged.
#pragma once

#include <QMessageBox>
#include <QObject>
#include <QPointer>
#include <QProgressDialog>
#include <functional>

#include "updates/AppUpdaterControllerDelegate.h"
#include "updates/Updater.h"

namespace kelvo {

class UpdateUserDriver : public QObject {
    Q_OBJECT
public:
    UpdateUserDriver(Updater& updater, const AppUpdaterControllerDelegate& delegate,
                     QObject* parent = nullptr);

    // The dialog on screen, if any (tests read its texts and press its buttons).
    QMessageBox* currentDialog() const { return dialog_; }
    QProgressDialog* progressDialog() const { return progress_; }

    // "Kelvo 0.2.0 (12) is available. You have 0.1.0 (1)."
    QString offerText(const AppcastItem& item) const;

private:
    void showOffer(const AppcastItem& item);
    void showMessage(QMessageBox::Icon icon, const QString& title, const QString& text);
    void showProgress(qint64 received, qint64 total);
    void closeProgress();

    Updater& updater_;
    const AppUpdaterControllerDelegate& delegate_;
    QPointer<QMessageBox> dialog_;
    QPointer<QProgressDialog> progress_;
};

}  // namespace kelvo

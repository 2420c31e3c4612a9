// What the QML dashboard reads beyond the stores themselves: the public cooling preference, the
// selected surface as text, and the live metrics as ready-made strings. The strings are rebuilt
// only while the dashboard can be seen; a hidden window costs no formatting work.
#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariantMap>

#include "foundation/control/RuntimeBenefitRegisters.h"
#include "foundation/core/Types.h"

namespace kelvo {

class AppRuntime;
class AppPresentationStore;
class LiveDashboardStore;

// The two positions of the cooling-preference slider.
enum class DashboardPublicMode { system, enhanced };
QString rawValue(DashboardPublicMode mode);
DashboardPublicMode publicModeFor(ControlMode mode);
ControlMode controlModeFor(DashboardPublicMode mode);

class DashboardViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString publicMode READ publicMode NOTIFY publicModeChanged)
    Q_PROPERTY(QString selectedSurface READ selectedSurface WRITE setSelectedSurface NOTIFY
                   selectedSurfaceChanged)
    Q_PROPERTY(QVariantMap card READ card NOTIFY cardChanged)
    Q_PROPERTY(QVariantMap advanced READ advanced NOTIFY advancedChanged)
    // How many times the metric strings were rebuilt: a hidden window must leave it still.
    Q_PROPERTY(quint64 refreshCount READ refreshCount NOTIFY cardChanged)
public:
    DashboardViewModel(AppRuntime* runtime, QObject* parent = nullptr);

    QString publicMode() const;
    // Sets the runtime's mode: "system" → systemAuto, "enhanced" → quietHybrid.
    Q_INVOKABLE void setPublicMode(const QString& raw);
    Q_INVOKABLE QString slug(const QString& label) const;
    // What choosing "system" or "enhanced" in the cooling preference does, in a sentence.
    Q_INVOKABLE QString publicModeHelp(const QString& raw) const;

    QString selectedSurface() const;
    void setSelectedSurface(const QString& raw);

    const QVariantMap& card() const { return card_; }
    const QVariantMap& advanced() const { return advanced_; }
    quint64 refreshCount() const { return refreshCount_; }

    // Rebuilds the strings now when the dashboard can be seen.
    void refresh();

    // The benefit line of the live card: "Last 24 Hours: Kelvo in charge 12 min in 1
    // intervention; ...", each count with its noun in the right number.
    static QString benefitText(const RuntimeBenefitSummary& summary);

signals:
    void publicModeChanged();
    void selectedSurfaceChanged();
    void cardChanged();
    void advancedChanged();

private:
    QVariantMap buildCard() const;
    QVariantMap buildAdvanced() const;

    QPointer<AppRuntime> runtime_;
    LiveDashboardStore* live_;
    AppPresentationStore* presentation_;
    QVariantMap card_;
    QVariantMap advanced_;
    quint64 refreshCount_ = 0;
};

}  // namespace kelvo

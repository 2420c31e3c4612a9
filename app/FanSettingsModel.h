// The Fans pane's model: every fan with its live speed and the user's choice for it, and the
// user's limits. Changes are stored in the settings and handed to the engine at once.
#pragma once

#include <QObject>
#include <QSettings>
#include <QString>
#include <QVariantList>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app_common/FanSettings.h"
#include "foundation/control/ControlEngine.h"
#include "foundation/control/UserLimits.h"
#include "foundation/core/FanChoices.h"
#include "foundation/core/FanCoupling.h"
#include "foundation/core/Types.h"

namespace kelvo {

class FanSettingsModel : public QObject {
    Q_OBJECT
    // Each entry: identity, label, title, rpm (-1 when unreadable), choice ("auto", "firmware",
    // "fixed"), fixedPercent, minimumPercent, text (as kelvoctl shows it), pump; stopWhenCool,
    // stopAvailable, stopNote (why the switch is off limits, or what stands in its way), stopped
    // (Kelvo holds it still now); calibrating, calibrationProgress (0-1),
    // calibrationText (progress or the last result), calibrationNote (what calibrating does);
    // problem (why a stored choice that cannot be read is not followed), floorPercent (the
    // helper's floor, 0 when none), heldBack (why the back-end will not drive the fan);
    // coolsMostly ("CPU", "GPU", "CPU and GPU", "" while unknown or 0 % sure),
    // couplingConfidence (0-1, -1 before any answer), couplingText (which die the fan cools, or
    // that it is not measured or not known yet).
    Q_PROPERTY(QVariantList fans READ fans NOTIFY fansChanged)
    Q_PROPERTY(double cpuQuietLimit READ cpuQuietLimit NOTIFY limitsChanged)
    Q_PROPERTY(double gpuQuietLimit READ gpuQuietLimit NOTIFY limitsChanged)
    Q_PROPERTY(double performanceTarget READ performanceTarget NOTIFY limitsChanged)
    Q_PROPERTY(QString limitMessage READ limitMessage NOTIFY limitMessageChanged)
    Q_PROPERTY(bool paneOpen READ paneOpen WRITE setPaneOpen NOTIFY paneOpenChanged)
    // Whether the quiet modes share the work among the fans by what each cools, and why a stored
    // value that cannot be read is not followed (empty when it can).
    Q_PROPERTY(bool shareWork READ shareWork NOTIFY shareWorkChanged)
    Q_PROPERTY(QString shareProblem READ shareProblem NOTIFY shareWorkChanged)
public:
    using Apply = std::function<void(const FanChoices&, const UserLimits&)>;
    using ApplyShare = std::function<void(bool share)>;
    using Calibrate = std::function<void(const std::string& identity)>;

    FanSettingsModel(QSettings* settings, std::string sysRoot, Apply apply,
                     QObject* parent = nullptr);

    const QVariantList& fans() const { return fans_; }
    double cpuQuietLimit() const { return limits_.cpuQuietC; }
    double gpuQuietLimit() const { return limits_.gpuQuietC; }
    double performanceTarget() const { return limits_.performanceTargetC; }
    const QString& limitMessage() const { return limitMessage_; }
    bool paneOpen() const { return paneOpen_; }
    void setPaneOpen(bool open);
    bool shareWork() const { return shareWork_; }
    const QString& shareProblem() const { return shareProblem_; }
    // The sharing switch, stored and handed to the engine at once.
    Q_INVOKABLE void setShareWork(bool share);
    // Hands the sharing switch to the engine with every applyToEngine() and change.
    void setApplyShare(ApplyShare applyShare);
    // Has the engine drop what it measured of which die each fan cools, to measure it again (the
    // pane's button, or kelvoctl's request through the settings). False without an engine.
    Q_INVOKABLE bool measureAgain();
    void setMeasureAgain(std::function<void()> measureAgain) {
        measureAgain_ = std::move(measureAgain);
    }

    const FanChoices& choices() const { return choices_; }
    const UserLimits& limits() const { return limits_; }
    // The user's choices plus a pump's fixed 100 for pumps known only by their hwmon label (the
    // helper's fan list carries no labels).
    FanChoices engineChoices() const;

    // kind: "auto", "firmware" or "fixed" (with `percent`). False when refused.
    Q_INVOKABLE bool setChoice(const QString& identity, const QString& kind, double percent = 0);
    Q_INVOKABLE bool setMinimum(const QString& identity, double percent);
    // The "Stop when cool" switch. False when refused (an unknown fan, a pump).
    Q_INVOKABLE bool setStopWhenCool(const QString& identity, bool stop);
    // Asks the engine to calibrate the fan; the engine's events say how it goes.
    Q_INVOKABLE bool calibrate(const QString& identity);
    void setCalibrate(Calibrate calibrate) { calibrate_ = std::move(calibrate); }
    // Told once about each stored limit that cannot be used (those found before it was set,
    // at once); the pane's limit message says it too.
    using Report = std::function<void(const std::string& message)>;
    void setReport(Report report);
    // What calibrating does, for the pane and kelvoctl.
    static QString calibrationNote();
    // The pane's line on which die the fan cools; a coupling with no shares is not measured yet.
    // `shared`: the quiet mode running now shares the work among the fans by it; `sharing`: the
    // user has not turned the sharing off (without it nothing is measured).
    static QString couplingText(const FanCoupling& coupling, bool shared = false,
                                bool sharing = true);
    // which: "cpu", "gpu" or "performance". False, with limitMessage saying why, when refused.
    Q_INVOKABLE bool setLimit(const QString& which, double valueC);
    // Re-reads the settings file (kelvoctl changed it) and hands the result to the engine; a
    // calibration request kelvoctl left there that has not been acted on goes to the engine.
    Q_INVOKABLE void reload();
    void applyToEngine() const;

    void updateSpeeds(const TelemetrySample& sample);
    // Speeds plus what each fan can do, which Kelvo stopped, the calibrations' progress and
    // which die each fan cools.
    void updateFromSnapshot(const ControlSnapshot& snapshot);

signals:
    void fansChanged();
    void limitsChanged();
    void limitMessageChanged();
    void paneOpenChanged();
    void shareWorkChanged();

private:
    void readLabels();
    void rebuild();
    void setLimitMessage(const QString& message);
    bool store(const std::string& identity, const FanChoice& choice);
    FanState stateOf(const std::string& identity) const;
    void takeCalibrationRequest();
    void takeMeasureAgainRequest();
    UserLimits readStoredLimits();
    void readStoredShare();

    QSettings* settings_;
    std::string sysRoot_;
    Apply apply_;
    ApplyShare applyShare_;
    bool shareWork_ = true;
    QString shareProblem_;
    DieCriticalTemperatures critical_;
    FanChoices choices_;
    UserLimits limits_;
    std::map<std::string, std::string> labels_;  // identity → hwmon label
    std::vector<std::string> names_;             // the fans in display order
    std::map<std::string, double> rpm_;
    std::map<std::string, FanState> states_;  // as the back-end last reported each fan
    std::set<std::string> stopped_;
    std::map<std::string, FanCalibrationStatus> calibrations_;
    std::map<std::string, FanCoupling> couplings_;  // as the engine last reported them
    bool fansShared_ = false;
    Calibrate calibrate_;
    Report report_;
    std::vector<std::string> limitProblems_;  // as last read
    std::optional<fan_settings::CalibrationRequest> handledRequest_;
    std::function<void()> measureAgain_;
    std::optional<QString> handledMeasureAgain_;
    QVariantList fans_;
    QString limitMessage_;
    bool paneOpen_ = false;
};

}  // namespace kelvo

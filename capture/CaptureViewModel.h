// What the dashboard's capture card shows and edits: the published state of the capture
// coordinator, one property and change signal per field. Only the coordinator's side writes it.
#pragma once

#include <QObject>
#include <QString>
#include <QVariant>
#include <cstdint>
#include <optional>

#include "capture/ProfilingWorkflowSource.h"
#include "foundation/core/ProfilingTypes.h"
#include "foundation/core/Types.h"

namespace kelvo {

class CaptureViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString betaCaptureNotes READ betaCaptureNotes WRITE setBetaCaptureNotes NOTIFY
                   betaCaptureNotesChanged)
    Q_PROPERTY(
        QString operatorNotes READ operatorNotes WRITE setOperatorNotes NOTIFY operatorNotesChanged)
    Q_PROPERTY(QString profilingScenario READ profilingScenarioRaw NOTIFY profilingScenarioChanged)
    // The scenario as people read it ("Real Workflow Capture").
    Q_PROPERTY(
        QString profilingScenarioLabel READ profilingScenarioLabel NOTIFY profilingScenarioChanged)
    Q_PROPERTY(int profilingDurationMinutes READ profilingDurationMinutes WRITE
                   setProfilingDurationMinutes NOTIFY profilingDurationMinutesChanged)
    Q_PROPERTY(bool profilingIsRunning READ profilingIsRunning NOTIFY profilingIsRunningChanged)
    Q_PROPERTY(QVariant profilingRunID READ profilingRunIDValue NOTIFY profilingRunIDChanged)
    Q_PROPERTY(
        QVariant profilingStartedAt READ profilingStartedAtValue NOTIFY profilingStartedAtChanged)
    Q_PROPERTY(QString profilingElapsed READ profilingElapsed NOTIFY profilingElapsedChanged)
    Q_PROPERTY(QString profilingMessage READ profilingMessage NOTIFY profilingMessageChanged)
    Q_PROPERTY(
        QVariant lastCompletedRunID READ lastCompletedRunIDValue NOTIFY lastCompletedRunIDChanged)
    Q_PROPERTY(QVariant lastExportPath READ lastExportPathValue NOTIFY lastExportPathChanged)
    Q_PROPERTY(QVariant lastPackagedExportPath READ lastPackagedExportPathValue NOTIFY
                   lastPackagedExportPathChanged)
    Q_PROPERTY(QVariant lastAdaptiveExportPath READ lastAdaptiveExportPathValue NOTIFY
                   lastAdaptiveExportPathChanged)
    Q_PROPERTY(QString adaptivePredictorLabel READ adaptivePredictorLabel NOTIFY
                   adaptivePredictorLabelChanged)
    Q_PROPERTY(QString adaptivePredictorDetail READ adaptivePredictorDetail NOTIFY
                   adaptivePredictorDetailChanged)
    Q_PROPERTY(bool profilingPlanIsRunning READ profilingPlanIsRunning NOTIFY
                   profilingPlanIsRunningChanged)
    Q_PROPERTY(QString profilingPlanProgress READ profilingPlanProgress NOTIFY
                   profilingPlanProgressChanged)
    Q_PROPERTY(bool profilingStopInProgress READ profilingStopInProgress NOTIFY
                   profilingStopInProgressChanged)
    Q_PROPERTY(bool profilingFinalizationInProgress READ profilingFinalizationInProgress NOTIFY
                   profilingFinalizationInProgressChanged)
    Q_PROPERTY(QVariant activeWorkflowSource READ activeWorkflowSourceValue NOTIFY
                   activeWorkflowSourceChanged)
    Q_PROPERTY(QVariant lastCompletedWorkflowSource READ lastCompletedWorkflowSourceValue NOTIFY
                   lastCompletedWorkflowSourceChanged)
    Q_PROPERTY(QString currentWorkflowLabel READ currentWorkflowLabel NOTIFY workflowLabelChanged)
    Q_PROPERTY(
        bool captureInteractionLocked READ captureInteractionLocked NOTIFY interactionLockChanged)
    // The name of the dashboard's system colour: "orange" while a run is open or being wrapped
    // up, else "secondary".
    Q_PROPERTY(QString captureActivityTint READ captureActivityTintName NOTIFY activityTintChanged)

public:
    // What the card edits.
    const QString& betaCaptureNotes() const { return betaCaptureNotes_; }
    void setBetaCaptureNotes(const QString& notes);
    const QString& operatorNotes() const { return operatorNotes_; }
    void setOperatorNotes(const QString& notes);
    int profilingDurationMinutes() const { return profilingDurationMinutes_; }
    void setProfilingDurationMinutes(int minutes);

    // What it shows.
    ProfilingScenario profilingScenario() const { return profilingScenario_; }
    QString profilingScenarioRaw() const;
    QString profilingScenarioLabel() const;
    bool profilingIsRunning() const { return profilingIsRunning_; }
    std::optional<std::int64_t> profilingRunID() const { return profilingRunID_; }
    std::optional<Timestamp> profilingStartedAt() const { return profilingStartedAt_; }
    const QString& profilingElapsed() const { return profilingElapsed_; }
    const QString& profilingMessage() const { return profilingMessage_; }
    std::optional<std::int64_t> lastCompletedRunID() const { return lastCompletedRunID_; }
    const std::optional<QString>& lastExportPath() const { return lastExportPath_; }
    const std::optional<QString>& lastPackagedExportPath() const { return lastPackagedExportPath_; }
    const std::optional<QString>& lastAdaptiveExportPath() const { return lastAdaptiveExportPath_; }
    const QString& adaptivePredictorLabel() const { return adaptivePredictorLabel_; }
    const QString& adaptivePredictorDetail() const { return adaptivePredictorDetail_; }
    bool profilingPlanIsRunning() const { return profilingPlanIsRunning_; }
    const QString& profilingPlanProgress() const { return profilingPlanProgress_; }
    bool profilingStopInProgress() const { return profilingStopInProgress_; }
    bool profilingFinalizationInProgress() const { return profilingFinalizationInProgress_; }
    std::optional<ProfilingWorkflowSource> activeWorkflowSource() const {
        return activeWorkflowSource_;
    }
    std::optional<ProfilingWorkflowSource> lastCompletedWorkflowSource() const {
        return lastCompletedWorkflowSource_;
    }

    // Derived from the fields above.
    QString currentWorkflowLabel() const;
    bool captureInteractionLocked() const;
    enum class ActivityTint { secondary, orange };
    ActivityTint captureActivityTint() const;
    QString captureActivityTintName() const;

signals:
    void betaCaptureNotesChanged();
    void operatorNotesChanged();
    void profilingScenarioChanged();
    void profilingDurationMinutesChanged();
    void profilingIsRunningChanged();
    void profilingRunIDChanged();
    void profilingStartedAtChanged();
    void profilingElapsedChanged();
    void profilingMessageChanged();
    void lastCompletedRunIDChanged();
    void lastExportPathChanged();
    void lastPackagedExportPathChanged();
    void lastAdaptiveExportPathChanged();
    void adaptivePredictorLabelChanged();
    void adaptivePredictorDetailChanged();
    void profilingPlanIsRunningChanged();
    void profilingPlanProgressChanged();
    void profilingStopInProgressChanged();
    void profilingFinalizationInProgressChanged();
    void activeWorkflowSourceChanged();
    void lastCompletedWorkflowSourceChanged();
    void workflowLabelChanged();
    void interactionLockChanged();
    void activityTintChanged();

protected:
    explicit CaptureViewModel(QObject* parent = nullptr);

    // Each setter compares first and emits only on a change; the derived values follow.
    void setProfilingScenario(ProfilingScenario scenario);
    void setProfilingIsRunning(bool running);
    void setProfilingRunID(std::optional<std::int64_t> id);
    void setProfilingStartedAt(std::optional<Timestamp> startedAt);
    void setProfilingElapsed(const QString& elapsed);
    void setProfilingMessage(const QString& message);
    void setLastCompletedRunID(std::optional<std::int64_t> id);
    void setLastExportPath(const std::optional<QString>& path);
    void setLastPackagedExportPath(const std::optional<QString>& path);
    void setAdaptivePredictorLabel(const QString& label);
    void setAdaptivePredictorDetail(const QString& detail);
    void setProfilingStopInProgress(bool value);
    void setProfilingFinalizationInProgress(bool value);
    void setActiveWorkflowSource(std::optional<ProfilingWorkflowSource> source);
    void setLastCompletedWorkflowSource(std::optional<ProfilingWorkflowSource> source);
    // The predictor's label and detail for a model, or the baseline's without one.
    void publishAdaptivePredictor(const std::optional<AdaptiveLeadModel>& model);

private:
    // The finalizer shows its progress and the paths it wrote here.
    friend class CaptureFinalizer;

    void emitDerivedChanges();
    QVariant profilingRunIDValue() const;
    QVariant profilingStartedAtValue() const;
    QVariant lastCompletedRunIDValue() const;
    QVariant lastExportPathValue() const;
    QVariant lastPackagedExportPathValue() const;
    QVariant lastAdaptiveExportPathValue() const;
    QVariant activeWorkflowSourceValue() const;
    QVariant lastCompletedWorkflowSourceValue() const;

    QString betaCaptureNotes_;
    QString operatorNotes_;
    ProfilingScenario profilingScenario_ = ProfilingScenario::realWorkflow;
    int profilingDurationMinutes_ = 15;
    bool profilingIsRunning_ = false;
    std::optional<std::int64_t> profilingRunID_;
    std::optional<Timestamp> profilingStartedAt_;
    QString profilingElapsed_ = QStringLiteral("00:00");
    QString profilingMessage_ = QStringLiteral("Idle");
    std::optional<std::int64_t> lastCompletedRunID_;
    std::optional<QString> lastExportPath_;
    std::optional<QString> lastPackagedExportPath_;
    std::optional<QString> lastAdaptiveExportPath_;
    QString adaptivePredictorLabel_ = QStringLiteral("Baseline");
    QString adaptivePredictorDetail_ = QStringLiteral("No adaptive model active");
    bool profilingPlanIsRunning_ = false;
    QString profilingPlanProgress_;
    bool profilingStopInProgress_ = false;
    bool profilingFinalizationInProgress_ = false;
    std::optional<ProfilingWorkflowSource> activeWorkflowSource_;
    std::optional<ProfilingWorkflowSource> lastCompletedWorkflowSource_;

    // The derived values as last announced, so their signals fire only on a change.
    QString publishedWorkflowLabel_ = QStringLiteral("Idle");
    bool publishedInteractionLock_ = false;
    ActivityTint publishedTint_ = ActivityTint::secondary;
};

}  // namespace kelvo

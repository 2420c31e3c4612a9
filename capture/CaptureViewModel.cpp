#include "capture/CaptureViewModel.h"

#include <QDateTime>

#include "capture/ProfilingWorkflowSource.h"

namespace kelvo {

namespace {
template <class T>
QVariant optionalVariant(const std::optional<T>& value) {
    return value ? QVariant::fromValue(*value) : QVariant();
}
}  // namespace

CaptureViewModel::CaptureViewModel(QObject* parent) : QObject(parent) {}

// ----- Derived values ------------------------------------------------------------------------

QString CaptureViewModel::currentWorkflowLabel() const {
    if (activeWorkflowSource_) return workflowLabel(*activeWorkflowSource_);
    if (lastCompletedWorkflowSource_) return workflowLabel(*lastCompletedWorkflowSource_);
    return QStringLiteral("Idle");
}

bool CaptureViewModel::captureInteractionLocked() const {
    return profilingPlanIsRunning_ || profilingStopInProgress_ || profilingFinalizationInProgress_;
}

CaptureViewModel::ActivityTint CaptureViewModel::captureActivityTint() const {
    return profilingIsRunning_ || profilingStopInProgress_ || profilingFinalizationInProgress_
               ? ActivityTint::orange
               : ActivityTint::secondary;
}

QString CaptureViewModel::captureActivityTintName() const {
    return captureActivityTint() == ActivityTint::orange ? QStringLiteral("orange")
                                                         : QStringLiteral("secondary");
}

void CaptureViewModel::emitDerivedChanges() {
    const QString label = currentWorkflowLabel();
    if (label != publishedWorkflowLabel_) {
        publishedWorkflowLabel_ = label;
        emit workflowLabelChanged();
    }
    const bool locked = captureInteractionLocked();
    if (locked != publishedInteractionLock_) {
        publishedInteractionLock_ = locked;
        emit interactionLockChanged();
    }
    const ActivityTint tint = captureActivityTint();
    if (tint != publishedTint_) {
        publishedTint_ = tint;
        emit activityTintChanged();
    }
}

void CaptureViewModel::publishAdaptivePredictor(const std::optional<AdaptiveLeadModel>& model) {
    if (!model) {
        setAdaptivePredictorLabel(QStringLiteral("Baseline"));
        setAdaptivePredictorDetail(QStringLiteral("No adaptive model active"));
        return;
    }
    setAdaptivePredictorLabel(QString::fromStdString(model->name) + QStringLiteral(" v") +
                              QString::number(model->version));
    // Our threshold is kept in percent already.
    setAdaptivePredictorDetail(QString::asprintf("threshold %.0f%%, avg lead %.0fms, misses %d",
                                                 model->utilizationThresholdPct,
                                                 model->averageLeadMs, model->misses));
}

// ----- Setters -------------------------------------------------------------------------------

void CaptureViewModel::setBetaCaptureNotes(const QString& notes) {
    if (betaCaptureNotes_ == notes) return;
    betaCaptureNotes_ = notes;
    emit betaCaptureNotesChanged();
}

void CaptureViewModel::setOperatorNotes(const QString& notes) {
    if (operatorNotes_ == notes) return;
    operatorNotes_ = notes;
    emit operatorNotesChanged();
}

QString CaptureViewModel::profilingScenarioRaw() const {
    return QString::fromUtf8(rawValue(profilingScenario_).data());
}

QString CaptureViewModel::profilingScenarioLabel() const {
    return scenarioLabel(profilingScenario_);
}

void CaptureViewModel::setProfilingScenario(ProfilingScenario scenario) {
    if (profilingScenario_ == scenario) return;
    profilingScenario_ = scenario;
    emit profilingScenarioChanged();
}

void CaptureViewModel::setProfilingDurationMinutes(int minutes) {
    if (profilingDurationMinutes_ == minutes) return;
    profilingDurationMinutes_ = minutes;
    emit profilingDurationMinutesChanged();
}

void CaptureViewModel::setProfilingIsRunning(bool running) {
    if (profilingIsRunning_ == running) return;
    profilingIsRunning_ = running;
    emit profilingIsRunningChanged();
    emitDerivedChanges();
}

void CaptureViewModel::setProfilingRunID(std::optional<std::int64_t> id) {
    if (profilingRunID_ == id) return;
    profilingRunID_ = id;
    emit profilingRunIDChanged();
}

void CaptureViewModel::setProfilingStartedAt(std::optional<Timestamp> startedAt) {
    if (profilingStartedAt_ == startedAt) return;
    profilingStartedAt_ = startedAt;
    emit profilingStartedAtChanged();
}

void CaptureViewModel::setProfilingElapsed(const QString& elapsed) {
    if (profilingElapsed_ == elapsed) return;
    profilingElapsed_ = elapsed;
    emit profilingElapsedChanged();
}

void CaptureViewModel::setProfilingMessage(const QString& message) {
    if (profilingMessage_ == message) return;
    profilingMessage_ = message;
    emit profilingMessageChanged();
}

void CaptureViewModel::setLastCompletedRunID(std::optional<std::int64_t> id) {
    if (lastCompletedRunID_ == id) return;
    lastCompletedRunID_ = id;
    emit lastCompletedRunIDChanged();
}

void CaptureViewModel::setLastExportPath(const std::optional<QString>& path) {
    if (lastExportPath_ == path) return;
    lastExportPath_ = path;
    emit lastExportPathChanged();
}

void CaptureViewModel::setLastPackagedExportPath(const std::optional<QString>& path) {
    if (lastPackagedExportPath_ == path) return;
    lastPackagedExportPath_ = path;
    emit lastPackagedExportPathChanged();
}

void CaptureViewModel::setAdaptivePredictorLabel(const QString& label) {
    if (adaptivePredictorLabel_ == label) return;
    adaptivePredictorLabel_ = label;
    emit adaptivePredictorLabelChanged();
}

void CaptureViewModel::setAdaptivePredictorDetail(const QString& detail) {
    if (adaptivePredictorDetail_ == detail) return;
    adaptivePredictorDetail_ = detail;
    emit adaptivePredictorDetailChanged();
}

void CaptureViewModel::setProfilingStopInProgress(bool value) {
    if (profilingStopInProgress_ == value) return;
    profilingStopInProgress_ = value;
    emit profilingStopInProgressChanged();
    emitDerivedChanges();
}

void CaptureViewModel::setProfilingFinalizationInProgress(bool value) {
    if (profilingFinalizationInProgress_ == value) return;
    profilingFinalizationInProgress_ = value;
    emit profilingFinalizationInProgressChanged();
    emitDerivedChanges();
}

void CaptureViewModel::setActiveWorkflowSource(std::optional<ProfilingWorkflowSource> source) {
    if (activeWorkflowSource_ == source) return;
    activeWorkflowSource_ = source;
    emit activeWorkflowSourceChanged();
    emitDerivedChanges();
}

void CaptureViewModel::setLastCompletedWorkflowSource(
    std::optional<ProfilingWorkflowSource> source) {
    if (lastCompletedWorkflowSource_ == source) return;
    lastCompletedWorkflowSource_ = source;
    emit lastCompletedWorkflowSourceChanged();
    emitDerivedChanges();
}

// ----- Property values -----------------------------------------------------------------------

QVariant CaptureViewModel::profilingRunIDValue() const {
    return profilingRunID_ ? QVariant::fromValue(qint64(*profilingRunID_)) : QVariant();
}
QVariant CaptureViewModel::profilingStartedAtValue() const {
    if (!profilingStartedAt_) return {};
    return QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(*profilingStartedAt_ * 1000));
}
QVariant CaptureViewModel::lastCompletedRunIDValue() const {
    return lastCompletedRunID_ ? QVariant::fromValue(qint64(*lastCompletedRunID_)) : QVariant();
}
QVariant CaptureViewModel::lastExportPathValue() const {
    return optionalVariant(lastExportPath_);
}
QVariant CaptureViewModel::lastPackagedExportPathValue() const {
    return optionalVariant(lastPackagedExportPath_);
}
QVariant CaptureViewModel::lastAdaptiveExportPathValue() const {
    return optionalVariant(lastAdaptiveExportPath_);
}
QVariant CaptureViewModel::activeWorkflowSourceValue() const {
    return activeWorkflowSource_ ? QVariant(rawValue(*activeWorkflowSource_)) : QVariant();
}
QVariant CaptureViewModel::lastCompletedWorkflowSourceValue() const {
    return lastCompletedWorkflowSource_ ? QVariant(rawValue(*lastCompletedWorkflowSource_))
                                        : QVariant();
}

}  // namespace kelvo

// The observable object between the control loop and the dashboard: bounded five-minute trend
// histories, the latest card values, recent events and the 24-hour benefit counters.
//
// Two duties shape it. Refresh gating keeps view work bounded whatever the loop rate: trend data
// is published at most four times a second, card values at most once a second. Buffering keeps
// a hidden dashboard free: the histories grow in private buffers and are published in one step
// when the window can be seen again. Every publication of the histories bumps `trendRevision`,
// the cheap key of the dashboard's trend memo.
#pragma once

#include "live/PreviewFanTrendPoint.h"

#include <QObject>
#include <QString>
#include <cstdint>
#include <optional>
#include <vector>

#include "app_common/Presentation.h"
#include "foundation/control/RuntimeBenefitRegisters.h"
#include "foundation/core/Types.h"
#include "live/LiveThrottleOverlayStore.h"

namespace kelvo {

// One control-loop snapshot as the store takes it. `events` are the recent ones, oldest first.
struct LiveSnapshot {
    TelemetrySample sample;
    std::optional<ControlDecision> decision;
    std::optional<ControlDecision> previewDecision;
    bool previewActive = false;
    ThrottleAssessment assessment;
    ControlStatus status = ControlStatus::starting;
    ControlAuthorityState authority = ControlAuthorityState::system;
    bool throttleWarning = false;
    GPUClockWindowAnalysisConfig gpuConfig;
    std::vector<RuntimeEvent> events;
};

class LiveDashboardStore : public QObject {
    Q_OBJECT
    Q_PROPERTY(
        kelvo::LiveThrottleOverlayStore* liveThrottleOverlay READ liveThrottleOverlay CONSTANT)
    Q_PROPERTY(quint64 trendRevision READ trendRevision NOTIFY trendRevisionChanged)
    Q_PROPERTY(QString status READ statusRawValue NOTIFY statusChanged)
    Q_PROPERTY(QString controlAuthorityState READ controlAuthorityStateRawValue NOTIFY
                   controlAuthorityStateChanged)
    Q_PROPERTY(bool throttleWarning READ throttleWarning WRITE setThrottleWarning NOTIFY
                   throttleWarningChanged)
    Q_PROPERTY(QString buildVersionLabel READ buildVersionLabel WRITE setBuildVersionLabel NOTIFY
                   buildVersionLabelChanged)
    Q_PROPERTY(QString buildVersionDetail READ buildVersionDetail WRITE setBuildVersionDetail NOTIFY
                   buildVersionDetailChanged)
    Q_PROPERTY(bool dashboardIsUserVisible READ dashboardIsUserVisible WRITE
                   setDashboardIsUserVisible NOTIFY dashboardIsUserVisibleChanged)
    Q_PROPERTY(
        quint64 changeNotificationCount READ changeNotificationCount NOTIFY publishedFieldChanged)
public:
    static constexpr double kHistoryWindowSeconds = 300.0;
    static constexpr double kTrendRefreshIntervalSeconds = 0.25;
    static constexpr double kCardRefreshIntervalSeconds = 1.0;
    static constexpr long long kRuntimeEventHistoryCount = 160;
    // Two more than 300 s of updates at the 0.25 s trend spacing.
    static constexpr long long kMaxHistoryCount = 1202;
    // Before any sample: the first snapshot is always due.
    static constexpr Timestamp kDistantPast = -62135769600.0;

    static constexpr double kBenefitWindowSeconds = 86400;
    static constexpr double kBenefitEpisodeGapSeconds = 45;
    static constexpr const char* kBenefitWindowDisplayName = "24 Hours";

    explicit LiveDashboardStore(QObject* parent = nullptr);

    // Whether a snapshot with this sample time would update the trend or the cards.
    bool shouldRefresh(Timestamp sampleTimestamp) const;
    // Applies one snapshot: benefit counters always, then the card update and the trend update
    // when each is due. A snapshot with neither due changes nothing.
    void ingest(const LiveSnapshot& snapshot);
    void appendHistory(const TelemetrySample& sample,
                       const std::optional<ControlDecision>& previewDecision, bool previewActive,
                       const ThrottleAssessment& assessment);
    void recordThrottleAssessment(Timestamp sampleTimestamp, const ThrottleAssessment& assessment);
    static std::optional<PreviewFanTrendPoint> previewPoint(
        Timestamp timestamp, const std::optional<ControlDecision>& decision);
    void clearPreview();
    // `events` oldest first; the store keeps the newest 160, newest first.
    void applyEventSnapshot(const std::vector<RuntimeEvent>& events);
    // Publishes every buffer (histories and events) and bumps the trend revision once.
    void publishBufferedState();

    // The dashboard counts as user-visible when shown or merely off-screen; a hidden or
    // minimized window is not.
    static bool countsAsUserVisible(DashboardWindowVisibility visibility);
    // Applies the window's visibility: stores the new flag when it differs and publishes the
    // buffers as soon as the dashboard can be seen again.
    void applyWindowVisibility(DashboardWindowVisibility visibility);

    LiveThrottleOverlayStore* liveThrottleOverlay() const { return liveThrottleOverlay_; }
    const std::optional<TelemetrySample>& latestSample() const { return latestSample_; }
    const std::optional<ControlDecision>& latestDecision() const { return latestDecision_; }
    const std::optional<ControlDecision>& latestPreviewDecision() const {
        return latestPreviewDecision_;
    }
    const std::vector<RuntimeEvent>& events() const { return events_; }
    const std::vector<TelemetrySample>& sampleHistory() const { return sampleHistory_; }
    const std::vector<PreviewFanTrendPoint>& previewHistory() const { return previewHistory_; }
    const std::vector<ThrottleWarningTrendPoint>& throttleHistory() const {
        return throttleHistory_;
    }
    quint64 trendRevision() const { return trendRevision_; }
    ControlStatus status() const { return status_; }
    QString statusRawValue() const;
    ControlAuthorityState controlAuthorityState() const { return controlAuthorityState_; }
    QString controlAuthorityStateRawValue() const;
    bool throttleWarning() const { return throttleWarning_; }
    const ThrottleAssessment& throttleAssessment() const { return throttleAssessment_; }
    const GPUClockWindowAnalysisConfig& gpuClockWindowAnalysisConfig() const {
        return gpuClockWindowAnalysisConfig_;
    }
    const RuntimeBenefitSummary& benefitSummary() const { return benefitSummary_; }
    const QString& buildVersionLabel() const { return buildVersionLabel_; }
    const QString& buildVersionDetail() const { return buildVersionDetail_; }

    Timestamp lastTrendRefreshAt() const { return lastTrendRefreshAt_; }
    Timestamp lastCardRefreshAt() const { return lastCardRefreshAt_; }
    bool dashboardIsUserVisible() const { return dashboardIsUserVisible_; }
    const std::vector<TelemetrySample>& bufferedSampleHistory() const {
        return bufferedSampleHistory_;
    }
    const std::vector<PreviewFanTrendPoint>& bufferedPreviewHistory() const {
        return bufferedPreviewHistory_;
    }
    const std::vector<ThrottleWarningTrendPoint>& bufferedThrottleHistory() const {
        return bufferedThrottleHistory_;
    }
    const std::vector<RuntimeEvent>& bufferedEvents() const { return bufferedEvents_; }

    // How many notifications of published fields have been sent so far.
    quint64 changeNotificationCount() const { return changeNotificationCount_; }

    void setStatus(ControlStatus status);
    void setThrottleWarning(bool warning);
    void setBuildVersionLabel(const QString& label);
    void setBuildVersionDetail(const QString& detail);
    // Only stores the flag; the caller publishes the buffers when it turns true (or uses
    // applyWindowVisibility, which does both).
    void setDashboardIsUserVisible(bool visible);

signals:
    void latestSampleChanged();
    void latestDecisionChanged();
    void latestPreviewDecisionChanged();
    void eventsChanged();
    void sampleHistoryChanged();
    void previewHistoryChanged();
    void throttleHistoryChanged();
    void trendRevisionChanged();
    void statusChanged();
    void controlAuthorityStateChanged();
    void throttleWarningChanged();
    void throttleAssessmentChanged();
    void gpuClockWindowAnalysisConfigChanged();
    void benefitSummaryChanged();
    void buildVersionLabelChanged();
    void buildVersionDetailChanged();
    void dashboardIsUserVisibleChanged();
    // After each notification of a published field above, whichever it was.
    void publishedFieldChanged();

private:
    using Notifier = void (LiveDashboardStore::*)();
    template <typename T>
    bool assign(T& field, const T& value, Notifier notifier);
    void notify(Notifier notifier);
    void bumpTrendRevision();

    LiveThrottleOverlayStore* liveThrottleOverlay_;
    std::optional<TelemetrySample> latestSample_;
    std::optional<ControlDecision> latestDecision_;
    std::optional<ControlDecision> latestPreviewDecision_;
    std::vector<RuntimeEvent> events_;
    std::vector<TelemetrySample> sampleHistory_;
    std::vector<PreviewFanTrendPoint> previewHistory_;
    std::vector<ThrottleWarningTrendPoint> throttleHistory_;
    quint64 trendRevision_ = 0;
    ControlStatus status_ = ControlStatus::starting;
    ControlAuthorityState controlAuthorityState_ = ControlAuthorityState::system;
    bool throttleWarning_ = false;
    ThrottleAssessment throttleAssessment_;
    GPUClockWindowAnalysisConfig gpuClockWindowAnalysisConfig_;
    RuntimeBenefitSummary benefitSummary_;
    QString buildVersionLabel_;
    QString buildVersionDetail_;

    Timestamp lastTrendRefreshAt_ = kDistantPast;
    Timestamp lastCardRefreshAt_ = kDistantPast;
    bool dashboardIsUserVisible_ = true;
    std::vector<TelemetrySample> bufferedSampleHistory_;
    std::vector<PreviewFanTrendPoint> bufferedPreviewHistory_;
    std::vector<ThrottleWarningTrendPoint> bufferedThrottleHistory_;
    std::vector<RuntimeEvent> bufferedEvents_;
    RuntimeBenefitRegisters benefitRegisters_;
    quint64 changeNotificationCount_ = 0;
};

}  // namespace kelvo

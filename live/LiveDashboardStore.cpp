#include "live/LiveDashboardStore.h"

#include <algorithm>

#include "app_common/AppBuildInfo.h"
#include "foundation/core/FanController.h"
#include "live/HistoryTrim.h"

namespace kelvo {

namespace {

// Histories hold one entry per sample time: a repeat replaces the newest entry in place.
template <typename T>
void upsertByTimestamp(std::vector<T>& history, const T& value) {
    if (!history.empty() && history.back().timestamp == value.timestamp) {
        history.back() = value;
    } else {
        history.push_back(value);
    }
}

template <typename T>
void trimHistory(std::vector<T>& history, Timestamp newest) {
    trimOrderedHistory(history, newest - LiveDashboardStore::kHistoryWindowSeconds,
                       [](const T& entry) { return entry.timestamp; });
    trimToTailCount(history, LiveDashboardStore::kMaxHistoryCount);
}

QString fromView(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

}  // namespace

LiveDashboardStore::LiveDashboardStore(QObject* parent)
    : QObject(parent),
      liveThrottleOverlay_(new LiveThrottleOverlayStore(this)),
      buildVersionLabel_(AppBuildInfo::initialBuildVersionLabel()),
      buildVersionDetail_(QStringLiteral("Build identity pending")),
      benefitRegisters_(kBenefitWindowSeconds, kBenefitEpisodeGapSeconds,
                        kBenefitWindowDisplayName) {
    benefitSummary_.windowDisplayName = kBenefitWindowDisplayName;
    benefitSummary_.windowSeconds = kBenefitWindowSeconds;
}

template <typename T>
bool LiveDashboardStore::assign(T& field, const T& value, Notifier notifier) {
    if (field == value) return false;
    field = value;
    notify(notifier);
    return true;
}

void LiveDashboardStore::notify(Notifier notifier) {
    ++changeNotificationCount_;
    emit(this->*notifier)();
    emit publishedFieldChanged();
}

void LiveDashboardStore::bumpTrendRevision() {
    ++trendRevision_;
    notify(&LiveDashboardStore::trendRevisionChanged);
}

bool LiveDashboardStore::shouldRefresh(Timestamp sampleTimestamp) const {
    return sampleTimestamp - lastTrendRefreshAt_ >= kTrendRefreshIntervalSeconds ||
           sampleHistory_.empty() ||
           sampleTimestamp - lastCardRefreshAt_ >= kCardRefreshIntervalSeconds || !latestSample_;
}

void LiveDashboardStore::ingest(const LiveSnapshot& snapshot) {
    const Timestamp now = snapshot.sample.timestamp;
    const bool trendDue =
        now - lastTrendRefreshAt_ >= kTrendRefreshIntervalSeconds || sampleHistory_.empty();
    const bool cardDue = now - lastCardRefreshAt_ >= kCardRefreshIntervalSeconds || !latestSample_;
    if (!trendDue && !cardDue) return;

    benefitRegisters_.recordSample(now, snapshot.authority, snapshot.throttleWarning);
    benefitRegisters_.recordEvents(snapshot.events, now);
    assign(benefitSummary_, benefitRegisters_.summary(now),
           &LiveDashboardStore::benefitSummaryChanged);

    if (cardDue) {
        lastCardRefreshAt_ = now;
        assign(latestSample_, std::optional(snapshot.sample),
               &LiveDashboardStore::latestSampleChanged);
        assign(latestDecision_, snapshot.decision, &LiveDashboardStore::latestDecisionChanged);
        assign(latestPreviewDecision_, snapshot.previewDecision,
               &LiveDashboardStore::latestPreviewDecisionChanged);
        assign(status_, snapshot.status, &LiveDashboardStore::statusChanged);
        assign(controlAuthorityState_, snapshot.authority,
               &LiveDashboardStore::controlAuthorityStateChanged);
        assign(throttleAssessment_, snapshot.assessment,
               &LiveDashboardStore::throttleAssessmentChanged);
        assign(throttleWarning_, snapshot.assessment.isWarning,
               &LiveDashboardStore::throttleWarningChanged);
        assign(gpuClockWindowAnalysisConfig_, snapshot.gpuConfig,
               &LiveDashboardStore::gpuClockWindowAnalysisConfigChanged);
        applyEventSnapshot(snapshot.events);
    }

    if (trendDue) {
        lastTrendRefreshAt_ = now;
        appendHistory(snapshot.sample, snapshot.previewDecision, snapshot.previewActive,
                      snapshot.assessment);
    }
}

void LiveDashboardStore::appendHistory(const TelemetrySample& sample,
                                       const std::optional<ControlDecision>& previewDecision,
                                       bool previewActive, const ThrottleAssessment& assessment) {
    upsertByTimestamp(bufferedSampleHistory_, sample.compactedForTrendHistory());
    trimHistory(bufferedSampleHistory_, sample.timestamp);

    if (!previewActive) {
        clearPreview();
    } else if (auto point = previewPoint(sample.timestamp, previewDecision)) {
        upsertByTimestamp(bufferedPreviewHistory_, *point);
        trimHistory(bufferedPreviewHistory_, sample.timestamp);
    }
    // An active preview without positive targets keeps the trace it has: a momentary all-firmware
    // decision should not erase it.

    recordThrottleAssessment(sample.timestamp, assessment);

    if (dashboardIsUserVisible_) {
        assign(sampleHistory_, bufferedSampleHistory_, &LiveDashboardStore::sampleHistoryChanged);
        assign(previewHistory_, bufferedPreviewHistory_,
               &LiveDashboardStore::previewHistoryChanged);
        bumpTrendRevision();
    }
}

void LiveDashboardStore::recordThrottleAssessment(Timestamp sampleTimestamp,
                                                  const ThrottleAssessment& assessment) {
    upsertByTimestamp(bufferedThrottleHistory_,
                      ThrottleWarningTrendPoint{sampleTimestamp, assessment.isWarning});
    trimHistory(bufferedThrottleHistory_, sampleTimestamp);
    // The revision is left to appendHistory, which publishes the other histories right after.
    if (dashboardIsUserVisible_)
        assign(throttleHistory_, bufferedThrottleHistory_,
               &LiveDashboardStore::throttleHistoryChanged);
}

std::optional<PreviewFanTrendPoint> LiveDashboardStore::previewPoint(
    Timestamp timestamp, const std::optional<ControlDecision>& decision) {
    if (!decision) return std::nullopt;
    double sum = 0;
    int count = 0;
    for (double target : decision->targetRPM) {
        // A zero target leaves that fan to the firmware: it says nothing about the preview. A
        // stop target is a fan held at 0 rpm.
        if (target > 0 || isFanStopTarget(target)) {
            sum += std::max(target, 0.0);
            ++count;
        }
    }
    if (count == 0) return std::nullopt;
    return PreviewFanTrendPoint{timestamp, sum / count};
}

void LiveDashboardStore::clearPreview() {
    if (!latestPreviewDecision_ && bufferedPreviewHistory_.empty() &&
        (!dashboardIsUserVisible_ || previewHistory_.empty()))
        return;
    assign(latestPreviewDecision_, std::optional<ControlDecision>(),
           &LiveDashboardStore::latestPreviewDecisionChanged);
    bufferedPreviewHistory_.clear();
    if (dashboardIsUserVisible_ && !previewHistory_.empty()) {
        previewHistory_.clear();
        notify(&LiveDashboardStore::previewHistoryChanged);
    }
}

void LiveDashboardStore::applyEventSnapshot(const std::vector<RuntimeEvent>& events) {
    const auto count = std::min(events.size(), static_cast<std::size_t>(kRuntimeEventHistoryCount));
    std::vector<RuntimeEvent> display(events.rbegin(),
                                      events.rbegin() + static_cast<std::ptrdiff_t>(count));
    if (display == bufferedEvents_) return;
    bufferedEvents_ = std::move(display);
    if (dashboardIsUserVisible_)
        assign(events_, bufferedEvents_, &LiveDashboardStore::eventsChanged);
}

void LiveDashboardStore::publishBufferedState() {
    assign(sampleHistory_, bufferedSampleHistory_, &LiveDashboardStore::sampleHistoryChanged);
    assign(previewHistory_, bufferedPreviewHistory_, &LiveDashboardStore::previewHistoryChanged);
    assign(throttleHistory_, bufferedThrottleHistory_, &LiveDashboardStore::throttleHistoryChanged);
    assign(events_, bufferedEvents_, &LiveDashboardStore::eventsChanged);
    bumpTrendRevision();
}

bool LiveDashboardStore::countsAsUserVisible(DashboardWindowVisibility visibility) {
    switch (visibility) {
        case DashboardWindowVisibility::visible:
        case DashboardWindowVisibility::offscreen: return true;
        case DashboardWindowVisibility::hidden:
        case DashboardWindowVisibility::minimized: return false;
    }
    return true;
}

void LiveDashboardStore::applyWindowVisibility(DashboardWindowVisibility visibility) {
    const bool visible = countsAsUserVisible(visibility);
    if (visible == dashboardIsUserVisible_) return;
    setDashboardIsUserVisible(visible);
    if (visible) publishBufferedState();
}

QString LiveDashboardStore::statusRawValue() const {
    return fromView(rawValue(status_));
}

QString LiveDashboardStore::controlAuthorityStateRawValue() const {
    return fromView(rawValue(controlAuthorityState_));
}

void LiveDashboardStore::setStatus(ControlStatus status) {
    assign(status_, status, &LiveDashboardStore::statusChanged);
}

void LiveDashboardStore::setThrottleWarning(bool warning) {
    assign(throttleWarning_, warning, &LiveDashboardStore::throttleWarningChanged);
}

void LiveDashboardStore::setBuildVersionLabel(const QString& label) {
    assign(buildVersionLabel_, label, &LiveDashboardStore::buildVersionLabelChanged);
}

void LiveDashboardStore::setBuildVersionDetail(const QString& detail) {
    assign(buildVersionDetail_, detail, &LiveDashboardStore::buildVersionDetailChanged);
}

void LiveDashboardStore::setDashboardIsUserVisible(bool visible) {
    if (dashboardIsUserVisible_ == visible) return;
    dashboardIsUserVisible_ = visible;
    emit dashboardIsUserVisibleChanged();
}

}  // namespace kelvo

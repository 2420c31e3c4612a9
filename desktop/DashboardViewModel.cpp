#include "desktop/DashboardViewModel.h"

#include <QDateTime>
#include <QStringList>

#include "app/AppPresentationStore.h"
#include "app/AppRuntime.h"
#include "desktop/AccessibilitySlug.h"
#include "desktop/CoolingMenu.h"
#include "foundation/core/FanController.h"
#include "live/LiveDashboardStore.h"

namespace kelvo {

QString rawValue(DashboardPublicMode mode) {
    return mode == DashboardPublicMode::system ? QStringLiteral("system")
                                               : QStringLiteral("enhanced");
}

DashboardPublicMode publicModeFor(ControlMode mode) {
    return mode == ControlMode::systemAuto ? DashboardPublicMode::system
                                           : DashboardPublicMode::enhanced;
}

ControlMode controlModeFor(DashboardPublicMode mode) {
    return mode == DashboardPublicMode::system ? ControlMode::systemAuto : ControlMode::quietHybrid;
}

namespace {
QString text(std::string_view view) {
    return QString::fromUtf8(view.data(), view.size());
}

QString measure(const std::optional<double>& value, int decimals, const QString& unit) {
    if (!value) return QStringLiteral("—");
    return QString::number(*value, 'f', decimals) + unit;
}

QString clockTime(Timestamp t) {
    return QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(t * 1000))
        .toString(QStringLiteral("HH:mm:ss"));
}

QString fanName(const TelemetrySample& sample, std::size_t i) {
    if (i < sample.fanNames.size() && !sample.fanNames[i].empty())
        return QString::fromStdString(sample.fanNames[i]);
    return QStringLiteral("Fan %1").arg(i + 1);
}

QString fanSpeeds(const TelemetrySample& sample) {
    if (sample.fanCurrentRPM.empty()) return QStringLiteral("—");
    QStringList parts;
    bool anySpeed = false;
    for (std::size_t i = 0; i < sample.fanCurrentRPM.size(); ++i) {
        const double rpm = sample.fanCurrentRPM[i];
        // A fan Kelvo holds still reads 0 on purpose: say so rather than "0".
        if (i < sample.fanTargetRPM.size() && isFanStopTarget(sample.fanTargetRPM[i])) {
            parts << QStringLiteral("stopped");
            continue;
        }
        anySpeed = true;
        parts << (isReadableRPM(rpm) ? QString::number(rpm, 'f', 0) : QStringLiteral("—"));
    }
    const QString speeds =
        parts.join(QStringLiteral(", ")) + (anySpeed ? QStringLiteral(" RPM") : QString());
    // The count first, so that two speeds cannot read as a speed and its maximum.
    if (parts.size() == 1) return speeds;
    return QStringLiteral("%1 fans: %2").arg(parts.size()).arg(speeds);
}

// A target as people read it: an RPM, "stopped" (Kelvo holds it still) or the firmware's.
QString targetText(double target) {
    if (isFanStopTarget(target)) return QStringLiteral("stopped");
    return target > 0 ? QString::number(target, 'f', 0) + QStringLiteral(" RPM")
                      : QStringLiteral("firmware");
}

QString durationText(double seconds) {
    const auto minutes = static_cast<long long>(seconds / 60);
    if (minutes < 60) return QStringLiteral("%1 min").arg(minutes);
    return QStringLiteral("%1 h %2 min").arg(minutes / 60).arg(minutes % 60);
}

QString counted(int count, const char* one, const char* many) {
    return QStringLiteral("%1 %2").arg(count).arg(QLatin1String(count == 1 ? one : many));
}

QString eventLine(const RuntimeEvent& event) {
    return clockTime(event.timestamp) + QStringLiteral("  ") +
           (event.isFailure ? QStringLiteral("⚠ ") : QString()) +
           QString::fromStdString(event.message);
}

QString clockPair(const std::optional<double>& clock, const std::optional<double>& reference) {
    return measure(clock, 0, QStringLiteral(" MHz")) + QStringLiteral(" of ") +
           measure(reference, 0, QStringLiteral(" MHz"));
}
}  // namespace

DashboardViewModel::DashboardViewModel(AppRuntime* runtime, QObject* parent)
    : QObject(parent),
      runtime_(runtime),
      live_(runtime->live()),
      presentation_(runtime->presentation()) {
    connect(runtime, &AppRuntime::modeChanged, this, [this] {
        emit publicModeChanged();
        refresh();
    });
    connect(presentation_, &AppPresentationStore::selectedSurfaceChanged, this,
            &DashboardViewModel::selectedSurfaceChanged);
    for (auto signal :
         {&LiveDashboardStore::latestSampleChanged, &LiveDashboardStore::latestDecisionChanged,
          &LiveDashboardStore::eventsChanged, &LiveDashboardStore::statusChanged,
          &LiveDashboardStore::controlAuthorityStateChanged,
          &LiveDashboardStore::throttleAssessmentChanged,
          &LiveDashboardStore::benefitSummaryChanged, &LiveDashboardStore::buildVersionLabelChanged,
          &LiveDashboardStore::buildVersionDetailChanged,
          &LiveDashboardStore::dashboardIsUserVisibleChanged})
        connect(live_, signal, this, &DashboardViewModel::refresh);
    refresh();
}

QString DashboardViewModel::publicMode() const {
    return rawValue(publicModeFor(runtime_ ? runtime_->mode() : ControlMode::systemAuto));
}

void DashboardViewModel::setPublicMode(const QString& raw) {
    if (!runtime_) return;
    if (raw == rawValue(DashboardPublicMode::system))
        runtime_->setMode(controlModeFor(DashboardPublicMode::system));
    else if (raw == rawValue(DashboardPublicMode::enhanced))
        runtime_->setMode(controlModeFor(DashboardPublicMode::enhanced));
}

QString DashboardViewModel::publicModeHelp(const QString& raw) const {
    if (raw == QLatin1String("system")) return CoolingMenu::describe(ControlMode::systemAuto);
    return QStringLiteral(
        "Kelvo's Quiet Hybrid mode: the fans as slow as the temperature limits allow, started "
        "ahead of a sustained load once Kelvo has learned this machine's loads. The tray's "
        "Cooling menu offers Quiet and Performance too.");
}

QString DashboardViewModel::slug(const QString& label) const {
    return accessibilitySlug(label);
}

QString DashboardViewModel::selectedSurface() const {
    return presentation::rawValue(presentation_->selectedSurface());
}

void DashboardViewModel::setSelectedSurface(const QString& raw) {
    if (const auto selection = presentation::appSurfaceSelectionFromRaw(raw))
        presentation_->setSelectedSurface(*selection);
}

void DashboardViewModel::refresh() {
    if (!live_->dashboardIsUserVisible()) return;
    QVariantMap card = buildCard();
    QVariantMap advanced = buildAdvanced();
    if (card != card_) {
        card_ = std::move(card);
        ++refreshCount_;
        emit cardChanged();
    }
    if (advanced != advanced_) {
        advanced_ = std::move(advanced);
        emit advancedChanged();
    }
}

QVariantMap DashboardViewModel::buildCard() const {
    const TelemetrySample sample = live_->latestSample().value_or(TelemetrySample{});
    const ThrottleAssessment& throttle = live_->throttleAssessment();
    QStringList events;
    const auto& all = live_->events();
    for (std::size_t i = 0; i < all.size() && i < 5; ++i) events << eventLine(all[i]);
    const ControlMode mode = runtime_ ? runtime_->mode() : ControlMode::systemAuto;
    return {
        {QStringLiteral("mode"), text(displayName(mode))},
        {QStringLiteral("status"), live_->statusRawValue()},
        {QStringLiteral("authority"), live_->controlAuthorityStateRawValue()},
        {QStringLiteral("cpuTemperature"),
         measure(sample.cpuTemperatureC, 1, QStringLiteral(" °C"))},
        {QStringLiteral("gpuTemperature"),
         measure(sample.gpuTemperatureC, 1, QStringLiteral(" °C"))},
        {QStringLiteral("cpuClock"), measure(sample.cpuClockMHz, 0, QStringLiteral(" MHz"))},
        {QStringLiteral("gpuClock"), measure(sample.gpuClockMHz, 0, QStringLiteral(" MHz"))},
        {QStringLiteral("power"), measure(sample.totalPowerW, 1, QStringLiteral(" W"))},
        {QStringLiteral("fans"), fanSpeeds(sample)},
        {QStringLiteral("throttle"), live_->throttleWarning() || throttle.isWarning
                                         ? QStringLiteral("Throttle warning")
                                         : QStringLiteral("No throttling")},
        {QStringLiteral("benefit"), benefitText(live_->benefitSummary())},
        {QStringLiteral("events"), events},
        {QStringLiteral("buildVersionLabel"), live_->buildVersionLabel()},
        {QStringLiteral("buildVersionDetail"), live_->buildVersionDetail()},
    };
}

QString DashboardViewModel::benefitText(const RuntimeBenefitSummary& b) {
    return QStringLiteral(
               "Last %1: Kelvo in charge %2 in %3; %4 without throttle warnings; %5, %6.")
        .arg(QString::fromStdString(b.windowDisplayName), durationText(b.kelvoAuthoritySeconds),
             counted(b.interventionCount, "intervention", "interventions"),
             durationText(b.throttleWarningAvoidedSeconds),
             counted(b.throttleWarningEventCount, "throttle event", "throttle events"),
             counted(b.fallbackEventCount, "fallback", "fallbacks"));
}

QVariantMap DashboardViewModel::buildAdvanced() const {
    const TelemetrySample sample = live_->latestSample().value_or(TelemetrySample{});
    const auto& decision = live_->latestDecision();
    QStringList fans;
    for (std::size_t i = 0; i < sample.fanCurrentRPM.size(); ++i) {
        const double target = i < sample.fanTargetRPM.size() ? sample.fanTargetRPM[i] : 0;
        const double max = i < sample.fanMaxRPM.size() ? sample.fanMaxRPM[i] : 0;
        const double rpm = sample.fanCurrentRPM[i];
        const bool readable = isReadableRPM(rpm);
        const QString share = max > 0 && readable
                                  ? QString::number(std::min(100.0, rpm / max * 100), 'f', 0)
                                  : QStringLiteral("—");
        const bool decided = decision && i < decision->targetRPM.size();
        fans << QStringLiteral("%1: %2 RPM, target %3, %4 % of its %5 RPM maximum%6")
                    .arg(fanName(sample, i))
                    .arg(readable ? QString::number(rpm, 'f', 0) : QStringLiteral("—"))
                    .arg(targetText(target))
                    .arg(share)
                    .arg(max, 0, 'f', 0)
                    .arg(decided ? QStringLiteral(", loop wants %1")
                                       .arg(targetText(decision->targetRPM[i]))
                                 : QString());
    }
    const QStringList sensors = {
        QStringLiteral("CPU temperature: ") + measure(sample.cpuTemperatureC, 1, " °C"),
        QStringLiteral("GPU temperature: ") + measure(sample.gpuTemperatureC, 1, " °C"),
        QStringLiteral("CPU clock: ") + measure(sample.cpuClockMHz, 0, " MHz"),
        QStringLiteral("GPU clock: ") +
            clockPair(sample.gpuClockMHz, sample.gpuReferenceMaxClockMHz),
        QStringLiteral("CPU load: ") + measure(sample.cpuUtilizationPct, 0, " %"),
        QStringLiteral("GPU load: ") + measure(sample.gpuUtilizationPct, 0, " %"),
        QStringLiteral("Total power: ") + measure(sample.totalPowerW, 1, " W"),
        QStringLiteral("Thermal pressure: ") + (sample.thermalPressure
                                                    ? text(kelvo::rawValue(*sample.thermalPressure))
                                                    : QStringLiteral("—")),
    };
    const ThrottleAssessment& t = live_->throttleAssessment();
    const QStringList throttle = {
        QStringLiteral("Warning: ") + (t.isWarning ? QStringLiteral("yes") : QStringLiteral("no")),
        QStringLiteral("Reason: ") +
            (t.reason ? QString::fromStdString(*t.reason) : QStringLiteral("—")),
        QStringLiteral("CPU clock: ") + clockPair(t.cpuClockMHz, t.cpuReferenceMHz),
        QStringLiteral("GPU clock: ") + clockPair(t.gpuClockMHz, t.gpuReferenceMHz),
        QStringLiteral("High load: %1, CPU deficit: %2, GPU deficit: %3, pressure elevated: %4")
            .arg(t.highLoad ? "yes" : "no", t.cpuClockDeficit ? "yes" : "no",
                 t.gpuClockDeficit ? "yes" : "no", t.thermalPressureElevated ? "yes" : "no"),
    };
    QStringList events;
    for (const RuntimeEvent& event : live_->events()) events << eventLine(event);
    return {
        {QStringLiteral("fans"), fans},
        {QStringLiteral("sensors"), sensors},
        {QStringLiteral("throttle"), throttle},
        {QStringLiteral("decision"),
         decision ? QString::fromStdString(decision->reason) : QStringLiteral("—")},
        {QStringLiteral("events"), events},
    };
}

}  // namespace kelvo

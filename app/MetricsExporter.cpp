#include "app/MetricsExporter.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <set>
#include <stdexcept>

#include "app/MetricsHttpServer.h"
#include "foundation/core/FanController.h"

namespace kelvo {

namespace {
constexpr double kMHz = 1e6;
// A tick reads every sensor and writes every fan: tens of microseconds when healthy (some 80 us
// on the simulated machine), up to the 1 s tick when a back-end is slow.
const prometheus::Histogram::BucketBoundaries kTickBuckets = {
    0.00001, 0.000025, 0.00005, 0.0001, 0.00025, 0.0005, 0.001, 0.0025,
    0.005,   0.01,     0.025,   0.05,   0.1,     0.25,   0.5,   1.0};
// Gaps longer than this (a suspend) are not credited as time under Kelvo's control.
constexpr double kLongestCreditedGapS = 45;
}  // namespace

MetricsExporter::MetricsExporter() : registry_(std::make_shared<prometheus::Registry>()) {
    using prometheus::BuildCounter;
    using prometheus::BuildGauge;
    temperature_ = &BuildGauge()
                        .Name("kelvo_temperature_celsius")
                        .Help("Die temperature")
                        .Register(*registry_);
    clock_ = &BuildGauge().Name("kelvo_clock_hertz").Help("Die clock").Register(*registry_);
    power_ =
        &BuildGauge().Name("kelvo_power_watts").Help("Total system power").Register(*registry_);
    fanRpm_ = &BuildGauge()
                   .Name("kelvo_fan_rpm")
                   .Help("Fan speed in revolutions per minute")
                   .Register(*registry_);
    fanTarget_ = &BuildGauge()
                      .Name("kelvo_fan_target_rpm")
                      .Help("Speed Kelvo asks of the fan; absent while the firmware drives it")
                      .Register(*registry_);
    fanDuty_ = &BuildGauge()
                    .Name("kelvo_fan_duty_ratio")
                    .Help("Kelvo's target as a share of the fan's range (0 minimum, 1 maximum)")
                    .Register(*registry_);
    mode_ = &BuildGauge()
                 .Name("kelvo_control_mode")
                 .Help("Control mode (state set: 1 for the active mode)")
                 .Register(*registry_);
    status_ = &BuildGauge()
                   .Name("kelvo_control_status")
                   .Help("Control status (state set: 1 for the current status)")
                   .Register(*registry_);
    throttleWarning_ = &BuildGauge()
                            .Name("kelvo_throttle_warning")
                            .Help("1 while the throttle warning is active")
                            .Register(*registry_);
    fansShared_ = &BuildGauge()
                       .Name("kelvo_fans_shared")
                       .Help(
                           "1 while the quiet mode shares the work among the fans by what each "
                           "cools, 0 while every fan Kelvo drives follows one duty")
                       .Register(*registry_);
    benefitSeconds_ = &BuildGauge()
                           .Name("kelvo_benefit_seconds_last_24h")
                           .Help("Seconds of benefit over the last 24 hours, by register")
                           .Register(*registry_);
    benefitEvents_ = &BuildGauge()
                          .Name("kelvo_benefit_events_last_24h")
                          .Help("Events over the last 24 hours, by register")
                          .Register(*registry_);
    BuildGauge()
        .Name("kelvo_build_info")
        .Help("Always 1: the running Kelvo's version and build")
        .Register(*registry_)
        .Add({{"version", KELVO_VERSION_STRING}, {"build", KELVO_BUILD_NUMBER_STRING}})
        .Set(1);
    ticks_ = &BuildCounter()
                  .Name("kelvo_control_ticks_total")
                  .Help("Control loop ticks since start")
                  .Register(*registry_);
    authoritySeconds_ = &BuildCounter()
                             .Name("kelvo_fan_authority_seconds_total")
                             .Help("Seconds the fans were under Kelvo's control since start")
                             .Register(*registry_);
    tickDuration_ = &prometheus::BuildHistogram()
                         .Name("kelvo_control_tick_duration_seconds")
                         .Help("Time one control loop tick took")
                         .Register(*registry_);
    for (ControlMode mode : kAllControlModes)
        mode_->Add({{"kelvo_control_mode", std::string(rawValue(mode))}}).Set(0);
    for (ControlStatus status : {ControlStatus::starting, ControlStatus::controlling,
                                 ControlStatus::monitoring, ControlStatus::fallback})
        status_->Add({{"kelvo_control_status", std::string(rawValue(status))}}).Set(0);
    throttleWarning_->Add({}).Set(0);
    fansShared_->Add({}).Set(0);
    ticks_->Add({});
    authoritySeconds_->Add({});
    tickDuration_->Add({}, kTickBuckets);
}

MetricsExporter::~MetricsExporter() = default;

std::unique_ptr<MetricsExporter> MetricsExporter::start(const MetricsListenAddress& address,
                                                        QString* error) {
    std::unique_ptr<MetricsExporter> exporter(new MetricsExporter());
    std::shared_ptr<const prometheus::Registry> registry = exporter->registry_;
    std::string why;
    exporter->server_ = MetricsHttpServer::listen(
        address.host.toStdString(), address.port,
        [registry] { return prometheus::TextSerializer().Serialize(registry->Collect()); }, &why,
        MetricsHttpServer::Limits{});
    if (!exporter->server_) {
        if (error)
            *error = QStringLiteral("cannot listen on %1 (%2)")
                         .arg(address.bindSpec(), QString::fromStdString(why));
        return nullptr;
    }
    return exporter;
}

int MetricsExporter::port() const {
    return server_ ? server_->port() : 0;
}

std::string MetricsExporter::fanLabel(const std::string& identity) {
    const auto at = identity.find('@');
    const auto hash = identity.rfind('#');
    if (at == std::string::npos || hash == std::string::npos || hash < at) return identity;
    return identity.substr(0, at) + " " + identity.substr(hash + 1);
}

void MetricsExporter::setOrRemove(prometheus::Family<prometheus::Gauge>& family,
                                  prometheus::Gauge*& gauge,
                                  const std::map<std::string, std::string>& labels,
                                  const std::optional<double>& value) {
    if (!value) {
        if (gauge) family.Remove(gauge);
        gauge = nullptr;
        return;
    }
    if (!gauge) gauge = &family.Add(labels);
    gauge->Set(*value);
}

void MetricsExporter::updateFans(const ControlSnapshot& snapshot) {
    const TelemetrySample& sample = snapshot.sample;
    std::set<std::string> present;
    for (std::size_t i = 0; i < sample.fanNames.size(); ++i) {
        const std::string& identity = sample.fanNames[i];
        present.insert(identity);
        FanSeries& series = fans_[identity];
        const std::map<std::string, std::string> labels = {{"fan", identity},
                                                           {"label", fanLabel(identity)}};
        auto at = [&](const std::vector<double>& values) -> std::optional<double> {
            if (i >= values.size()) return std::nullopt;
            return values[i];
        };
        std::optional<double> rpm = at(sample.fanCurrentRPM);
        if (rpm && !isReadableRPM(*rpm)) rpm.reset();
        std::optional<double> target = at(sample.fanTargetRPM);
        // Kelvo holds the fan still: a target of 0 rpm at no duty.
        const bool stopped = target && isFanStopTarget(*target);
        if (stopped)
            target = 0;
        else if (target && *target <= 0)
            target.reset();  // the firmware drives it
        std::optional<double> duty;
        const auto min = at(sample.fanMinRPM);
        const auto max = at(sample.fanMaxRPM);
        if (stopped)
            duty = 0;
        else if (target && min && max && *max > *min)
            duty = std::clamp((*target - *min) / (*max - *min), 0.0, 1.0);
        setOrRemove(*fanRpm_, series.rpm, labels, rpm);
        setOrRemove(*fanTarget_, series.target, labels, target);
        setOrRemove(*fanDuty_, series.duty, labels, duty);
    }
    // A fan that went away leaves no stale series behind.
    for (auto it = fans_.begin(); it != fans_.end();) {
        if (present.contains(it->first)) {
            ++it;
            continue;
        }
        for (auto [family, gauge] :
             {std::pair{fanRpm_, it->second.rpm}, std::pair{fanTarget_, it->second.target},
              std::pair{fanDuty_, it->second.duty}})
            if (gauge) family->Remove(gauge);
        it = fans_.erase(it);
    }
}

void MetricsExporter::update(const ControlSnapshot& snapshot,
                             const RuntimeBenefitSummary& benefits) {
    const TelemetrySample& sample = snapshot.sample;
    auto hertz = [](const std::optional<double>& mhz) -> std::optional<double> {
        if (!mhz) return std::nullopt;
        return *mhz * kMHz;
    };
    setOrRemove(*temperature_, cpuTemperature_, {{"die", "cpu"}}, sample.cpuTemperatureC);
    setOrRemove(*temperature_, gpuTemperature_, {{"die", "gpu"}}, sample.gpuTemperatureC);
    setOrRemove(*clock_, cpuClock_, {{"die", "cpu"}}, hertz(sample.cpuClockMHz));
    setOrRemove(*clock_, gpuClock_, {{"die", "gpu"}}, hertz(sample.gpuClockMHz));
    setOrRemove(*power_, totalPower_, {}, sample.totalPowerW);
    updateFans(snapshot);

    for (ControlMode mode : kAllControlModes)
        mode_->Add({{"kelvo_control_mode", std::string(rawValue(mode))}})
            .Set(mode == snapshot.mode ? 1 : 0);
    for (ControlStatus status : {ControlStatus::starting, ControlStatus::controlling,
                                 ControlStatus::monitoring, ControlStatus::fallback})
        status_->Add({{"kelvo_control_status", std::string(rawValue(status))}})
            .Set(status == snapshot.status ? 1 : 0);
    throttleWarning_->Add({}).Set(snapshot.throttleWarning ? 1 : 0);
    fansShared_->Add({}).Set(snapshot.fansShared ? 1 : 0);

    benefitSeconds_->Add({{"register", "kelvo_authority"}}).Set(benefits.kelvoAuthoritySeconds);
    benefitSeconds_->Add({{"register", "throttle_warning_avoided"}})
        .Set(benefits.throttleWarningAvoidedSeconds);
    benefitEvents_->Add({{"register", "interventions"}}).Set(benefits.interventionCount);
    benefitEvents_->Add({{"register", "throttle_warnings"}})
        .Set(benefits.throttleWarningEventCount);
    benefitEvents_->Add({{"register", "fallbacks"}}).Set(benefits.fallbackEventCount);

    ticks_->Add({}).Increment();
    if (lastTimestamp_ && snapshot.authority == ControlAuthorityState::kelvo) {
        const double gap = sample.timestamp - *lastTimestamp_;
        if (gap > 0 && gap <= kLongestCreditedGapS) authoritySeconds_->Add({}).Increment(gap);
    }
    lastTimestamp_ = sample.timestamp;
    tickDuration_->Add({}, kTickBuckets).Observe(snapshot.tickDurationSeconds);
}

}  // namespace kelvo

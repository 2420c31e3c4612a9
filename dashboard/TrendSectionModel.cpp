#include "dashboard/TrendSectionModel.h"

#include <QVariantList>

#include "dashboard/PeakPerformanceHelp.h"
#include "dashboard/PeakPerformanceTint.h"
#include "dashboard/PeakPerformanceValueText.h"
#include "dashboard/TrendReadout.h"

namespace kelvo {

namespace {
QString wholeNumber(double value) {
    return QString::number(value, 'f', 0);
}
}  // namespace

TrendSectionModel::TrendSectionModel(LiveDashboardStore* store, ModeProvider mode,
                                     QSettings* settings, QObject* parent)
    : QObject(parent), store_(store), mode_(std::move(mode)), settings_(settings) {
    if (settings_) {
        window_ =
            trendWindowModeFromRaw(settings_->value(kTrendWindowKey, QStringLiteral("fiveMinutes"))
                                       .toString()
                                       .toStdString());
        toggles_.gpu = settings_->value(kGPUSeriesKey, true).toBool();
        toggles_.cpu = settings_->value(kCPUSeriesKey, true).toBool();
        toggles_.fan = settings_->value(kFanSeriesKey, true).toBool();
        toggles_.power = settings_->value(kPowerSeriesKey, true).toBool();
    }
    if (store_) {
        connect(store_, &LiveDashboardStore::trendRevisionChanged, this,
                &TrendSectionModel::refresh);
        // The store changes the configuration during the same ingest that then bumps the
        // revision: a queued refresh lets that one recompute cover both, and still catches a
        // configuration change that comes alone.
        connect(store_, &LiveDashboardStore::gpuClockWindowAnalysisConfigChanged, this,
                &TrendSectionModel::refresh, Qt::QueuedConnection);
    }
    refresh();
}

TrendSectionComputationKey TrendSectionModel::currentKey() const {
    const std::uint64_t revision = store_ ? store_->trendRevision() : 0;
    const GPUClockWindowAnalysisConfig config =
        store_ ? store_->gpuClockWindowAnalysisConfig() : GPUClockWindowAnalysisConfig{};
    return makeTrendSectionComputationKey(revision, rawValue(window_), toggles_,
                                          mode_ ? mode_() : ControlMode::systemAuto, config);
}

template <class T>
void TrendSectionModel::publish(T& field, T value, Notifier notifier) {
    if (field == value) return;
    field = std::move(value);
    emit(this->*notifier)();
}

void TrendSectionModel::refresh() {
    TrendSectionInputs inputs;
    if (store_) {
        inputs.samples = store_->sampleHistory();
        inputs.previewPoints = store_->previewHistory();
        inputs.throttleHistory = store_->throttleHistory();
    }
    const auto before = memo_.computationCount();
    const auto& value = pinnedLiveTrendSection(memo_, currentKey(), inputs);
    if (memo_.computationCount() == before) return;

    const auto& peak = value.peakPerformanceAnalysis;
    publish(fanScaleText_, wholeNumber(value.fanScaleMaxRPM),
            &TrendSectionModel::fanScaleTextChanged);
    publish(gpuScaleText_, wholeNumber(value.gpuScaleMaxMHz),
            &TrendSectionModel::gpuScaleTextChanged);
    publish(cpuScaleText_, wholeNumber(value.cpuScaleMaxMHz),
            &TrendSectionModel::cpuScaleTextChanged);
    publish(totalPowerScaleText_, QString::fromStdString(value.totalPowerScaleText),
            &TrendSectionModel::totalPowerScaleTextChanged);
    publish(peakPerformanceValueText_,
            QString::fromStdString(kelvo::peakPerformanceValueText(peak)),
            &TrendSectionModel::peakPerformanceValueTextChanged);
    publish(peakPerformanceTint_, peakPerformanceTintColor(kelvo::peakPerformanceTint(peak)),
            &TrendSectionModel::peakPerformanceTintChanged);
    publish(peakPerformanceHelp_, QString::fromStdString(kelvo::peakPerformanceHelp(peak, window_)),
            &TrendSectionModel::peakPerformanceHelpChanged);
    if (!(snapshot_ == value.snapshot)) {
        snapshot_ = value.snapshot;
        emit snapshotChanged();
    }
}

QString TrendSectionModel::trendWindow() const {
    return QString::fromStdString(rawValue(window_));
}

void TrendSectionModel::setTrendWindow(const QString& raw) {
    const auto mode = trendWindowModeFromRaw(raw.toStdString());
    if (mode == window_) return;
    window_ = mode;
    if (settings_) settings_->setValue(kTrendWindowKey, QString::fromStdString(rawValue(mode)));
    emit trendWindowChanged();
    refresh();
}

void TrendSectionModel::setToggle(bool TrendSeriesToggles::*field, const char* settingsKey, bool on,
                                  Notifier notifier) {
    if (toggles_.*field == on) return;
    toggles_.*field = on;
    if (settings_) settings_->setValue(settingsKey, on);
    emit(this->*notifier)();
    refresh();
}

void TrendSectionModel::setShowGPUSeries(bool on) {
    setToggle(&TrendSeriesToggles::gpu, kGPUSeriesKey, on,
              &TrendSectionModel::showGPUSeriesChanged);
}
void TrendSectionModel::setShowCPUSeries(bool on) {
    setToggle(&TrendSeriesToggles::cpu, kCPUSeriesKey, on,
              &TrendSectionModel::showCPUSeriesChanged);
}
void TrendSectionModel::setShowFanSeries(bool on) {
    setToggle(&TrendSeriesToggles::fan, kFanSeriesKey, on,
              &TrendSectionModel::showFanSeriesChanged);
}
void TrendSectionModel::setShowPowerSeries(bool on) {
    setToggle(&TrendSeriesToggles::power, kPowerSeriesKey, on,
              &TrendSectionModel::showPowerSeriesChanged);
}

QVariantMap TrendSectionModel::readoutAt(double time) const {
    if (!store_) return {};
    const auto readout = trendReadout(store_->sampleHistory(), time, toggles_);
    if (!readout) return {};
    QVariantList rows;
    for (const auto& row : readout->rows)
        rows.append(QVariantMap{{QStringLiteral("series"), QString::fromStdString(row.series)},
                                {QStringLiteral("value"), QString::fromStdString(row.value)}});
    return {{QStringLiteral("time"), QString::fromStdString(readout->timeText)},
            {QStringLiteral("rows"), rows}};
}

}  // namespace kelvo

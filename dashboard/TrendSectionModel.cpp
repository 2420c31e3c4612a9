#include "dashboard/TrendSectionModel.h"

namespace kelvo {

namespace {
constexpr const char* kWindowKey = "kelvo.presentation.trend_window";
constexpr const char* kGPUKey = "kelvo.presentation.series.gpu";
constexpr const char* kCPUKey = "kelvo.presentation.series.cpu";
constexpr const char* kFanKey = "kelvo.presentation.series.fan";
constexpr const char* kPowerKey = "kelvo.presentation.series.power";
}  // namespace

TrendSectionModel::TrendSectionModel(LiveDashboardStore* store, ModeProvider mode,
                                     QSettings* settings, QObject* parent)
    : QObject(parent), store_(store), mode_(std::move(mode)), settings_(settings) {
    window_ = trendWindowModeFromRaw(
        settings_->value(kWindowKey, QStringLiteral("fiveMinutes")).toString().toStdString());
    toggles_.gpu = settings_->value(kGPUKey, true).toBool();
    toggles_.cpu = settings_->value(kCPUKey, true).toBool();
    toggles_.fan = settings_->value(kFanKey, true).toBool();
    toggles_.power = settings_->value(kPowerKey, true).toBool();
    if (store_) {
        connect(store_, &LiveDashboardStore::trendRevisionChanged, this,
                &TrendSectionModel::refresh);
        connect(store_, &LiveDashboardStore::gpuClockWindowAnalysisConfigChanged, this,
                &TrendSectionModel::refresh);
    }
}

TrendSectionComputationKey TrendSectionModel::currentKey() const {
    TrendSectionComputationKey key;
    if (store_) {
        key.trendRevision = store_->trendRevision();
        key.gpuClockWindowAnalysisConfig = store_->gpuClockWindowAnalysisConfig();
    }
    key.trendWindowModeRawValue = rawValue(window_);
    key.showGPUSeries = toggles_.gpu;
    key.showCPUSeries = toggles_.cpu;
    key.showFanSeries = toggles_.fan;
    key.showPowerSeries = toggles_.power;
    key.runtimeModeRawValue = std::string(rawValue(mode_ ? mode_() : ControlMode::systemAuto));
    return key;
}

const TrendSectionComputationValue& TrendSectionModel::value() const {
    TrendSectionInputs inputs;
    if (store_) {
        inputs.samples = store_->sampleHistory();
        inputs.previewPoints = store_->previewHistory();
        inputs.throttleHistory = store_->throttleHistory();
    }
    return memo_.value(currentKey(), inputs, wallClockNow());
}

void TrendSectionModel::refresh() {
    const auto key = currentKey();
    if (publishedKey_ && *publishedKey_ == key) return;
    publishedKey_ = key;
    value();
    emit sectionChanged();
}

QString TrendSectionModel::trendWindow() const {
    return QString::fromStdString(rawValue(window_));
}

void TrendSectionModel::setTrendWindow(const QString& raw) {
    const auto mode = trendWindowModeFromRaw(raw.toStdString());
    settings_->setValue(kWindowKey, QString::fromStdString(rawValue(mode)));
    if (mode == window_) return;
    window_ = mode;
    emit trendWindowChanged();
    refresh();
}

void TrendSectionModel::setToggle(bool TrendSeriesToggles::*field, const char* key, bool on) {
    settings_->setValue(key, on);
    if (toggles_.*field == on) return;
    toggles_.*field = on;
    emit togglesChanged();
    refresh();
}

void TrendSectionModel::setShowGPUSeries(bool on) {
    setToggle(&TrendSeriesToggles::gpu, kGPUKey, on);
}
void TrendSectionModel::setShowCPUSeries(bool on) {
    setToggle(&TrendSeriesToggles::cpu, kCPUKey, on);
}
void TrendSectionModel::setShowFanSeries(bool on) {
    setToggle(&TrendSeriesToggles::fan, kFanKey, on);
}
void TrendSectionModel::setShowPowerSeries(bool on) {
    setToggle(&TrendSeriesToggles::power, kPowerKey, on);
}

QString TrendSectionModel::totalPowerScaleText() const {
    return QString::fromStdString(value().totalPowerScaleText);
}

QString TrendSectionModel::peakPerformanceValueText() const {
    return QString::fromStdString(kelvo::peakPerformanceValueText(value().peakPerformanceAnalysis));
}

QColor TrendSectionModel::tintColor(PeakPerformanceTint tint) {
    switch (tint) {
        case PeakPerformanceTint::green: return QColor::fromRgbF(0.196f, 0.843f, 0.294f);
        case PeakPerformanceTint::yellow: return QColor::fromRgbF(1.0f, 0.839f, 0.039f);
        case PeakPerformanceTint::red: return QColor::fromRgbF(1.0f, 0.271f, 0.227f);
        case PeakPerformanceTint::secondary: break;
    }
    return QColor::fromRgbF(0.56f, 0.56f, 0.58f);
}

QColor TrendSectionModel::peakPerformanceTint() const {
    return tintColor(kelvo::peakPerformanceTint(value().peakPerformanceAnalysis));
}

QString TrendSectionModel::peakPerformanceHelp() const {
    return QString::fromStdString(kelvo::peakPerformanceHelp(
        value().peakPerformanceAnalysis, peakPerformanceWindowToken(rawValue(window_))));
}

}  // namespace kelvo

// The trend section as the dashboard binds to it: the chart's snapshot, the scale texts, the
// Peak Performance value, tint and help, and the persisted series toggles and trend window.
// It recomputes through its memo whenever a key input changes, once per change.
#pragma once

#include <QColor>
#include <QObject>
#include <QPointer>
#include <QSettings>
#include <QString>
#include <QVariantMap>
#include <functional>

#include "dashboard/PinnedLiveTrendSection.h"
#include "live/LiveDashboardStore.h"

namespace kelvo {

class TrendSectionModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString trendWindow READ trendWindow WRITE setTrendWindow NOTIFY trendWindowChanged)
    Q_PROPERTY(
        bool showGPUSeries READ showGPUSeries WRITE setShowGPUSeries NOTIFY showGPUSeriesChanged)
    Q_PROPERTY(
        bool showCPUSeries READ showCPUSeries WRITE setShowCPUSeries NOTIFY showCPUSeriesChanged)
    Q_PROPERTY(
        bool showFanSeries READ showFanSeries WRITE setShowFanSeries NOTIFY showFanSeriesChanged)
    Q_PROPERTY(bool showPowerSeries READ showPowerSeries WRITE setShowPowerSeries NOTIFY
                   showPowerSeriesChanged)
    Q_PROPERTY(QString fanScaleText READ fanScaleText NOTIFY fanScaleTextChanged)
    Q_PROPERTY(QString gpuScaleText READ gpuScaleText NOTIFY gpuScaleTextChanged)
    Q_PROPERTY(QString cpuScaleText READ cpuScaleText NOTIFY cpuScaleTextChanged)
    Q_PROPERTY(
        QString totalPowerScaleText READ totalPowerScaleText NOTIFY totalPowerScaleTextChanged)
    Q_PROPERTY(QString peakPerformanceValueText READ peakPerformanceValueText NOTIFY
                   peakPerformanceValueTextChanged)
    Q_PROPERTY(
        QColor peakPerformanceTint READ peakPerformanceTint NOTIFY peakPerformanceTintChanged)
    Q_PROPERTY(
        QString peakPerformanceHelp READ peakPerformanceHelp NOTIFY peakPerformanceHelpChanged)
public:
    using ModeProvider = std::function<ControlMode()>;

    static constexpr const char* kTrendWindowKey = "kelvo.presentation.trend_window";
    static constexpr const char* kGPUSeriesKey = "kelvo.presentation.series.gpu";
    static constexpr const char* kCPUSeriesKey = "kelvo.presentation.series.cpu";
    static constexpr const char* kFanSeriesKey = "kelvo.presentation.series.fan";
    static constexpr const char* kPowerSeriesKey = "kelvo.presentation.series.power";

    // Reads the mode from `mode`; whoever changes that mode calls refresh() (connect its
    // change signal to it). A null `settings` keeps the defaults and persists nothing.
    TrendSectionModel(LiveDashboardStore* store, ModeProvider mode, QSettings* settings,
                      QObject* parent = nullptr);

    QString trendWindow() const;
    void setTrendWindow(const QString& raw);
    bool showGPUSeries() const { return toggles_.gpu; }
    bool showCPUSeries() const { return toggles_.cpu; }
    bool showFanSeries() const { return toggles_.fan; }
    bool showPowerSeries() const { return toggles_.power; }
    void setShowGPUSeries(bool on);
    void setShowCPUSeries(bool on);
    void setShowFanSeries(bool on);
    void setShowPowerSeries(bool on);

    const QString& fanScaleText() const { return fanScaleText_; }
    const QString& gpuScaleText() const { return gpuScaleText_; }
    const QString& cpuScaleText() const { return cpuScaleText_; }
    const QString& totalPowerScaleText() const { return totalPowerScaleText_; }
    const QString& peakPerformanceValueText() const { return peakPerformanceValueText_; }
    const QColor& peakPerformanceTint() const { return peakPerformanceTint_; }
    const QString& peakPerformanceHelp() const { return peakPerformanceHelp_; }

    // What the chart host draws; replaced (and snapshotChanged emitted) only when it differs.
    const FixedViewportTrendSnapshot& snapshot() const { return snapshot_; }
    // The whole current section (maxima, newest sample time, analyses).
    const TrendSectionComputationValue& section() const { return *memo_.cachedValue(); }
    const TrendSectionMemoizer& memo() const { return memo_; }

    // The values of the shown series at `time` (seconds since the epoch), in their own units:
    // {"time": "14:05:09", "rows": [{"series", "value"}, ...]}, or an
    // empty map when no sample lies near that time.
    Q_INVOKABLE QVariantMap readoutAt(double time) const;

public slots:
    // Rebuilds the key from the store, the mode, the toggles and the window; recomputes when
    // it changed and publishes what differs.
    void refresh();

signals:
    void trendWindowChanged();
    void showGPUSeriesChanged();
    void showCPUSeriesChanged();
    void showFanSeriesChanged();
    void showPowerSeriesChanged();
    void fanScaleTextChanged();
    void gpuScaleTextChanged();
    void cpuScaleTextChanged();
    void totalPowerScaleTextChanged();
    void peakPerformanceValueTextChanged();
    void peakPerformanceTintChanged();
    void peakPerformanceHelpChanged();
    void snapshotChanged();

private:
    using Notifier = void (TrendSectionModel::*)();
    TrendSectionComputationKey currentKey() const;
    void setToggle(bool TrendSeriesToggles::*field, const char* settingsKey, bool on,
                   Notifier notifier);
    template <class T>
    void publish(T& field, T value, Notifier notifier);

    QPointer<LiveDashboardStore> store_;
    ModeProvider mode_;
    QPointer<QSettings> settings_;
    TrendWindowMode window_ = TrendWindowMode::fiveMinutes;
    TrendSeriesToggles toggles_;
    TrendSectionMemoizer memo_;

    QString fanScaleText_;
    QString gpuScaleText_;
    QString cpuScaleText_;
    QString totalPowerScaleText_;
    QString peakPerformanceValueText_;
    QColor peakPerformanceTint_;
    QString peakPerformanceHelp_;
    FixedViewportTrendSnapshot snapshot_;
};

}  // namespace kelvo

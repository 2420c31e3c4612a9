// The trend section as the dashboard binds to it: the chart's snapshot, the scale maxima, the
// Peak Performance value, tint and help, and the persisted series toggles and window.
#pragma once

#include <QColor>
#include <QObject>
#include <QPointer>
#include <QSettings>
#include <functional>

#include "dashboard/TrendSection.h"
#include "live/LiveDashboardStore.h"

namespace kelvo {

class TrendSectionModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString trendWindow READ trendWindow WRITE setTrendWindow NOTIFY trendWindowChanged)
    Q_PROPERTY(bool showGPUSeries READ showGPUSeries WRITE setShowGPUSeries NOTIFY togglesChanged)
    Q_PROPERTY(bool showCPUSeries READ showCPUSeries WRITE setShowCPUSeries NOTIFY togglesChanged)
    Q_PROPERTY(bool showFanSeries READ showFanSeries WRITE setShowFanSeries NOTIFY togglesChanged)
    Q_PROPERTY(
        bool showPowerSeries READ showPowerSeries WRITE setShowPowerSeries NOTIFY togglesChanged)
    Q_PROPERTY(double fanScaleMaxRPM READ fanScaleMaxRPM NOTIFY sectionChanged)
    Q_PROPERTY(double gpuScaleMaxMHz READ gpuScaleMaxMHz NOTIFY sectionChanged)
    Q_PROPERTY(double cpuScaleMaxMHz READ cpuScaleMaxMHz NOTIFY sectionChanged)
    Q_PROPERTY(double totalPowerScaleMaxW READ totalPowerScaleMaxW NOTIFY sectionChanged)
    Q_PROPERTY(QString totalPowerScaleText READ totalPowerScaleText NOTIFY sectionChanged)
    Q_PROPERTY(QString peakPerformanceValueText READ peakPerformanceValueText NOTIFY sectionChanged)
    Q_PROPERTY(QColor peakPerformanceTint READ peakPerformanceTint NOTIFY sectionChanged)
    Q_PROPERTY(QString peakPerformanceHelp READ peakPerformanceHelp NOTIFY sectionChanged)
public:
    using ModeProvider = std::function<ControlMode()>;

    // The caller connects its mode-change signal to refresh(); the store's revision and
    // analysis configuration are watched here.
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

    double fanScaleMaxRPM() const { return value().fanScaleMaxRPM; }
    double gpuScaleMaxMHz() const { return value().gpuScaleMaxMHz; }
    double cpuScaleMaxMHz() const { return value().cpuScaleMaxMHz; }
    double totalPowerScaleMaxW() const { return value().totalPowerScaleMaxW; }
    QString totalPowerScaleText() const;
    QString peakPerformanceValueText() const;
    QColor peakPerformanceTint() const;
    QString peakPerformanceHelp() const;

    const FixedViewportTrendSnapshot& snapshot() const { return value().snapshot; }
    const TrendSectionComputationValue& value() const;
    const TrendSectionMemoizer& memo() const { return memo_; }

    // Palette for the tint (the dashboard's theme may replace it).
    static QColor tintColor(PeakPerformanceTint tint);

public slots:
    void refresh();

signals:
    void trendWindowChanged();
    void togglesChanged();
    void sectionChanged();

private:
    TrendSectionComputationKey currentKey() const;
    void setToggle(bool TrendSeriesToggles::*field, const char* key, bool on);

    QPointer<LiveDashboardStore> store_;
    ModeProvider mode_;
    QSettings* settings_;
    TrendWindowMode window_ = TrendWindowMode::fiveMinutes;
    TrendSeriesToggles toggles_;
    mutable TrendSectionMemoizer memo_;
    std::optional<TrendSectionComputationKey> publishedKey_;
};

}  // namespace kelvo

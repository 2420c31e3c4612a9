// The chart as the dashboard places it: a thin item that owns one host item filling it and
// hands it the trend section's snapshot, the newest sample time, the plot frame and the x-axis
// reference labels whenever any of them changes.
#pragma once

#include <QPointer>
#include <QQuickItem>
#include <optional>
#include <vector>

#include "dashboard/FixedViewportTrendSnapshot.h"
#include "dashboard/TrendSectionModel.h"
#include "foundation/core/Types.h"

namespace kelvo {

class FixedViewportTrendHostItem;

class FixedViewportTrendView : public QQuickItem {
    Q_OBJECT
    Q_PROPERTY(kelvo::TrendSectionModel* model READ model WRITE setModel NOTIFY modelChanged)
    Q_PROPERTY(QRectF plotFrame READ plotFrame WRITE setPlotFrame NOTIFY plotFrameChanged)
public:
    explicit FixedViewportTrendView(QQuickItem* parent = nullptr);
    ~FixedViewportTrendView() override;

    TrendSectionModel* model() const { return model_; }
    void setModel(TrendSectionModel* model);
    const QRectF& plotFrame() const { return plotFrame_; }
    void setPlotFrame(const QRectF& frame);

    // Hands these values to the host; the reference labels are derived from the snapshot's
    // ticks and the plot frame.
    void setInputs(const FixedViewportTrendSnapshot& snapshot,
                   std::optional<Timestamp> latestSampleTimestamp);

    FixedViewportTrendHostItem* host() const { return host_; }

    // The time (seconds since the epoch) the chart shows at x, in this item's coordinates, and
    // the x where it shows a time; NaN before the first snapshot.
    Q_INVOKABLE double timeAt(double x) const;
    Q_INVOKABLE double xAt(double time) const;

    // Registers the QML types under "Kelvo.TrendRender" 1.0.
    static void registerQmlTypes();

signals:
    void modelChanged();
    void plotFrameChanged();

protected:
    void geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry) override;

private:
    void pushToHost();
    void pullFromModel();

    FixedViewportTrendHostItem* host_;
    QPointer<TrendSectionModel> model_;
    QMetaObject::Connection modelConnection_;
    QRectF plotFrame_;
    std::optional<FixedViewportTrendSnapshot> snapshot_;
    std::optional<Timestamp> latestSampleTimestamp_;
};

}  // namespace kelvo

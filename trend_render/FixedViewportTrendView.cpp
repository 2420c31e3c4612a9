#include "trend_render/FixedViewportTrendView.h"

#include <QQmlEngine>

#include "dashboard/TrendReferenceLabels.h"
#include "dashboard/TrendSectionModel.h"
#include "trend_render/FixedViewportTrendHostItem.h"

namespace kelvo {

FixedViewportTrendView::FixedViewportTrendView(QQuickItem* parent)
    : QQuickItem(parent), host_(new FixedViewportTrendHostItem(this)) {}

// The host's frame source stops with it; nothing else outlives the view.
FixedViewportTrendView::~FixedViewportTrendView() = default;

void FixedViewportTrendView::registerQmlTypes() {
    qmlRegisterType<FixedViewportTrendView>("Kelvo.TrendRender", 1, 0, "FixedViewportTrendView");
}

void FixedViewportTrendView::setModel(TrendSectionModel* model) {
    if (model_ == model) return;
    disconnect(modelConnection_);
    model_ = model;
    if (model)
        modelConnection_ = connect(model, &TrendSectionModel::snapshotChanged, this,
                                   &FixedViewportTrendView::pullFromModel);
    emit modelChanged();
    pullFromModel();
}

void FixedViewportTrendView::setPlotFrame(const QRectF& frame) {
    if (plotFrame_ == frame) return;
    plotFrame_ = frame;
    emit plotFrameChanged();
    pushToHost();
}

void FixedViewportTrendView::setInputs(const FixedViewportTrendSnapshot& snapshot,
                                       std::optional<Timestamp> latestSampleTimestamp) {
    snapshot_ = snapshot;
    latestSampleTimestamp_ = latestSampleTimestamp;
    pushToHost();
}

void FixedViewportTrendView::pullFromModel() {
    if (!model_) return;
    setInputs(model_->snapshot(), model_->section().latestSampleTimestamp);
}

void FixedViewportTrendView::pushToHost() {
    if (!snapshot_) return;
    host_->update(*snapshot_, latestSampleTimestamp_, plotFrame_,
                  fixedViewportTrendReferenceXAxisLabels(snapshot_->xAxisTicks, plotFrame_));
}

void FixedViewportTrendView::geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry) {
    QQuickItem::geometryChange(newGeometry, oldGeometry);
    host_->setSize(newGeometry.size());
}

double FixedViewportTrendView::timeAt(double x) const {
    return host_->timeAtX(x);
}

double FixedViewportTrendView::xAt(double time) const {
    return host_->xAtTime(time);
}

}  // namespace kelvo

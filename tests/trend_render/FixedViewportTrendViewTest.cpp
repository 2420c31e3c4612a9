#include <gtest/gtest.h>

#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <memory>

#include "TrendTestSupport.h"
#include "live/LiveDashboardStore.h"
#include "trend_render/FixedViewportTrendHostItem.h"
#include "trend_render/FixedViewportTrendView.h"

namespace kelvo {
namespace {

LiveSnapshot liveSnapshotAt(Timestamp t) {
    LiveSnapshot s;
    s.sample.timestamp = t;
    s.sample.cpuTemperatureC = 60;
    s.sample.gpuTemperatureC = 55;
    s.sample.cpuClockMHz = 3000;
    s.sample.gpuClockMHz = 1200;
    s.sample.totalPowerW = 40;
    return s;
}

TEST(FixedViewportTrendView, HandsTheModelsSnapshotAndNewestSampleToItsHost) {
    LiveDashboardStore store;
    TrendSectionModel model(
        &store, [] { return ControlMode::quiet; }, nullptr);
    QQuickWindow window;
    auto* view = new FixedViewportTrendView(window.contentItem());
    view->setSize(QSizeF(400, 300));
    view->setPlotFrame(QRectF(20, 20, 360, 210));
    view->setModel(&model);
    FixedViewportTrendHostItem* host = view->host();
    EXPECT_EQ(host->size(), QSizeF(400, 300)) << "the host fills the view";
    ASSERT_TRUE(host->snapshot().has_value()) << "the model's current snapshot";

    const Timestamp t = wallClockNow();
    store.ingest(liveSnapshotAt(t));
    store.ingest(liveSnapshotAt(t + 1));
    ASSERT_TRUE(test::waitFor(
        [&] { return host->snapshot()->viewportDomain.referenceUpperBound == t + 1; }));
    EXPECT_EQ(*host->snapshot(), model.snapshot());
    EXPECT_EQ(host->liveAnimationUpperBound(*host->snapshot()), t + 1 + 1)
        << "the newest sample plus the one-second reveal";
}

TEST(FixedViewportTrendView, ReferenceLabelsFollowThePlotFrame) {
    QQuickWindow window;
    auto* view = new FixedViewportTrendView(window.contentItem());
    view->setSize(QSizeF(400, 300));
    const Timestamp r = 1'700'000'000;
    FixedViewportTrendSnapshot snapshot = test::snapshotEndingAt(r);
    snapshot.xAxisTicks.push_back({r - 31, FixedViewportTrendAxisLabels::text(r - 31, 60), 0.5});
    view->setPlotFrame(QRectF(20, 20, 360, 210));
    view->setInputs(snapshot, r);
    ASSERT_EQ(view->host()->scrollingLabelStates().size(), 1u);
    EXPECT_DOUBLE_EQ(view->host()->scrollingLabelStates()[0].rawX, 200);
    view->setPlotFrame(QRectF(40, 20, 300, 210));
    EXPECT_DOUBLE_EQ(view->host()->scrollingLabelStates()[0].rawX, 190);
}

TEST(FixedViewportTrendView, IsAvailableToQml) {
    FixedViewportTrendView::registerQmlTypes();
    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData(
        "import QtQuick\n"
        "import Kelvo.TrendRender 1.0\n"
        "FixedViewportTrendView { width: 300; height: 120; plotFrame: Qt.rect(10, 8, 280, 90) }\n",
        QUrl());
    std::unique_ptr<QObject> object(component.create());
    ASSERT_TRUE(object) << component.errorString().toStdString();
    auto* view = qobject_cast<FixedViewportTrendView*>(object.get());
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->plotFrame(), QRectF(10, 8, 280, 90));
    EXPECT_EQ(view->host()->size(), QSizeF(300, 120));
}

}  // namespace
}  // namespace kelvo

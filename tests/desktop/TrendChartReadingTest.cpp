// The trend chart can be read: values and units on both axes, placed on the grid lines the
// renderer draws, and a readout of every shown series at the pointer and at the keyboard cursor.
#include <QImage>
#include <QQuickItem>
#include <cmath>
#include <set>

#include "DesktopTestSupport.h"
#include "dashboard/TrendSectionModel.h"
#include "trend_render/FixedViewportTrendHostItem.h"
#include "trend_render/FixedViewportTrendView.h"

namespace kelvo::testing {
namespace {

class TrendChartReading : public DesktopFixture {
protected:
    void openWithData() {
        openDashboard();
        chart = qobject_cast<FixedViewportTrendView*>(item("trend-chart-live"));
        ASSERT_NE(chart, nullptr);
        scrollIntoView(chart);
        // A few seconds of samples, so that the pointer finds some near the right edge.
        ASSERT_TRUE(waitFor(
            [&] {
                const auto newest = window()->trendModel()->section().latestSampleTimestamp;
                return chart->host()->snapshot().has_value() && newest &&
                       !std::isnan(chart->timeAt(plot().left())) &&
                       *newest - chart->timeAt(plot().left()) > 3;
            },
            20000));
        settle();
    }
    QRectF plot() const { return chart->plotFrame(); }
    // An item's rectangle in the chart's coordinates.
    QRectF inChart(QQuickItem* item) const {
        return item->mapRectToItem(chart, QRectF(0, 0, item->width(), item->height()));
    }
    QPoint inWindow(QPointF chartPoint) const { return chart->mapToScene(chartPoint).toPoint(); }
    QStringList readoutRows() const {
        QStringList rows;
        const QVariantMap readout = overlay()->property("readout").toMap();
        for (const QVariant& row : readout.value("rows").toList())
            rows << row.toMap().value("series").toString() + "=" +
                        row.toMap().value("value").toString();
        return rows;
    }
    QQuickItem* overlay() const { return item("trend-chart-overlay"); }

    FixedViewportTrendView* chart = nullptr;
};

TEST_F(TrendChartReading, TheLeftAxisLabelsEveryGridLineAndSaysItsUnits) {
    openWithData();
    for (int value : {0, 20, 40, 60, 80, 100}) {
        QQuickItem* label = item(QStringLiteral("trend-axis-left-%1").arg(value));
        ASSERT_NE(label, nullptr) << value;
        EXPECT_EQ(label->property("text").toString(), QString::number(value));
        const QRectF r = inChart(label);
        // Centred on its grid line (y = 1 − v / 105 of the plot), left of the plot.
        EXPECT_NEAR(r.center().y(), plot().top() + (1 - value / 105.0) * plot().height(), 1.0)
            << value;
        EXPECT_LE(r.right(), plot().left());
        EXPECT_GE(r.left(), 0);
    }
    QQuickItem* unit = item("trend-axis-left-unit");
    ASSERT_NE(unit, nullptr);
    EXPECT_EQ(unit->property("text").toString(), QString::fromUtf8("°C · %"));
    EXPECT_LE(inChart(unit).bottom(), plot().top());
    EXPECT_GE(inChart(unit).top(), 0);
}

TEST_F(TrendChartReading, TheRightAxisShowsWattsWhileThePowerSeriesIsShown) {
    openWithData();
    TrendSectionModel* trend = window()->trendModel();
    ASSERT_TRUE(trend->showPowerSeries());
    const double max = trend->totalPowerScaleText().toDouble();
    ASSERT_GT(max, 1);
    QQuickItem* top = item("trend-axis-right-100");
    QQuickItem* middle = item("trend-axis-right-40");
    ASSERT_NE(top, nullptr);
    ASSERT_NE(middle, nullptr);
    EXPECT_NEAR(top->property("text").toString().toDouble(), max, max >= 10 ? 0.5 : 0.05);
    EXPECT_NEAR(middle->property("text").toString().toDouble(), max * 0.4, max >= 10 ? 0.5 : 0.05);
    EXPECT_GE(inChart(top).left(), plot().right());
    EXPECT_LE(inChart(top).right(), chart->width());
    EXPECT_TRUE(item("trend-axis-right-unit")->isVisible());

    trend->setShowPowerSeries(false);
    EXPECT_TRUE(waitFor([&] { return item("trend-axis-right-100") == nullptr; }));
    EXPECT_FALSE(item("trend-axis-right-unit")->isVisible());
}

TEST_F(TrendChartReading, ThePointerReadsEveryShownSeriesInItsOwnUnit) {
    openWithData();
    QQuickItem* readout = item("trend-readout");
    ASSERT_NE(readout, nullptr);
    EXPECT_FALSE(readout->isVisible()) << "nothing is pointed at yet";

    const QPointF at(plot().right() - 20, plot().center().y());
    QTest::mouseMove(window(), inWindow(at));
    ASSERT_TRUE(waitFor([&] { return readout->isVisible(); })) << "the readout appears";
    const QStringList rows = readoutRows();
    ASSERT_EQ(rows.size(), 6) << rows.join(", ").toStdString();
    EXPECT_TRUE(rows[0].startsWith("GPU Clock=") && rows[0].endsWith(" MHz"))
        << rows[0].toStdString();
    EXPECT_TRUE(rows[1].startsWith("GPU Temp=") && rows[1].endsWith(QString::fromUtf8(" °C")));
    EXPECT_TRUE(rows[3].startsWith("CPU Temp=") && rows[3].endsWith(QString::fromUtf8(" °C")));
    EXPECT_TRUE(rows[4].startsWith("Fan Speed=") && rows[4].endsWith(" RPM"));
    EXPECT_TRUE(rows[5].startsWith("Watts=") && rows[5].endsWith(" W"));

    // The box lies inside the plot, beside the cursor line, which sits under the pointer.
    settle();  // the box takes its size from its rows when the layout is polished
    QQuickItem* cursor = item("trend-cursor");
    ASSERT_TRUE(cursor->isVisible());
    EXPECT_NEAR(inChart(cursor).left(), at.x(), 1.0);
    const QRectF box = inChart(readout);
    EXPECT_GT(box.width(), 100);
    EXPECT_GT(box.height(), 6 * 12) << "a line for the time and one per series";
    EXPECT_TRUE(plot().contains(box)) << "box inside the plot";
    EXPECT_TRUE(box.right() <= at.x() || box.left() >= at.x()) << "beside the cursor";

    // Real pixels: the box is drawn, with text in it.
    const QImage frame = window()->grabWindow();
    const QRect inFrame =
        chart->mapRectToScene(box).toRect().intersected(frame.rect()).adjusted(2, 2, -2, -2);
    std::set<QRgb> colours;
    for (int y = inFrame.top(); y <= inFrame.bottom(); ++y)
        for (int x = inFrame.left(); x <= inFrame.right(); ++x)
            colours.insert(frame.pixel(x * frame.width() / window()->width(),
                                       y * frame.height() / window()->height()));
    EXPECT_GT(colours.size(), 8u) << "text and series dots are drawn in the box";

    // Hiding a pair of series takes both of its rows away.
    window()->trendModel()->setShowGPUSeries(false);
    EXPECT_TRUE(waitFor([&] { return readoutRows().size() == 4; }));
    EXPECT_TRUE(readoutRows().first().startsWith("CPU Clock="));

    // Over a stretch without samples (the left of a fresh 5-minute chart) there is nothing to
    // read: neither box nor a lone line.
    QTest::mouseMove(window(), inWindow(QPointF(plot().left() + 5, plot().center().y())));
    EXPECT_TRUE(waitFor([&] { return !readout->isVisible(); }));
    EXPECT_FALSE(cursor->isVisible());
    QTest::mouseMove(window(), inWindow(at));
    EXPECT_TRUE(waitFor([&] { return readout->isVisible() && cursor->isVisible(); }));

    // Off the plot, the readout goes.
    QTest::mouseMove(window(), inWindow(QPointF(plot().left() - 30, plot().center().y())));
    EXPECT_TRUE(waitFor([&] { return !readout->isVisible(); }));
}

TEST_F(TrendChartReading, TheArrowKeysMoveACursorThatReadsTheSamplesToo) {
    openWithData();
    QQuickItem* over = overlay();
    ASSERT_NE(over, nullptr);
    over->forceActiveFocus(Qt::TabFocusReason);
    ASSERT_TRUE(waitFor([&] { return over->hasActiveFocus(); }));
    EXPECT_TRUE(item("trend-focus-frame")->isVisible());
    QQuickItem* cursor = item("trend-cursor");
    ASSERT_TRUE(waitFor([&] { return cursor->isVisible(); }));
    const double start = inChart(cursor).left();
    EXPECT_NEAR(start, plot().right() - 1, 1.0) << "the cursor starts at the newest sample";

    QTest::keyClick(window(), Qt::Key_Left);
    QTest::keyClick(window(), Qt::Key_Left);
    const double step = plot().width() / 60;
    EXPECT_TRUE(waitFor([&] { return std::abs(inChart(cursor).left() - (start - 2 * step)) < 1; }));
    EXPECT_TRUE(waitFor([&] { return item("trend-readout")->isVisible(); }));
    EXPECT_EQ(readoutRows().size(), 6);
    EXPECT_TRUE(accessibleName(over).contains("CPU Temp")) << accessibleName(over).toStdString();

    QTest::keyClick(window(), Qt::Key_Home);
    EXPECT_TRUE(waitFor([&] { return std::abs(inChart(cursor).left() - plot().left()) < 1; }));
    QTest::keyClick(window(), Qt::Key_End);
    EXPECT_TRUE(waitFor([&] { return std::abs(inChart(cursor).left() - start) < 1; }));
}

TEST_F(TrendChartReading, LinkedTogglesAreDrawnAsOneControlThatLightsUpTogether) {
    openDashboard();
    settle();
    QQuickItem* pill = item("trend-series-pair-gpu");
    QQuickItem* clock = item("trend-series-gpu-clock");
    QQuickItem* temp = item("trend-series-gpu-temp");
    ASSERT_TRUE(pill && clock && temp);
    scrollIntoView(pill);
    const QRectF around = pill->mapRectToScene(QRectF(0, 0, pill->width(), pill->height()));
    for (QQuickItem* toggle : {clock, temp}) {
        const QRectF r = toggle->mapRectToScene(QRectF(0, 0, toggle->width(), toggle->height()));
        EXPECT_LE(around.left(), r.left());
        EXPECT_GE(around.right(), r.right());
        EXPECT_NEAR(around.center().y(), r.center().y(), 1.0);
    }
    EXPECT_EQ(pill->property("color").value<QColor>().alpha(), 0);
    QTest::mouseMove(window(),
                     temp->mapToScene(QPointF(temp->width() / 2, temp->height() / 2)).toPoint());
    EXPECT_TRUE(waitFor([&] { return pill->property("color").value<QColor>().alpha() > 0; }))
        << "pointing at one half lights the whole pair";
    EXPECT_EQ(item("trend-series-pair-cpu")->property("color").value<QColor>().alpha(), 0);
}

}  // namespace
}  // namespace kelvo::testing

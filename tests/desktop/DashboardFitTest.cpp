// The dashboard as a new user first sees it, on whatever screen this run has (ctest runs these
// again on 1280×720, 1366×768, 1920×1080 and 1366×768 at twice the scale): the window fits the
// screen, no card cuts off its content, and everything can be reached by scrolling.
#include <QGuiApplication>
#include <QScreen>

#include "DesktopTestSupport.h"
#include "desktop/DashboardLayout.h"

namespace kelvo::testing {
namespace {

using presentation::AppSurfaceSelection;

constexpr double kTolerance = 0.5;

class DashboardFit : public DesktopFixture {
protected:
    QRect screenArea() const { return window()->screen()->availableGeometry(); }
    QObject* scroller() const {
        return window()->rootObject()->findChild<QObject*>(QStringLiteral("dashboard-scroll"));
    }
    double contentMinimumWidth() const {
        return window()->rootObject()->property("minimumContentWidth").toDouble();
    }

    // The width an item needs to show what it holds: a text's painted width, a control's
    // natural width; other items (layouts, positioners, the chart) are judged by their children.
    static double neededWidth(QQuickItem* item) {
        if (item->inherits("QQuickText"))
            return std::max(item->width(), item->property("paintedWidth").toDouble());
        if (item->inherits("QQuickControl")) return std::max(item->width(), item->implicitWidth());
        return item->width();
    }

    // What lies outside `container` or is narrower than it needs to be, one line per item.
    static QStringList escapees(QQuickItem* container, const QString& name) {
        QStringList found;
        const QRectF bounds(0, 0, container->width(), container->height());
        std::function<void(QQuickItem*)> visit = [&](QQuickItem* item) {
            for (QQuickItem* child : item->childItems()) {
                if (!child->isVisible() || child->opacity() <= 0) continue;
                if (child->width() > 0 && child->height() > 0) {
                    const QRectF rect = child->mapRectToItem(
                        container, QRectF(0, 0, neededWidth(child), child->height()));
                    if (!bounds.adjusted(-kTolerance, -kTolerance, kTolerance, kTolerance)
                             .contains(rect))
                        found << QStringLiteral("%1: %2 '%3' %4 at %5,%6 %7x%8 outside %9x%10")
                                     .arg(name,
                                          QString::fromLatin1(child->metaObject()->className()),
                                          child->objectName(), child->property("text").toString())
                                     .arg(rect.x())
                                     .arg(rect.y())
                                     .arg(rect.width())
                                     .arg(rect.height())
                                     .arg(bounds.width())
                                     .arg(bounds.height());
                }
                visit(child);
            }
        };
        visit(container);
        return found;
    }

    // Every visible item under `container` lies inside it, at the width it needs. A row that
    // arrived since the last frame (a new event line) has its natural width until the layout
    // polishes it before the next frame, which is when a user could see it: so this waits for a
    // frame in which nothing escapes, and reports what still escapes when none comes.
    void expectHoldsItsContent(QQuickItem* container, const QString& name) {
        QStringList found;
        const bool held = waitFor([&] {
            found = escapees(container, name);
            if (!found.isEmpty()) window()->update();
            return found.isEmpty();
        });
        EXPECT_TRUE(held) << found.join(QLatin1Char('\n')).toStdString();
    }

    void expectNothingClipped() {
        for (const char* name : {"topbar-utility", "card-trend", "card-live-metrics",
                                 "card-capture-primary", "surface-advanced", "surface-capture"}) {
            QQuickItem* region = item(QString::fromLatin1(name));
            // A surface's detail exists only while its surface is chosen.
            const bool alwaysThere = !QByteArray(name).startsWith("surface-");
            if (alwaysThere) {
                ASSERT_NE(region, nullptr) << name;
            }
            if (!region || !region->isVisible()) continue;
            expectHoldsItsContent(region, QString::fromLatin1(name));
            // The region itself lies inside the scrolled content, between the gutters.
            const QRectF inContent = region->mapRectToItem(
                window()->rootObject(), QRectF(0, 0, region->width(), region->height()));
            const double contentWidth = scroller()->property("contentWidth").toDouble();
            const double contentX = scroller()->property("contentX").toDouble();
            EXPECT_LE(inContent.right() + contentX,
                      contentWidth - dashboard_layout::windowGutter + kTolerance)
                << name << " reaches past the content's right gutter";
        }
    }

    // Scrolls (both ways) until the rectangle, in `target`'s coordinates, is in view, and
    // returns it in window coordinates.
    QRectF scrollToShow(QQuickItem* target, const QRectF& rect) {
        QObject* flickable = scroller();
        const QRectF inWindow = target->mapRectToScene(rect);
        const auto scrollAxis = [&](const char* position, const char* extent, double start,
                                    double length, double windowLength) {
            const double current = flickable->property(position).toDouble();
            const double max = std::max(0.0, flickable->property(extent).toDouble() - windowLength);
            double wanted = current;
            if (start < 0 || start + length > windowLength)
                wanted = std::clamp(current + start - 8, 0.0, max);
            flickable->setProperty(position, wanted);
        };
        scrollAxis("contentX", "contentWidth", inWindow.x(), inWindow.width(), window()->width());
        scrollAxis("contentY", "contentHeight", inWindow.y(), inWindow.height(),
                   window()->height());
        return target->mapRectToScene(rect);
    }

    // Scrolls the item into view both ways and clicks its middle, as a user would.
    void clickShown(const QString& identifier) {
        QQuickItem* target = item(identifier);
        ASSERT_NE(target, nullptr) << identifier.toStdString();
        const QRectF shown = scrollToShow(target, QRectF(0, 0, target->width(), target->height()));
        QTest::mouseClick(window(), Qt::LeftButton, Qt::NoModifier, shown.center().toPoint());
    }

    void expectReachable(QQuickItem* target, const QRectF& rect, const char* what) {
        const QRectF shown = scrollToShow(target, rect);
        const QRectF windowRect(0, 0, window()->width(), window()->height());
        EXPECT_TRUE(
            windowRect.adjusted(-kTolerance, -kTolerance, kTolerance, kTolerance).contains(shown))
            << what << " at " << shown.x() << "," << shown.y() << " " << shown.width() << "x"
            << shown.height() << " in a " << window()->width() << "x" << window()->height()
            << " window";
    }

    void expectWindowInsideScreen() {
        const QRect area = screenArea();
        const QRect frame = window()->frameGeometry();
        EXPECT_TRUE(area.contains(frame))
            << "frame " << frame.x() << "," << frame.y() << " " << frame.width() << "x"
            << frame.height() << " on a screen area " << area.x() << "," << area.y() << " "
            << area.width() << "x" << area.height();
    }

    // The chart's plot, the newest data at its right edge, and the Peak Performance figure.
    void expectChartAndPeakPerformanceVisible() {
        QQuickItem* chart = item(QStringLiteral("trend-chart-live"));
        ASSERT_NE(chart, nullptr);
        const QRectF plot = chart->property("plotFrame").toRectF();
        ASSERT_GT(plot.width(), 100) << "the plot has room to draw";
        expectReachable(chart, plot, "the plot");
        QQuickItem* value = item(QStringLiteral("trend-peak-performance-value"));
        ASSERT_NE(value, nullptr);
        EXPECT_TRUE(value->isVisible());
        EXPECT_FALSE(value->property("text").toString().isEmpty());
        expectReachable(value, QRectF(0, 0, neededWidth(value), value->height()),
                        "the Peak Performance value");
    }

    void expectScrollBarsFollowTheContent() {
        QObject* flickable = scroller();
        for (const auto& [axis, extent, size] :
             {std::tuple{"vertical", "contentHeight", window()->height()},
              std::tuple{"horizontal", "contentWidth", window()->width()}}) {
            auto* bar = window()->rootObject()->findChild<QQuickItem*>(
                QStringLiteral("dashboard-scroll-") + QLatin1String(axis));
            ASSERT_NE(bar, nullptr) << axis;
            const bool overflows = flickable->property(extent).toDouble() > size + kTolerance;
            EXPECT_EQ(bar->isVisible() && bar->opacity() > 0, overflows)
                << axis << " scroll bar while the content " << (overflows ? "overflows" : "fits")
                << ": content " << flickable->property(extent).toDouble() << " in " << size
                << ", bar visible " << bar->isVisible() << " opacity " << bar->opacity() << " size "
                << bar->property("size").toDouble() << " policy " << bar->property("policy").toInt()
                << " flickable height " << flickable->property("height").toDouble() << " root "
                << window()->rootObject()->height() << " window " << window()->height();
        }
    }
};

TEST_F(DashboardFit, AFreshWindowFitsTheScreenAndCutsNothingOff) {
    openDashboard();
    settle();
    expectWindowInsideScreen();
    const QRect area = screenArea();
    EXPECT_GE(window()->width(), std::min<double>(contentMinimumWidth(), area.width()) - 1)
        << "the first launch opens at the width where everything fits, or the screen's";
    EXPECT_GE(contentMinimumWidth(), dashboard_layout::minimumContentWidth);
    expectNothingClipped();
    expectChartAndPeakPerformanceVisible();
    expectScrollBarsFollowTheContent();
}

TEST_F(DashboardFit, AtTheMinimumWidthEveryCardHoldsItsContent) {
    openDashboard();
    window()->resize(window()->minimumWidth(), window()->height());
    ASSERT_TRUE(waitFor([&] { return window()->width() == window()->minimumWidth(); }));
    settle();
    EXPECT_GE(window()->minimumWidth(),
              std::min<double>(dashboard_layout::minimumContentWidth, screenArea().width()) - 1);
    for (const AppSurfaceSelection surface :
         {AppSurfaceSelection::dashboard, AppSurfaceSelection::advanced,
          AppSurfaceSelection::capture}) {
        SCOPED_TRACE(presentation::rawValue(surface).toStdString());
        runtime->presentation()->setSelectedSurface(surface);
        settle();
        expectNothingClipped();
        expectChartAndPeakPerformanceVisible();
        expectScrollBarsFollowTheContent();
    }
}

TEST_F(DashboardFit, AtTheScreensFullSizeEveryCardHoldsItsContent) {
    openDashboard();
    const QRect area = screenArea();
    window()->setGeometry(area);
    ASSERT_TRUE(waitFor([&] { return window()->width() == area.width(); }));
    settle();
    expectNothingClipped();
    expectChartAndPeakPerformanceVisible();
    expectScrollBarsFollowTheContent();
}

TEST_F(DashboardFit, OnEverySurfaceAndPlacementTheWindowFitsAndStartCanBeReached) {
    struct Placement {
        const char* name;
        bool width;
        bool position;
    };
    for (const Placement placement :
         {Placement{"none saved", false, false}, Placement{"width saved", true, false},
          Placement{"width and position saved", true, true}}) {
        for (const AppSurfaceSelection surface :
             {AppSurfaceSelection::dashboard, AppSurfaceSelection::advanced,
              AppSurfaceSelection::capture}) {
            SCOPED_TRACE(std::string(placement.name) + ", " +
                         presentation::rawValue(surface).toStdString());
            controller.reset();
            for (const char* key :
                 {AppLifecycleController::kContentWidthKey, AppLifecycleController::kTopLeftXKey,
                  AppLifecycleController::kTopLeftYKey})
                settings->remove(QLatin1String(key));
            // Saved wide and low on a bigger screen than this one.
            if (placement.width)
                settings->setValue(AppLifecycleController::kContentWidthKey, 1100.0);
            if (placement.position) {
                settings->setValue(AppLifecycleController::kTopLeftXKey, 30.0);
                settings->setValue(AppLifecycleController::kTopLeftYKey, 400.0);
            }
            if (!runtime) startRuntime();
            runtime->presentation()->setSelectedSurface(surface);
            openDashboard();
            settle();
            expectWindowInsideScreen();
            const double contentHeight = scroller()->property("contentHeight").toDouble();
            ASSERT_GT(contentHeight, 0);
            EXPECT_LE(window()->height(), screenArea().height());
            QQuickItem* start = item(QStringLiteral("capture-start-beta"));
            ASSERT_NE(start, nullptr);
            expectReachable(start, QRectF(0, 0, neededWidth(start), start->height()),
                            "the Start Beta Capture button");
            expectScrollBarsFollowTheContent();
        }
    }
}

TEST_F(DashboardFit, ChoosingASurfaceScrollsItsDetailIntoView) {
    openDashboard();
    settle();
    for (const char* surface : {"capture", "advanced"}) {
        SCOPED_TRACE(surface);
        clickShown(QStringLiteral("surface-selection-") + QLatin1String(surface));
        QQuickItem* detail = item(QStringLiteral("surface-") + QLatin1String(surface));
        ASSERT_NE(detail, nullptr);
        ASSERT_TRUE(waitFor([&] {
            const double top = detail->mapToScene(QPointF(0, 0)).y();
            return detail->isVisible() && top >= 0 && top < window()->height() - 40;
        })) << "the chosen surface's detail starts inside the window";
    }
    clickShown(QStringLiteral("surface-selection-dashboard"));
    EXPECT_TRUE(waitFor([&] { return scroller()->property("contentY").toDouble() == 0; }))
        << "the dashboard surface is the top of the window";
}

TEST_F(DashboardFit, TheMinimumWidthHoldsTheTopBarAtItsFixedWidths) {
    openDashboard();
    window()->resize(window()->minimumWidth(), window()->height());
    ASSERT_TRUE(waitFor([&] { return window()->width() == window()->minimumWidth(); }));
    settle();
    QQuickItem* slider = item(QStringLiteral("control-public-mode"));
    QQuickItem* picker = item(QStringLiteral("surface-selection"));
    EXPECT_EQ(slider->width(), dashboard_layout::utilityModeSliderWidth);
    EXPECT_EQ(picker->width(), dashboard_layout::utilitySurfacePickerWidth);
    QQuickItem* topBar = item(QStringLiteral("topbar-utility"));
    const double sliderRight = slider->mapRectToItem(topBar, slider->boundingRect()).right();
    const double pickerLeft = picker->mapRectToItem(topBar, picker->boundingRect()).left();
    EXPECT_GE(pickerLeft - sliderRight, dashboard_layout::utilityTopBarMinimumSlack - kTolerance)
        << "the slack between slider and picker";
    EXPECT_LE(picker->mapRectToItem(topBar, picker->boundingRect()).right(),
              topBar->width() + kTolerance);
}

}  // namespace
}  // namespace kelvo::testing

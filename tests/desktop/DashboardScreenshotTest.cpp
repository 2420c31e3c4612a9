// Saves the dashboard as it looks after ten seconds on the simulated machine, in the light and
// the dark palette, and checks that the chart drew real lines.
#include <QDir>
#include <QImage>
#include <QPalette>
#include <QQuickWindow>
#include <QSet>

#include "DesktopTestSupport.h"
#include "tools/screenshots/ScreenshotPalettes.h"

namespace kelvo::testing {
namespace {

QImage grabAfterNextFrame(QQuickWindow* window) {
    bool swapped = false;
    auto connection = QObject::connect(
        window, &QQuickWindow::frameSwapped, window, [&swapped] { swapped = true; },
        Qt::QueuedConnection);
    window->update();
    EXPECT_TRUE(waitFor([&] { return swapped; })) << "a frame reached the screen";
    QObject::disconnect(connection);
    return window->grabWindow();
}

struct ChartPixels {
    int distinctColours = 0;
    int seriesPixels = 0;  // strongly coloured pixels: the series lines
};

ChartPixels inspect(const QImage& image, const QRect& area) {
    ChartPixels result;
    QSet<QRgb> colours;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) {
            const QColor c = image.pixelColor(x, y);
            colours.insert(c.rgb());
            if (c.hsvSaturation() > 120 && c.value() > 90) ++result.seriesPixels;
        }
    result.distinctColours = static_cast<int>(colours.size());
    return result;
}

class DashboardScreenshot : public DesktopFixture {
protected:
    QString shotPath(const QString& name) const {
        const QString dir = QStringLiteral(KELVO_BINARY_DIR "/screenshots");
        QDir().mkpath(dir);
        return dir + QLatin1Char('/') + name;
    }
    void checkChart(const QImage& shot, const char* palette) {
        QQuickItem* chart = item(QStringLiteral("trend-chart-live"));
        const QRect area = chart->mapRectToScene(QRectF(0, 0, chart->width(), chart->height()))
                               .toAlignedRect()
                               .intersected(shot.rect());
        ASSERT_FALSE(area.isEmpty()) << palette << ": the chart is in the window";
        const ChartPixels pixels = inspect(shot, area);
        EXPECT_GT(pixels.distinctColours, 20) << palette;
        // Ten seconds fill a sixth of the one-minute window: five series lines of that length.
        EXPECT_GT(pixels.seriesPixels, area.width() / 2)
            << palette << ": the series lines are drawn";
    }
};

TEST_F(DashboardScreenshot, TenSecondsOfSimulatedDataInLightAndDarkPalettes) {
    const QPalette original = QGuiApplication::palette();
    openDashboard();
    window()->resize(1000, 1000);
    click(QStringLiteral("control-trend-window-oneMinute"));
    // Ten seconds of samples, however long the machine takes to produce them.
    ASSERT_TRUE(waitFor(
        [&] {
            const auto& history = runtime->live()->sampleHistory();
            return history.size() >= 2 &&
                   history.back().timestamp - history.front().timestamp >= 10;
        },
        60000));

    const QImage light = grabAfterNextFrame(window());
    ASSERT_FALSE(light.isNull());
    EXPECT_TRUE(light.save(shotPath(QStringLiteral("dashboard-light.png"))));
    checkChart(light, "light");

    QGuiApplication::setPalette(darkDesktopPalette());
    ASSERT_TRUE(waitFor([&] {
        const QImage shot = grabAfterNextFrame(window());
        return !shot.isNull() && shot.pixelColor(5, 5).lightness() < 80;
    })) << "the dark palette reached the window";
    const QImage dark = grabAfterNextFrame(window());
    QGuiApplication::setPalette(original);
    ASSERT_FALSE(dark.isNull());
    EXPECT_TRUE(dark.save(shotPath(QStringLiteral("dashboard-dark.png"))));
    checkChart(dark, "dark");
    // The palette reached the window: its background is dark now.
    EXPECT_LT(dark.pixelColor(5, 5).lightness(), 80);
    EXPECT_GT(light.pixelColor(5, 5).lightness(), 150);

    // The advanced surface adds its detail below the deck.
    click(QStringLiteral("surface-selection-advanced"));
    QQuickItem* advanced = nullptr;
    ASSERT_TRUE(waitFor([&] {
        advanced = item(QStringLiteral("surface-advanced"));
        return advanced && advanced->isVisible() && advanced->height() > 200;
    }));
    scrollIntoView(advanced);
    const QImage detail = grabAfterNextFrame(window());
    EXPECT_TRUE(detail.save(shotPath(QStringLiteral("dashboard-advanced.png"))));
    EXPECT_GT(advanced->height(), 200) << "fans, sensors, throttle and events are listed";
}

}  // namespace
}  // namespace kelvo::testing

#include <gtest/gtest.h>

#include <QQuickWindow>
#include <memory>

#include "RendererProbeItem.h"
#include "TrendTestSupport.h"
#include "trend_render/TrendRootNode.h"

namespace kelvo {
namespace {

using test::isRed;

const TrendColor kRed{1, 0, 0, 1};
// A 360 × 210 plot: two pixels per unit of the 105 range.
const QRectF kPlot{20, 20, 360, 210};
const TrendChartAppearance kLight =
    TrendChartAppearance::fromPalette(QPalette(Qt::black, Qt::white));

int rowOf(double value) {
    return static_cast<int>(20 + (105 - value) * 2);
}

class RendererPixels : public ::testing::Test {
protected:
    void SetUp() override {
        window = std::make_unique<QQuickWindow>();
        window->setColor(Qt::white);
        window->resize(400, 300);
        probe = new test::RendererProbeItem(window->contentItem());
        probe->setSize(QSizeF(400, 300));
        probe->clip = kPlot.adjusted(0, 0, 0, 4);  // as the host clips: ticks included
        probe->attach(window.get());
        QObject::connect(window.get(), &QQuickWindow::frameSwapped, window.get(),
                         [this] { ++frames; });
        window->show();
        ASSERT_TRUE(test::waitFor([this] { return window->isExposed() && frames > 0; }));
    }

    // Asks for one frame, waits until it is on screen, and reads it back. The renderer draws
    // nothing while an earlier frame is in flight (a read-back can leave one), so it asks again
    // until a frame of its own was drawn.
    QImage frame() {
        const auto drawn = probe->renderer.drawnFrameCount();
        for (int attempt = 0; attempt < 20 && probe->renderer.drawnFrameCount() == drawn;
             ++attempt) {
            const int before = frames;
            probe->update();
            EXPECT_TRUE(test::waitFor([&] { return frames > before; }));
        }
        EXPECT_GT(probe->renderer.drawnFrameCount(), drawn);
        test::waitFor([&] { return !probe->renderer.frameInFlight(); });
        return window->grabWindow().convertToFormat(QImage::Format_RGB32);
    }

    FixedViewportTrendSnapshot lineAt(double value, float x0 = 0, float x1 = 1) {
        FixedViewportTrendSnapshot snapshot = test::snapshotEndingAt(1000, 60, 1);
        FixedViewportTrendSeriesSnapshot series;
        series.color = kRed;
        const float y = static_cast<float>(1 - value / 105);
        series.segments = {{{x0, y}, {x1, y}}};
        snapshot.series.push_back(series);
        return snapshot;
    }

    std::unique_ptr<QQuickWindow> window;
    test::RendererProbeItem* probe = nullptr;
    int frames = 0;
};

TEST_F(RendererPixels, OneKnownSeriesDrawsItsColourWhereTheLineLiesAndNothingAboveIt) {
    probe->renderer.update(lineAt(50), kPlot, kLight);
    const QImage image = frame();
    const int row = rowOf(50);
    int redColumns = 0;
    for (int x = 30; x < 370; ++x)
        if (isRed(image.pixel(x, row)) || isRed(image.pixel(x, row - 1))) ++redColumns;
    EXPECT_EQ(redColumns, 340) << "the line covers the plot's width";
    int redAbove = 0;
    for (int y = 0; y < row - 3; ++y)
        for (int x = 0; x < 400; ++x) redAbove += isRed(image.pixel(x, y));
    EXPECT_EQ(redAbove, 0);
    test::keepFrameIfFailed(image, QStringLiteral("one_series"));
}

TEST_F(RendererPixels, GridLinesFromZeroToHundredLandOnTheirRowsOfTheChartRange) {
    probe->renderer.update(test::snapshotEndingAt(1000), kPlot, kLight);
    const QImage image = frame();
    // Column 200, top to bottom: the only non-white rows are the six grid lines.
    std::vector<int> darkRows;
    for (int y = 0; y < 300; ++y)
        if (qGray(image.pixel(200, y)) < 250) darkRows.push_back(y);
    std::vector<int> lines;
    for (int y : darkRows)
        if (lines.empty() || y > lines.back() + 1) lines.push_back(y);
    ASSERT_EQ(lines.size(), 6u) << "a snapshot without series, bands or ticks: six lines only";
    const double values[] = {100, 80, 60, 40, 20, 0};
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(lines[i], rowOf(values[i]), 1) << values[i];
    test::keepFrameIfFailed(image, QStringLiteral("grid_rows"));
}

TEST_F(RendererPixels, AThrottleBandTintsItsIntervalInsideThePlot) {
    FixedViewportTrendSnapshot snapshot = test::snapshotEndingAt(1000);
    snapshot.throttleBands.push_back({0.25f, 0.5f, {0, 0, 1, 0.5f}});
    probe->renderer.update(snapshot, kPlot, kLight);
    const QImage image = frame();
    auto tinted = [&](int x, int y) {
        const QRgb p = image.pixel(x, y);
        return qBlue(p) > 200 && qRed(p) < 180;
    };
    EXPECT_TRUE(tinted(115, 100));
    EXPECT_TRUE(tinted(195, 200));
    EXPECT_FALSE(tinted(105, 100)) << "left of the band";
    EXPECT_FALSE(tinted(205, 100)) << "right of the band";
    EXPECT_FALSE(tinted(150, 10)) << "above the plot: clipped";
    test::keepFrameIfFailed(image, QStringLiteral("throttle_band"));
}

int leftEdgeOfBlue(const QImage& image, int row) {
    for (int x = 0; x < image.width(); ++x)
        if (qBlue(image.pixel(x, row)) > 200 && qRed(image.pixel(x, row)) < 60) return x;
    return -1;
}

TEST_F(RendererPixels, ChangingTheShiftMovesTheContentLeftWithoutRebuildingGeometry) {
    FixedViewportTrendSnapshot snapshot = test::snapshotEndingAt(1000);
    snapshot.throttleBands.push_back({0.5f, 0.6f, {0, 0, 1, 1}});
    probe->renderer.update(snapshot, kPlot, kLight);
    const QImage before = frame();
    const auto rebuilds = probe->renderer.geometryRebuildCount();
    const auto drawn = probe->renderer.drawnFrameCount();
    probe->renderer.setShiftPixels(30);
    const QImage after = frame();
    EXPECT_EQ(leftEdgeOfBlue(before, 100), 200);
    EXPECT_EQ(leftEdgeOfBlue(after, 100), 170);
    EXPECT_EQ(probe->renderer.geometryRebuildCount(), rebuilds);
    EXPECT_GT(probe->renderer.drawnFrameCount(), drawn);
    // The horizontal grid does not scroll. A one-pixel line on a pixel boundary lands on the
    // row above or below depending on the graphics API's rasterisation rules.
    int darkest = 255;
    for (int y = rowOf(100) - 1; y <= rowOf(100) + 1; ++y)
        darkest = std::min(darkest, qGray(after.pixel(30, y)));
    EXPECT_LT(darkest, 250);
    test::keepFrameIfFailed(before, QStringLiteral("shift_before"));
    test::keepFrameIfFailed(after, QStringLiteral("shift_after"));
}

TEST_F(RendererPixels, TheLiveRevealUncoversTheNewestStretchAsItsProgressGrows) {
    // 6 s of reveal in a 60 s window: the stretch past the content's right edge is a tenth of
    // the plot (36 px); scrolled fully in, it fills the plot's last 36 px.
    FixedViewportTrendSnapshot snapshot = lineAt(50, 0, 1.1f);
    snapshot.liveRevealDurationSeconds = 6;
    probe->renderer.update(snapshot, kPlot, kLight);
    probe->renderer.setShiftPixels(36);
    auto redInColumns = [](const QImage& image, int from, int to) {
        int count = 0;
        for (int x = from; x < to; ++x)
            count += isRed(image.pixel(x, rowOf(50))) || isRed(image.pixel(x, rowOf(50) - 1));
        return count;
    };
    probe->renderer.setLiveRevealProgress(0);
    const QImage hidden = frame();
    EXPECT_EQ(redInColumns(hidden, 100, 300), 200);
    EXPECT_EQ(redInColumns(hidden, 346, 380), 0) << "nothing of the newest stretch yet";
    probe->renderer.setLiveRevealProgress(0.5);
    const QImage half = frame();
    EXPECT_EQ(redInColumns(half, 346, 355), 9);
    EXPECT_EQ(redInColumns(half, 366, 380), 0);
    probe->renderer.setLiveRevealProgress(1);
    const QImage shown = frame();
    EXPECT_EQ(redInColumns(shown, 346, 380), 34);
    test::keepFrameIfFailed(hidden, QStringLiteral("reveal_0"));
    test::keepFrameIfFailed(half, QStringLiteral("reveal_half"));
    test::keepFrameIfFailed(shown, QStringLiteral("reveal_1"));
}

TEST_F(RendererPixels, DrawingWhileAFrameIsInFlightDrawsNothingAndKeepsTheFlag) {
    FixedViewportTrendRenderer renderer;
    renderer.update(lineAt(50), kPlot, kLight);
    QSGNode* root = renderer.draw(nullptr, nullptr, QSizeF(400, 300), kPlot);
    ASSERT_NE(root, nullptr);
    ASSERT_TRUE(renderer.frameInFlight());
    const auto drawn = renderer.drawnFrameCount();
    renderer.setShiftPixels(12);
    EXPECT_EQ(renderer.draw(root, nullptr, QSizeF(400, 300), kPlot), root);
    EXPECT_TRUE(renderer.frameInFlight());
    EXPECT_EQ(renderer.drawnFrameCount(), drawn);
    EXPECT_EQ(static_cast<TrendRootNode*>(root)->lineMaterial.uniforms.shiftPixels, 0.0f)
        << "the dropped frame wrote no uniforms";
    renderer.frameCompleted();
    renderer.draw(root, nullptr, QSizeF(400, 300), kPlot);
    EXPECT_EQ(static_cast<TrendRootNode*>(root)->lineMaterial.uniforms.shiftPixels, 12.0f);
    delete root;
}

TEST_F(RendererPixels, LabelTexturesAreCachedAndTheSixtyFifthEvictsTheFirst) {
    probe->renderer.update(test::snapshotEndingAt(1000), kPlot, kLight);
    std::vector<FixedViewportTrendLabelSprite> sprites;
    for (int i = 0; i < 65; ++i)
        sprites.push_back({"L" + std::to_string(i), QRectF(5 * i, 250, 20, 12), 1.0f});
    probe->renderer.updateXAxisLabelSprites(std::span(sprites).first(64), std::nullopt, kLight, 1);
    frame();
    ASSERT_EQ(probe->renderer.labelTextureCacheOrder().size(), 64u);
    EXPECT_EQ(probe->renderer.labelTextureCacheOrder().front().text, "L0");
    // Frame two shows L0 again and one new text: L0 goes anyway, as the first inserted.
    std::vector<FixedViewportTrendLabelSprite> next{sprites[0], sprites[64]};
    probe->renderer.updateXAxisLabelSprites(next, std::nullopt, kLight, 1);
    frame();
    const auto& order = probe->renderer.labelTextureCacheOrder();
    ASSERT_EQ(order.size(), 64u);
    EXPECT_EQ(order.front().text, "L1");
    EXPECT_EQ(order.back().text, "L64");
}

TEST_F(RendererPixels, ALabelWhoseTextureIsEvictedInTheFrameThatShowsItIsStillDrawn) {
    probe->renderer.update(test::snapshotEndingAt(1000), kPlot, kLight);
    const FixedViewportTrendLabelSprite shown{"12:34:56", QRectF(40, 250, 60, 16), 1.0f};
    // The shown label's texture is the first in the cache; 63 others fill it, drawn out of the
    // way below the measured area.
    std::vector<FixedViewportTrendLabelSprite> sprites{shown};
    for (int i = 1; i < 64; ++i)
        sprites.push_back({"F" + std::to_string(i), QRectF(4 * i, 280, 12, 12), 1.0f});
    probe->renderer.updateXAxisLabelSprites(sprites, std::nullopt, kLight, 1);
    frame();
    ASSERT_EQ(probe->renderer.labelTextureCacheOrder().front().text, "12:34:56");
    const auto ink = [&](const QImage& image) {
        int darkest = 255;
        for (int y = 250; y < 266; ++y)
            for (int x = 40; x < 100; ++x) darkest = std::min(darkest, qGray(image.pixel(x, y)));
        return 255 - darkest;
    };
    // Next frame: the same label and a new one, whose texture evicts the shown label's.
    const std::vector<FixedViewportTrendLabelSprite> next{shown,
                                                          {"new", QRectF(200, 280, 30, 12), 1.0f}};
    probe->renderer.updateXAxisLabelSprites(next, std::nullopt, kLight, 1);
    const QImage image = frame();
    ASSERT_EQ(probe->renderer.labelTextureCacheOrder().back().text, "new");
    EXPECT_NE(probe->renderer.labelTextureCacheOrder().front().text, "12:34:56")
        << "its texture left the cache in this frame";
    EXPECT_GT(ink(image), 60) << "the label is drawn with the texture it had";
}

// Magnified four times, a label sampled linearly ramps across each texel; nearest sampling
// would repeat every texel's value four times over.
TEST_F(RendererPixels, LabelTexturesAreSampledLinearly) {
    probe->renderer.update(test::snapshotEndingAt(1000), kPlot, kLight);
    const QImage texels = FixedViewportTrendRenderer::rasterizedLabelImage("8", kLight, 1)
                              .convertToFormat(QImage::Format_ARGB32_Premultiplied);
    ASSERT_FALSE(texels.isNull());
    const QRectF spriteFrame(40, 100, texels.width() * 4.0, texels.height() * 4.0);
    const FixedViewportTrendLabelSprite sprite{"8", spriteFrame, 1.0f};
    probe->renderer.updateXAxisLabelSprites(std::span(&sprite, 1), std::nullopt, kLight, 1);
    const QImage image = frame();
    // Neighbouring pixels inside the glyph that differ: with four pixels a texel, nearest
    // sampling changes value at most once in four steps.
    int steps = 0;
    int changes = 0;
    const QRect area = spriteFrame.toAlignedRect().intersected(image.rect());
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x < area.right(); ++x) {
            const int a = qGray(image.pixel(x, y));
            const int b = qGray(image.pixel(x + 1, y));
            if (a > 250 && b > 250) continue;  // background on both sides
            ++steps;
            if (std::abs(a - b) > 2) ++changes;
        }
    ASSERT_GT(steps, 40) << "the glyph is drawn";
    EXPECT_GT(changes, steps / 2) << changes << " of " << steps << " steps change value";
}

TEST_F(RendererPixels, ALabelSpriteDrawsItsTextScaledByItsOpacity) {
    probe->renderer.update(test::snapshotEndingAt(1000), kPlot, kLight);
    const QRectF frameRect(40, 250, 60, 16);
    auto ink = [&](float opacity) {
        const FixedViewportTrendLabelSprite sprite{"12:34:56", frameRect, opacity};
        probe->renderer.updateXAxisLabelSprites(std::span(&sprite, 1), std::nullopt, kLight, 1);
        const QImage image = frame();
        int darkest = 255;
        for (int y = 250; y < 266; ++y)
            for (int x = 40; x < 100; ++x) darkest = std::min(darkest, qGray(image.pixel(x, y)));
        return 255 - darkest;
    };
    const int full = ink(1);
    const int half = ink(0.5f);
    const int none = ink(0);
    EXPECT_GT(full, 60);
    EXPECT_NEAR(half, full / 2, 12);
    EXPECT_EQ(none, 0);
}

}  // namespace
}  // namespace kelvo

// What keeps a frame of the dashboard cheap where the GPU is Mesa's software rasteriser: no depth
// or stencil buffer to clear and test, text from the glyph cache rather than distance fields, and
// no item that paints a large area again on every frame, and option buttons that fill only the
// chosen option; the window's own clear shows the palette's background, in the light palette and
// after a switch to the dark one.
#include <QGuiApplication>
#include <QImage>
#include <QOpenGLContext>
#include <QPalette>
#include <QQuickGraphicsConfiguration>
#include <QSGRendererInterface>

#include "DesktopTestSupport.h"
#include "desktop/DashboardLayout.h"
#include "tools/screenshots/ScreenshotPalettes.h"

namespace kelvo::testing {
namespace {

using presentation::AppSurfaceSelection;

class DashboardRenderCost : public DesktopFixture {
protected:
    void TearDown() override {
        QGuiApplication::setPalette(QPalette());
        DesktopFixture::TearDown();
    }

    QImage grabAfterNextFrame() {
        settle();
        return window()->grabWindow();
    }

    // Visible items that fill more than a tenth of the window with a colour of their own.
    QStringList largeFills() const {
        QStringList found;
        const double windowArea = double(window()->width()) * window()->height();
        std::function<void(QQuickItem*)> visit = [&](QQuickItem* item) {
            for (QQuickItem* child : item->childItems()) {
                if (!child->isVisible() || child->opacity() <= 0) continue;
                if (child->inherits("QQuickRectangle") &&
                    child->property("color").value<QColor>().alpha() > 0) {
                    const QRectF shown =
                        child->mapRectToScene(QRectF(0, 0, child->width(), child->height()))
                            .intersected(QRectF(0, 0, window()->width(), window()->height()));
                    if (shown.width() * shown.height() > windowArea / 10)
                        found << QStringLiteral("'%1' %2x%3")
                                     .arg(child->objectName())
                                     .arg(shown.width())
                                     .arg(shown.height());
                }
                visit(child);
            }
        };
        visit(window()->contentItem());
        return found;
    }

    // The window's background at the left gutter and inside the trend card, beside its title.
    void expectBackgroundIs(const QColor& expected, const char* palette) {
        ASSERT_TRUE(waitFor([&] { return window()->color() == expected; }))
            << palette << ": the window's clear colour is "
            << window()->color().name().toStdString();
        const QImage shot = grabAfterNextFrame();
        const double scale = window()->effectiveDevicePixelRatio();
        QQuickItem* card = item(QStringLiteral("card-trend"));
        ASSERT_NE(card, nullptr);
        const QPointF inCard = card->mapToScene(
            QPointF(dashboard_layout::sectionCardContentPadding / 2, card->height() / 2));
        const QPointF inGutter(dashboard_layout::windowGutter / 2, inCard.y());
        for (const QPointF& at : {inGutter, inCard}) {
            const QColor seen = shot.pixelColor((at * scale).toPoint());
            EXPECT_EQ(seen.rgb(), expected.rgb())
                << palette << ": at " << at.x() << "," << at.y() << " the window shows "
                << seen.name().toStdString() << " instead of " << expected.name().toStdString();
        }
    }
};

TEST_F(DashboardRenderCost, TheWindowAsksForNoDepthOrStencilBufferAndHasNone) {
    openDashboard();
    settle();
    EXPECT_FALSE(window()->graphicsConfiguration().isDepthBufferEnabledFor2D());
    EXPECT_EQ(window()->format().depthBufferSize(), 0);
    EXPECT_EQ(window()->format().stencilBufferSize(), 0);
    QSGRendererInterface* renderer = window()->rendererInterface();
    ASSERT_NE(renderer, nullptr);
    if (renderer->graphicsApi() == QSGRendererInterface::OpenGL) {
        auto* context = static_cast<QOpenGLContext*>(
            renderer->getResource(window(), QSGRendererInterface::OpenGLContextResource));
        ASSERT_NE(context, nullptr);
        EXPECT_LE(context->format().depthBufferSize(), 0);
        EXPECT_LE(context->format().stencilBufferSize(), 0);
    }
}

TEST_F(DashboardRenderCost, EveryTextIsDrawnFromTheGlyphCache) {
    openDashboard();
    settle();
    EXPECT_EQ(QQuickWindow::textRenderType(), QQuickWindow::NativeTextRendering);
    int texts = 0;
    std::function<void(QQuickItem*)> visit = [&](QQuickItem* item) {
        for (QQuickItem* child : item->childItems()) {
            if (child->inherits("QQuickText")) {
                ++texts;
                // QQuickText::NativeRendering
                EXPECT_EQ(child->property("renderType").toInt(), 1)
                    << child->property("text").toString().toStdString();
            }
            visit(child);
        }
    };
    visit(window()->contentItem());
    EXPECT_GT(texts, 20) << "the dashboard's labels were visited";
}

TEST_F(DashboardRenderCost, NoItemPaintsALargeAreaAgainAndTheClearShowsThePalettesBackground) {
    openDashboard();
    settle();
    for (const AppSurfaceSelection surface :
         {AppSurfaceSelection::dashboard, AppSurfaceSelection::advanced,
          AppSurfaceSelection::capture}) {
        runtime->presentation()->setSelectedSurface(surface);
        settle();
        const QStringList fills = largeFills();
        EXPECT_TRUE(fills.isEmpty()) << presentation::rawValue(surface).toStdString() << ": "
                                     << fills.join(QStringLiteral(", ")).toStdString();
    }
    runtime->presentation()->setSelectedSurface(AppSurfaceSelection::dashboard);
    expectBackgroundIs(QGuiApplication::palette().color(QPalette::Active, QPalette::Window),
                       "light");
    QGuiApplication::setPalette(darkDesktopPalette());
    expectBackgroundIs(darkDesktopPalette().color(QPalette::Active, QPalette::Window), "dark");
}

// The style's button panel filled every option with a rounded gradient and an inner frame, drawn
// again with each frame of the chart: the option rows cost more than the rest of the top bar.
TEST_F(DashboardRenderCost, OnlyTheChosenOptionOfEachOptionRowIsFilled) {
    openDashboard();
    const QImage shot = grabAfterNextFrame();
    const double scale = window()->effectiveDevicePixelRatio();
    const QColor background = window()->color();
    const QStringList rows{QStringLiteral("dashboard-public-mode-system"),
                           QStringLiteral("dashboard-public-mode-enhanced"),
                           QStringLiteral("surface-selection-dashboard"),
                           QStringLiteral("surface-selection-advanced"),
                           QStringLiteral("surface-selection-capture"),
                           QStringLiteral("control-trend-window-oneMinute"),
                           QStringLiteral("control-trend-window-fiveMinutes")};
    int chosen = 0;
    for (const QString& name : rows) {
        QQuickItem* option = item(name);
        ASSERT_NE(option, nullptr) << name.toStdString();
        // Inside the border, clear of the centred title.
        const QPointF at = option->mapToScene(QPointF(4, option->height() / 2));
        const QColor seen = shot.pixelColor((at * scale).toPoint());
        const bool isChosen = option->property("checked").toBool();
        chosen += isChosen;
        if (isChosen)
            EXPECT_NE(seen.rgb(), background.rgb()) << name.toStdString() << " is not shown chosen";
        else
            EXPECT_EQ(seen.rgb(), background.rgb())
                << name.toStdString() << " is filled with " << seen.name().toStdString();
    }
    EXPECT_EQ(chosen, 3) << "one option of each row is chosen";
}

}  // namespace
}  // namespace kelvo::testing

// Text a user must read stands out from the window: every neutral-coloured label drawn on the
// window's background has a contrast of at least 4.5:1, in the light palette and the dark one.
// Coloured text (a series, a warning, a tint) carries its meaning in its hue and is left out.
#include <QGuiApplication>
#include <QPalette>
#include <QQuickItem>

#include "DesktopTestSupport.h"
#include "app/FanSettingsModel.h"
#include "tools/screenshots/ScreenshotPalettes.h"
#include "trend_render/TrendChartAppearance.h"

namespace kelvo::testing {
namespace {

constexpr double kMinimumContrast = 4.5;

class DashboardContrast : public DesktopFixture {
protected:
    void TearDown() override {
        QGuiApplication::setPalette(QPalette());
        DesktopFixture::TearDown();
    }

    static bool neutral(const QColor& c) {
        const double spread = std::max({c.redF(), c.greenF(), c.blueF()}) -
                              std::min({c.redF(), c.greenF(), c.blueF()});
        return spread < 0.08;
    }
    // Text inside a control sits on the control's own background, not the window's.
    static bool insideControl(const QQuickItem* item) {
        for (const QQuickItem* up = item->parentItem(); up; up = up->parentItem())
            if (up->inherits("QQuickControl")) return true;
        return false;
    }

    // Every visible neutral label on the window's background below the minimum, described.
    QStringList lowContrastLabels(int* checked) const {
        QStringList found;
        const QColor background = window()->color();
        std::function<void(QQuickItem*)> visit = [&](QQuickItem* item) {
            for (QQuickItem* child : item->childItems()) {
                if (!child->isVisible() || child->opacity() <= 0) continue;
                if (child->inherits("QQuickText") && !insideControl(child) &&
                    !child->property("text").toString().trimmed().isEmpty()) {
                    const QColor colour = child->property("color").value<QColor>();
                    if (neutral(colour)) {
                        ++*checked;
                        const double ratio = DashboardView::contrastRatio(colour, background);
                        if (ratio < kMinimumContrast)
                            found << QStringLiteral("'%1' (%2) %3:1")
                                         .arg(child->property("text").toString().left(30),
                                              colour.name())
                                         .arg(ratio, 0, 'f', 2);
                    }
                }
                visit(child);
            }
        };
        visit(window()->contentItem());
        return found;
    }

    void expectReadable(const char* palette) {
        settle();
        int checked = 0;
        const QStringList low = lowContrastLabels(&checked);
        EXPECT_GE(checked, 10) << palette << ": the dashboard's labels were found";
        EXPECT_TRUE(low.isEmpty())
            << palette << ": " << low.join(QStringLiteral("; ")).toStdString();
    }
};

TEST_F(DashboardContrast, SecondaryLabelsAreReadableOnBothPalettes) {
    for (const QPalette& palette : {QPalette(), darkDesktopPalette()}) {
        const QColor colour = DashboardView::secondaryTextColor(palette);
        EXPECT_GE(DashboardView::contrastRatio(colour, palette.color(QPalette::Window)),
                  kMinimumContrast)
            << colour.name().toStdString();
        // Still secondary: quieter than the window's own text.
        EXPECT_LT(DashboardView::contrastRatio(colour, palette.color(QPalette::Window)),
                  DashboardView::contrastRatio(palette.color(QPalette::WindowText),
                                               palette.color(QPalette::Window)));
    }
}

TEST_F(DashboardContrast, TheChartsTimeLabelsAreReadableOnBothPalettes) {
    // The renderer draws them itself, in a translucent text colour over the window.
    for (const QPalette& palette : {QPalette(), darkDesktopPalette()}) {
        const QColor label = TrendChartAppearance::fromPalette(palette).labelColor;
        const QColor back = palette.color(QPalette::Window);
        const double a = label.alphaF();
        const QColor shown =
            QColor::fromRgbF(static_cast<float>(label.redF() * a + back.redF() * (1 - a)),
                             static_cast<float>(label.greenF() * a + back.greenF() * (1 - a)),
                             static_cast<float>(label.blueF() * a + back.blueF() * (1 - a)));
        EXPECT_GE(DashboardView::contrastRatio(shown, back), kMinimumContrast)
            << shown.name().toStdString();
    }
}

TEST_F(DashboardContrast, EveryNeutralLabelReachesFourAndAHalfToOneLightAndDark) {
    openDashboard();
    expectReadable("light");
    QGuiApplication::setPalette(darkDesktopPalette());
    ASSERT_TRUE(waitFor([&] {
        return window()->color() == darkDesktopPalette().color(QPalette::Active, QPalette::Window);
    }));
    expectReadable("dark");
}

// The Fans pane is built when it is first shown: opened after the desktop turned dark, its
// controls take the dark palette, as the controls that were there before the switch do.
TEST_F(DashboardContrast, ControlsBuiltAfterTheDesktopTurnsDarkTakeTheDarkPalette) {
    openDashboard();
    QGuiApplication::setPalette(darkDesktopPalette());
    ASSERT_TRUE(waitFor([&] {
        return window()->color() == darkDesktopPalette().color(QPalette::Active, QPalette::Window);
    }));
    ASSERT_NE(runtime->fanSettings(), nullptr);
    runtime->fanSettings()->setPaneOpen(true);
    ASSERT_TRUE(waitFor([&] { return item(QStringLiteral("fans-choice-0-auto")) != nullptr; }));
    settle();
    const QColor expected = darkDesktopPalette().color(QPalette::Active, QPalette::ButtonText);
    for (const char* name : {"fans-choice-0-auto", "control-trend-window-oneMinute"}) {
        QQuickItem* control = item(QString::fromLatin1(name));
        ASSERT_NE(control, nullptr) << name;
        auto* palette = control->property("palette").value<QObject*>();
        ASSERT_NE(palette, nullptr) << name;
        EXPECT_EQ(palette->property("buttonText").value<QColor>().name().toStdString(),
                  expected.name().toStdString())
            << name;
    }
}

TEST(ContrastRatio, BlackOnWhiteIsTwentyOneAndAColourOnItselfIsOne) {
    EXPECT_NEAR(DashboardView::contrastRatio(Qt::black, Qt::white), 21.0, 1e-9);
    EXPECT_NEAR(DashboardView::contrastRatio(QColor(0x77, 0x77, 0x77), Qt::white), 4.48, 0.01);
    EXPECT_NEAR(DashboardView::contrastRatio(QColor(12, 200, 90), QColor(12, 200, 90)), 1.0, 1e-9);
}

}  // namespace
}  // namespace kelvo::testing

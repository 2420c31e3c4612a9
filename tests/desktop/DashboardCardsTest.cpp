// Every card of the dashboard is a QML file of its own: in the loaded window each card is one item
// made from its file, and on the surface that shows it the card has a size, lies inside the
// scrolled content where a user can scroll to it, and keeps to its own place beside the others.
#include <QQuickWindow>
#include <QRectF>
#include <algorithm>
#include <vector>

#include "DesktopTestSupport.h"
#include "app/AppPresentationStore.h"
#include "app/FanSettingsModel.h"
#include "app_common/Presentation.h"

namespace kelvo::testing {
namespace {

using presentation::AppSurfaceSelection;

constexpr double kTolerance = 0.5;

// A card's objectName and the file (without ".qml") it is made from.
struct CardFile {
    const char* objectName;
    const char* file;
};

// The cards a surface shows, top to bottom. The Peak Performance figure sits inside the trend
// card; every other card stands on its own.
struct Surface {
    AppSurfaceSelection selection;
    bool fansPaneOpen;
    std::vector<CardFile> cards;
};

const CardFile kTrend{"card-trend", "TrendCard"};
const CardFile kPeak{"trend-peak-performance", "PeakPerformanceCard"};
const CardFile kLive{"card-live-metrics", "LiveMetricsCard"};
const CardFile kAdvanced{"surface-advanced", "AdvancedDetailCard"};
const CardFile kFans{"surface-fans", "FansPane"};
const CardFile kCaptureRun{"surface-capture", "CaptureRunCard"};
const CardFile kBetaCapture{"card-capture-primary", "BetaCaptureCard"};

const std::vector<Surface>& surfaces() {
    static const std::vector<Surface> all = {
        {AppSurfaceSelection::dashboard, false, {kTrend, kLive, kBetaCapture}},
        {AppSurfaceSelection::advanced, true, {kTrend, kLive, kAdvanced, kFans, kBetaCapture}},
        {AppSurfaceSelection::capture, false, {kTrend, kLive, kCaptureRun, kBetaCapture}},
    };
    return all;
}

class DashboardCards : public DesktopFixture {
protected:
    QObject* scroller() const {
        return window()->rootObject()->findChild<QObject*>(QStringLiteral("dashboard-scroll"));
    }

    // Finds the card and waits until the layout has given it a size.
    QQuickItem* shownCard(const CardFile& card) {
        QQuickItem* found = item(QString::fromLatin1(card.objectName));
        EXPECT_NE(found, nullptr) << card.objectName;
        if (!found) return nullptr;
        EXPECT_TRUE(waitFor([&] {
            return found->isVisible() && found->width() > 0 && found->height() > 0;
        })) << card.objectName
            << " shows with a size";
        return found;
    }

    QRectF inContent(QQuickItem* card) const {
        auto* content = scroller()->property("contentItem").value<QQuickItem*>();
        return card->mapRectToItem(content, QRectF(0, 0, card->width(), card->height()));
    }

    // Scrolls the card's top into the window, as a user would, and checks that it shows there.
    void expectScrollsIntoView(QQuickItem* card) {
        QObject* flickable = scroller();
        const double maxY = std::max(0.0, flickable->property("contentHeight").toDouble() -
                                              flickable->property("height").toDouble());
        flickable->setProperty("contentX", 0.0);
        flickable->setProperty("contentY", std::clamp(inContent(card).top() - 8, 0.0, maxY));
        EXPECT_TRUE(waitFor([&] {
            const QPointF topLeft = card->mapToScene(QPointF(0, 0));
            return topLeft.x() >= 0 && topLeft.x() < window()->width() && topLeft.y() >= 0 &&
                   topLeft.y() < window()->height();
        })) << card->objectName().toStdString()
            << "'s top scrolls into the window";
    }
};

// QML names the type of an item made from a file after that file ("TrendCard_QMLTYPE_12").
TEST_F(DashboardCards, EveryCardIsAnItemMadeFromItsOwnFile) {
    openDashboard();
    ASSERT_NE(runtime->fanSettings(), nullptr);
    for (const Surface& surface : surfaces()) {
        SCOPED_TRACE(presentation::rawValue(surface.selection).toStdString());
        runtime->presentation()->setSelectedSurface(surface.selection);
        runtime->fanSettings()->setPaneOpen(surface.fansPaneOpen);
        for (const CardFile& card : surface.cards) {
            QQuickItem* found = item(QString::fromLatin1(card.objectName));
            ASSERT_NE(found, nullptr) << card.objectName;
            const QString type = QString::fromLatin1(found->metaObject()->className());
            EXPECT_TRUE(type.startsWith(QLatin1String(card.file) + QLatin1String("_QMLTYPE_")))
                << card.objectName << " is a " << type.toStdString() << ", not from " << card.file
                << ".qml";
        }
    }
}

// A surface's own detail is made when the surface is chosen and dropped when another one is:
// nothing of it is built, laid out or drawn while it cannot be seen.
TEST_F(DashboardCards, AHiddenSurfaceIsNotBuiltUntilItIsShown) {
    openDashboard();
    ASSERT_NE(runtime->fanSettings(), nullptr);
    for (const CardFile& card : {kAdvanced, kFans, kCaptureRun})
        EXPECT_EQ(item(QString::fromLatin1(card.objectName)), nullptr) << card.objectName;
    runtime->presentation()->setSelectedSurface(AppSurfaceSelection::advanced);
    EXPECT_NE(shownCard(kAdvanced), nullptr);
    EXPECT_EQ(item(QString::fromLatin1(kCaptureRun.objectName)), nullptr);
    runtime->fanSettings()->setPaneOpen(true);
    EXPECT_NE(shownCard(kFans), nullptr);
    runtime->fanSettings()->setPaneOpen(false);
    runtime->presentation()->setSelectedSurface(AppSurfaceSelection::capture);
    EXPECT_NE(shownCard(kCaptureRun), nullptr);
    EXPECT_TRUE(waitFor([&] {
        return item(QString::fromLatin1(kAdvanced.objectName)) == nullptr &&
               item(QString::fromLatin1(kFans.objectName)) == nullptr;
    })) << "the Advanced detail and the Fans pane are gone once hidden";
}

TEST_F(DashboardCards, OnEverySurfaceEachCardShowsInItsOwnPlaceInsideTheWindow) {
    openDashboard();
    ASSERT_NE(runtime->fanSettings(), nullptr);
    for (const Surface& surface : surfaces()) {
        SCOPED_TRACE(presentation::rawValue(surface.selection).toStdString());
        runtime->presentation()->setSelectedSurface(surface.selection);
        runtime->fanSettings()->setPaneOpen(surface.fansPaneOpen);
        std::vector<QQuickItem*> cards;
        for (const CardFile& card : surface.cards) {
            QQuickItem* found = shownCard(card);
            ASSERT_NE(found, nullptr);
            cards.push_back(found);
        }
        settle();
        const QRectF content(0, 0, scroller()->property("contentWidth").toDouble(),
                             scroller()->property("contentHeight").toDouble());
        for (size_t i = 0; i < cards.size(); ++i) {
            const char* name = surface.cards[i].objectName;
            const QRectF rect = inContent(cards[i]);
            EXPECT_TRUE(
                content.adjusted(-kTolerance, -kTolerance, kTolerance, kTolerance).contains(rect))
                << name << " at " << rect.x() << "," << rect.y() << " " << rect.width() << "x"
                << rect.height() << " outside the content " << content.width() << "x"
                << content.height();
            for (size_t j = 0; j < i; ++j)
                EXPECT_FALSE(rect.intersects(inContent(cards[j])))
                    << name << " overlaps " << surface.cards[j].objectName;
            expectScrollsIntoView(cards[i]);
        }
        // The Peak Performance figure belongs to the trend card, inside its frame.
        QQuickItem* peak = shownCard(kPeak);
        ASSERT_NE(peak, nullptr);
        EXPECT_TRUE(inContent(cards.front()).contains(inContent(peak)))
            << "the Peak Performance figure lies inside the trend card";
        expectScrollsIntoView(peak);
    }
}

}  // namespace
}  // namespace kelvo::testing

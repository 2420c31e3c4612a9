#include <QFuture>

#include "DesktopTestSupport.h"
#include "app_common/FanSettings.h"
#include "app_common/LoopCall.h"

namespace kelvo::testing {
namespace {

class FansPane : public DesktopFixture {
protected:
    FanSettingsModel* fans() const { return runtime->fanSettings(); }
    FanChoices engineChoices() {
        QFuture<FanChoices> future =
            loopCall(runtime->controlLoop(), [](ControlEngine& e) { return e.fanChoices(); });
        EXPECT_TRUE(waitFor([&] { return future.isFinished(); }));
        return future.isFinished() ? future.result() : FanChoices{};
    }
    ControlLimits engineLimits() {
        QFuture<ControlLimits> future =
            loopCall(runtime->controlLoop(), [](ControlEngine& e) { return e.config().limits; });
        EXPECT_TRUE(waitFor([&] { return future.isFinished(); }));
        return future.isFinished() ? future.result() : ControlLimits{};
    }
    // The row of the last simulated fan in the pane; -1 while none shows.
    qsizetype simulatedFanIndex() const {
        qsizetype index = -1;
        for (qsizetype i = 0; i < fans()->fans().size(); ++i)
            if (fans()->fans()[i].toMap().value("identity").toString().startsWith("Simulated fan"))
                index = i;
        return index;
    }
    // The simulated machine's fans show once the loop has ticked.
    void openWithFans() {
        openDashboard();
        ASSERT_TRUE(waitFor([&] { return simulatedFanIndex() >= 0; }));
    }
};

TEST_F(FansPane, TheAdvancedSurfaceOpensThePaneWithEveryFan) {
    openWithFans();
    EXPECT_FALSE(shown("surface-fans"));
    click("surface-selection-advanced");
    click("advanced-open-fans");
    ASSERT_TRUE(fans()->paneOpen());
    EXPECT_TRUE(shown("surface-fans"));
    const qsizetype count = fans()->fans().size();
    ASSERT_GT(count, 0);
    for (qsizetype i = 0; i < count; ++i) {
        const QString n = QString::number(i);
        QQuickItem* row = item("fans-row-" + n);
        ASSERT_NE(row, nullptr) << i;
        EXPECT_TRUE(row->isVisible()) << i;
        EXPECT_GT(row->width(), 0) << i;
        EXPECT_GT(row->height(), 0) << i;
        for (const QString id :
             {"fans-title-", "fans-rpm-", "fans-choice-", "fans-fixed-", "fans-min-", "fans-stop-",
              "fans-calibrate-", "fans-calibration-text-", "fans-coupling-"}) {
            QQuickItem* part = item(id + n);
            ASSERT_NE(part, nullptr) << id.toStdString() << i;
            EXPECT_TRUE(part->isVisible()) << id.toStdString() << i;
            EXPECT_GT(part->width(), 0) << id.toStdString() << i;
        }
        EXPECT_EQ(item("fans-title-" + n)->property("text").toString(),
                  fans()->fans()[i].toMap().value("title").toString());
        // Which die the fan cools, or that Kelvo has not measured it yet: always a line.
        const QString coupling = fans()->fans()[i].toMap().value("couplingText").toString();
        EXPECT_FALSE(coupling.isEmpty()) << i;
        EXPECT_EQ(item("fans-coupling-" + n)->property("text").toString(), coupling) << i;
        // Rows stack downwards in the list's order.
        if (i > 0) {
            EXPECT_GT(row->mapToScene(QPointF(0, 0)).y(),
                      item("fans-row-" + QString::number(i - 1))->mapToScene(QPointF(0, 0)).y());
        }
    }
    click("fans-close");
    EXPECT_FALSE(fans()->paneOpen());
    EXPECT_FALSE(shown("surface-fans"));
}

TEST_F(FansPane, AChoiceIsStoredAndReachesTheEngine) {
    openWithFans();
    fans()->setPaneOpen(true);
    const qsizetype index = simulatedFanIndex();
    ASSERT_GE(index, 0);
    const QString identity = fans()->fans()[index].toMap().value("identity").toString();
    settle();  // the pane is built when it opens and laid out on its first frame
    click("fans-choice-" + QString::number(index) + "-firmware");
    EXPECT_TRUE(waitFor(
        [&] { return fans()->fans()[index].toMap().value("choice").toString() == "firmware"; }));
    EXPECT_TRUE(
        item("fans-choice-" + QString::number(index) + "-firmware")->property("checked").toBool());
    settings->sync();
    const FanChoices stored = fan_settings::readChoices(*settings);
    ASSERT_TRUE(stored.contains(identity.toStdString()));
    EXPECT_EQ(stored.at(identity.toStdString()).kind, FanChoiceKind::firmware);
    EXPECT_TRUE(waitFor([&] {
        const FanChoices engine = engineChoices();
        return engine.contains(identity.toStdString()) &&
               engine.at(identity.toStdString()).kind == FanChoiceKind::firmware;
    }));

    ASSERT_TRUE(fans()->setChoice(identity, "fixed", 60));
    EXPECT_TRUE(waitFor([&] {
        const FanChoices engine = engineChoices();
        return engine.contains(identity.toStdString()) &&
               formatFanChoice(engine.at(identity.toStdString())) == "fixed 60";
    }));
    EXPECT_EQ(item("fans-fixed-" + QString::number(index))->property("value").toInt(), 60);
}

TEST_F(FansPane, TheStopSwitchSaysWhyItIsOffLimitsAndCalibrateReachesTheEngine) {
    openWithFans();
    fans()->setPaneOpen(true);
    settle();  // the pane is built when it opens and laid out on its first frame
    const qsizetype index = simulatedFanIndex();
    ASSERT_GE(index, 0);
    const QVariantMap fan = fans()->fans()[index].toMap();
    const QString n = QString::number(index);
    // The switch follows what the back-end knows of the fan, with the reason when off limits.
    EXPECT_EQ(item("fans-stop-" + n)->isEnabled(), fan.value("stopAvailable").toBool());
    EXPECT_EQ(item("fans-stop-" + n)->property("checked").toBool(),
              fan.value("stopWhenCool").toBool());
    EXPECT_EQ(item("fans-stop-note-" + n)->property("text").toString(),
              fan.value("stopNote").toString());
    if (!fan.value("stopAvailable").toBool()) {
        EXPECT_FALSE(fan.value("stopNote").toString().isEmpty());
    }
    EXPECT_TRUE(item("fans-calibration-text-" + n)->property("text").toString().contains("loud"));
    EXPECT_FALSE(item("fans-calibration-progress-" + n)->isVisible());
    // The button reaches the engine on the loop: it records what it does, or why it cannot.
    const std::string identity = fan.value("identity").toString().toStdString();
    click("fans-calibrate-" + n);
    EXPECT_TRUE(waitFor([&] {
        for (const RuntimeEvent& event : runtime->eventRing().recent(200))
            if (event.message.starts_with("Calibrating " + identity + ":") ||
                event.message.starts_with("Cannot calibrate " + identity + ":"))
                return true;
        return false;
    }));
}

// Where a line of text is drawn inside its item, in the scene: a wrapped text's item may be
// laid out taller than its lines, and they sit where its vertical alignment puts them.
double drawnCentreY(QQuickItem* text) {
    const double height = text->height();
    const double content = text->property("contentHeight").toDouble();
    double top = 0;
    switch (text->property("verticalAlignment").toInt()) {
        case Qt::AlignVCenter: top = (height - content) / 2; break;
        case Qt::AlignBottom: top = height - content; break;
        default: break;
    }
    return text->mapToScene(QPointF(0, top + content / 2)).y();
}

TEST_F(FansPane, TheStopSwitchsNoteSitsBesideItAndTheCalibrationTextBesideItsButton) {
    openWithFans();
    fans()->setPaneOpen(true);
    settle();
    const qsizetype index = simulatedFanIndex();
    ASSERT_GE(index, 0);
    const QString n = QString::number(index);
    ASSERT_TRUE(waitFor(
        [&] { return !item("fans-stop-note-" + n)->property("text").toString().isEmpty(); }));
    settle();
    for (auto [control, text] : {std::pair{"fans-stop-", "fans-stop-note-"},
                                 std::pair{"fans-calibrate-", "fans-calibration-text-"}}) {
        QQuickItem* beside = item(control + n);
        QQuickItem* words = item(text + n);
        ASSERT_TRUE(beside && words) << control;
        ASSERT_TRUE(words->isVisible()) << text;
        const double centre = beside->mapToScene(QPointF(0, beside->height() / 2)).y();
        // Within a quarter of a line: read as one row, not as a caption above the control.
        EXPECT_NEAR(drawnCentreY(words), centre,
                    words->property("font").value<QFont>().pixelSize() / 4.0)
            << text << " drawn at " << drawnCentreY(words) << ", its control's centre " << centre;
    }
}

TEST_F(FansPane, AnOutOfRangeLimitShowsItsRefusalAndAGoodOneReachesTheEngine) {
    openWithFans();
    fans()->setPaneOpen(true);
    EXPECT_FALSE(item("fans-limit-message")->isVisible());
    EXPECT_FALSE(fans()->setLimit("cpu", 20));
    EXPECT_TRUE(waitFor([&] { return item("fans-limit-message")->isVisible(); }));
    EXPECT_TRUE(
        item("fans-limit-message")->property("text").toString().contains("CPU quiet limit"));
    EXPECT_FALSE(settings->contains(fan_settings::cpuQuietKey));
    ASSERT_TRUE(fans()->setLimit("performance", 66));
    EXPECT_TRUE(waitFor([&] { return !item("fans-limit-message")->isVisible(); }));
    EXPECT_EQ(item("fans-limit-performance")->property("text").toString(), "66");
    EXPECT_TRUE(waitFor([&] { return engineLimits().performanceTargetC == 66; }));
}

TEST_F(FansPane, TheSharingSwitchIsStoredReachesTheEngineAndSaysWhatItMeans) {
    openWithFans();
    fans()->setPaneOpen(true);
    settle();  // the pane is built when it opens and laid out on its first frame
    QQuickItem* toggle = item("fans-share");
    QQuickItem* note = item("fans-share-note");
    QQuickItem* pane = item("surface-fans");
    ASSERT_NE(toggle, nullptr);
    ASSERT_NE(note, nullptr);
    ASSERT_NE(pane, nullptr);
    EXPECT_TRUE(toggle->isVisible());
    EXPECT_TRUE(toggle->property("checked").toBool());
    EXPECT_TRUE(note->property("text").toString().contains("raises first"));
    // The note sits beside the switch, inside the pane, and above the first fan's row.
    const QRectF paneRect = pane->mapRectToScene(pane->boundingRect());
    const QRectF toggleRect = toggle->mapRectToScene(toggle->boundingRect());
    const QRectF noteRect = note->mapRectToScene(note->boundingRect());
    EXPECT_GT(noteRect.height(), 0);
    EXPECT_GE(noteRect.left(), toggleRect.right());
    EXPECT_LE(noteRect.right(), paneRect.right() + 0.5);
    QQuickItem* firstRow = item("fans-row-0");
    ASSERT_NE(firstRow, nullptr);
    EXPECT_LE(std::max(toggleRect.bottom(), noteRect.bottom()),
              firstRow->mapToScene(QPointF(0, 0)).y() + 0.5);

    click("fans-share");
    EXPECT_TRUE(waitFor([&] { return !fans()->shareWork(); }));
    settings->sync();
    EXPECT_EQ(settings->value(fan_settings::shareKey).toString(), "off");
    EXPECT_TRUE(waitFor([&] {
        QFuture<bool> future = loopCall(runtime->controlLoop(),
                                        [](ControlEngine& e) { return e.config().shareAmongFans; });
        return waitFor([&] { return future.isFinished(); }) && !future.result();
    }));
    EXPECT_TRUE(waitFor([&] {
        for (const RuntimeEvent& event : runtime->eventRing().recent(200))
            if (event.message.starts_with("Sharing the work among the fans is off")) return true;
        return false;
    }));
    EXPECT_TRUE(note->property("text").toString().contains("one speed"));
    EXPECT_FALSE(toggle->property("checked").toBool());
    // Nothing is measured while it is off, so there is nothing to measure again.
    EXPECT_FALSE(item("fans-measure-again")->isEnabled());
}

TEST_F(FansPane, MeasureAgainReachesTheEngine) {
    openWithFans();
    fans()->setPaneOpen(true);
    settle();  // the pane is built when it opens and laid out on its first frame
    QQuickItem* button = item("fans-measure-again");
    ASSERT_NE(button, nullptr);
    EXPECT_TRUE(button->isVisible());
    EXPECT_TRUE(button->isEnabled());
    const QRectF buttonRect = button->mapRectToScene(button->boundingRect());
    const QRectF noteRect =
        item("fans-share-note")->mapRectToScene(item("fans-share-note")->boundingRect());
    const QRectF paneRect =
        item("surface-fans")->mapRectToScene(item("surface-fans")->boundingRect());
    EXPECT_GE(buttonRect.left(), noteRect.right());
    EXPECT_LE(buttonRect.right(), paneRect.right() + 0.5);
    click("fans-measure-again");
    EXPECT_TRUE(waitFor([&] {
        for (const RuntimeEvent& event : runtime->eventRing().recent(200))
            if (event.message.starts_with("Fan cooling measurements dropped as asked")) return true;
        return false;
    }));
}

// A stored choice that cannot be read is said on its row, and the fan is with the firmware.
TEST_F(FansPane, AStoredChoiceThatCannotBeReadIsSaidOnItsRow) {
    openWithFans();
    fans()->setPaneOpen(true);
    settle();  // the pane is built when it opens and laid out on its first frame
    const qsizetype index = simulatedFanIndex();
    ASSERT_GE(index, 0);
    const QString n = QString::number(index);
    const QString identity = fans()->fans()[index].toMap().value("identity").toString();
    EXPECT_FALSE(item("fans-status-" + n)->isVisible());
    settings->setValue(fan_settings::choicesKey,
                       QStringLiteral("{\"%1\":\"fixed 150\"}").arg(identity));
    settings->sync();
    fans()->reload();
    EXPECT_TRUE(waitFor([&] { return item("fans-status-" + n)->isVisible(); }));
    const QString said = item("fans-status-" + n)->property("text").toString();
    EXPECT_TRUE(said.startsWith("Stored choice: cannot be read ('fixed 150'"))
        << said.toStdString();
    EXPECT_TRUE(said.endsWith(".")) << said.toStdString();
    EXPECT_GT(item("fans-status-" + n)->height(), 0);
    EXPECT_EQ(fans()->fans()[index].toMap().value("choice").toString(), "firmware");
    // Set again from the pane: readable, and the row says nothing more.
    click("fans-choice-" + n + "-auto");
    EXPECT_TRUE(waitFor([&] { return !item("fans-status-" + n)->isVisible(); }));
}

}  // namespace
}  // namespace kelvo::testing

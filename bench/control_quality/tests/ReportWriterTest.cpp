// The targets' verdicts, on rows made by hand so that each line's outcome is known.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ReportWriter.h"

using namespace kelvo::quality;

namespace {

QualityRow row(const std::string& controller, const std::string& trace, double meanDb,
               double overCpuS = 0, double overGpuS = 0) {
    QualityRow r;
    r.machine = "m";
    r.trace = trace;
    r.controller = controller;
    r.meanDb = meanDb;
    r.overCpuLimitS = overCpuS;
    r.overGpuLimitS = overGpuS;
    r.overLimitS = std::max(overCpuS, overGpuS);
    return r;
}

std::string lineWith(const std::string& text, const std::string& a, const std::string& b) {
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.find(a) != std::string::npos && line.find(b) != std::string::npos) return line;
    return {};
}

}  // namespace

TEST(ReportWriter, QuietModesAreJudgedAgainstTheFloor) {
    std::vector<QualityRow> rows = {row("foresight", "compile", 40.0),
                                    row("quiet", "compile", 40.9),
                                    row("quietHybrid", "compile", 41.2)};
    for (auto& r : rows) r.sustainedLoad = true;
    rows[1].audibleChangesPerHour = 2;
    rows[2].audibleChangesPerHour = 2.5;
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    EXPECT_NE(lineWith(out.str(), "quiet ", "vs foresight").find("PASS"), std::string::npos)
        << out.str();
    const std::string hybrid = lineWith(out.str(), "quietHybrid", "vs foresight");
    EXPECT_NE(hybrid.find("FAIL; 1.2 dB above foresight"), std::string::npos) << hybrid;
    EXPECT_NE(lineWith(out.str(), "quiet ", "changes an hour:").find("PASS"), std::string::npos);
    EXPECT_NE(lineWith(out.str(), "quietHybrid", "changes an hour:").find("FAIL"),
              std::string::npos);
    // quietHybrid louder than quiet on a sustained trace.
    EXPECT_NE(lineWith(out.str(), "quietHybrid", "vs quiet").find("FAIL"), std::string::npos);
}

TEST(ReportWriter, TheFloorCheckNamesARowQuieterThanForesight) {
    std::vector<QualityRow> rows = {row("foresight", "game", 40.0), row("firmware", "game", 45.0),
                                    row("pid", "game", 39.5), row("limit-hold", "game", 38.0, 9)};
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    // pid kept the limits and was quieter: named. limit-hold crossed them: quieter is allowed.
    EXPECT_NE(lineWith(out.str(), "FAIL floor check", "pid 39.50 dB").find("m / game"),
              std::string::npos)
        << out.str();
    EXPECT_EQ(lineWith(out.str(), "floor check", "limit-hold"), "") << out.str();
    // Without the quieter row the check passes and says how many rows it looked at.
    rows.erase(rows.begin() + 2);
    std::ostringstream fine;
    EXPECT_TRUE(ReportWriter(rows).printTargets(fine)) << fine.str();
    EXPECT_NE(lineWith(fine.str(), "m / game", "1 rows keep the limits").find("PASS"),
              std::string::npos)
        << fine.str();
}

TEST(ReportWriter, SustainedLoadComesFromTheTraceNotItsName) {
    std::vector<QualityRow> rows = {row("quiet", "holiday-photos", 30.0),
                                    row("quietHybrid", "holiday-photos", 30.5)};
    std::ostringstream notJudged;
    EXPECT_TRUE(ReportWriter(rows).printTargets(notJudged)) << notJudged.str();
    EXPECT_NE(lineWith(notJudged.str(), "m / holiday-photos", "n/a: no sustained load"), "")
        << notJudged.str();
    for (auto& r : rows) r.sustainedLoad = true;
    std::ostringstream judged;
    EXPECT_FALSE(ReportWriter(rows).printTargets(judged));
    EXPECT_NE(lineWith(judged.str(), "holiday-photos", "quietHybrid 30.50 dB vs quiet 30.00 dB")
                  .find("FAIL"),
              std::string::npos)
        << judged.str();
}

TEST(ReportWriter, AtLightLoadTheQuietModesAreJudgedAgainstTheFirmware) {
    std::vector<QualityRow> rows = {row("firmware", "video-call", 30.0),
                                    row("quiet", "video-call", 32.0),
                                    row("quietHybrid", "video-call", 33.0)};
    rows[0].lightS = rows[1].lightS = rows[2].lightS = 1200;
    rows[0].lightMeanDb = 30.0;
    rows[1].lightMeanDb = 30.02;  // a tie
    rows[2].lightMeanDb = 31.0;
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    EXPECT_NE(lineWith(out.str(), "quiet ", "vs firmware  30.0 dB (+0.02) over 1200 light s")
                  .find("PASS"),
              std::string::npos)
        << out.str();
    EXPECT_NE(lineWith(out.str(), "quietHybrid", "light s").find("FAIL"), std::string::npos)
        << out.str();
    // A trace with less than a minute of light load has nothing to judge.
    for (auto& r : rows) r.lightS = 30;
    std::ostringstream none;
    ReportWriter(rows).printTargets(none);
    EXPECT_NE(lineWith(none.str(), "quietHybrid", "n/a: 30 s of light load"), "") << none.str();
}

// A firmware that is quiet through the light seconds may cross the limits later on the same
// trace, and the floor may be louder than it over those seconds: a failure says both, and keeps
// its verdict.
TEST(ReportWriter, ALightLoadFailureSaysWhatTheFirmwareAndTheFloorDidOnThatTrace) {
    std::vector<QualityRow> rows = {row("firmware", "mixed-day", 20.0, 421),
                                    row("foresight", "mixed-day", 26.0),
                                    row("quiet", "mixed-day", 30.0)};
    for (auto& r : rows) r.lightS = 350;
    rows[0].lightMeanDb = 16.3;
    rows[1].lightMeanDb = 18.5;
    rows[2].lightMeanDb = 24.6;
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    const std::string line = lineWith(out.str(), "quiet ", "light s");
    EXPECT_NE(
        line.find("(+8.30) over 350 light s: FAIL; foresight, under the limits, is +2.20 dB "
                  "over it there too; the firmware crosses the limits on this trace (CPU limit "
                  "421 s)"),
        std::string::npos)
        << line;
    // A floor quieter than the firmware there, or one over the limits itself, and a firmware
    // that keeps them: nothing to add.
    rows[0].overCpuLimitS = rows[0].overLimitS = 0;
    rows[1].lightMeanDb = 16.0;
    std::ostringstream plain;
    ReportWriter(rows).printTargets(plain);
    const std::string bare = lineWith(plain.str(), "quiet ", "light s");
    EXPECT_TRUE(bare.ends_with("over 350 light s: FAIL")) << bare;
    rows[1].lightMeanDb = 18.5;
    rows[1].overCpuLimitS = rows[1].overLimitS = 5;
    std::ostringstream floorOver;
    ReportWriter(rows).printTargets(floorOver);
    EXPECT_EQ(lineWith(floorOver.str(), "quiet ", "light s").find("foresight"), std::string::npos)
        << floorOver.str();
}

TEST(ReportWriter, AfterALaunchNoSecondIsLouderThanTheFirmwaresSameSecond) {
    std::vector<QualityRow> rows = {row("firmware", "render", 30.0), row("quiet", "render", 29.0),
                                    row("performance", "render", 35.0)};
    rows[0].secondDb.assign(200, 30.0);
    rows[1].secondDb.assign(200, 30.0);
    rows[1].secondDb[150] = 40;  // after the first two minutes: not this target's business
    rows[2].secondDb.assign(200, 30.0);
    rows[2].secondDb[9] = 32.5;
    rows[2].secondDb[10] = 31.0;
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    EXPECT_NE(lineWith(out.str(), "quiet ", "first 120 s").find("PASS"), std::string::npos)
        << out.str();
    EXPECT_NE(lineWith(out.str(), "performance", "first 120 s")
                  .find("FAIL; 2 s louder, most +2.5 dB at second 10"),
              std::string::npos)
        << out.str();
}

TEST(ReportWriter, CrossingALimitTheFloorKeepsIsMissedWhateverTheNoise) {
    std::vector<QualityRow> rows = {row("foresight", "idle-spikes", 40.0),
                                    row("quiet", "idle-spikes", 35.0, 3, 0)};
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    EXPECT_NE(out.str().find("over the limits (CPU limit 3 s) where foresight keeps them"),
              std::string::npos)
        << out.str();
}

TEST(ReportWriter, APeerThatCrossedALimitIsNamedInsteadOfCompared) {
    std::vector<QualityRow> rows = {row("quietHybrid", "game", 45.0),
                                    row("firmware", "game", 44.0, 0, 12),
                                    row("thinkfan", "game", 44.0), row("fancontrol", "game", 45.0)};
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    const std::string text = out.str();
    EXPECT_NE(lineWith(text, "vs firmware", "crossed the GPU limit 12 s").find("PASS"),
              std::string::npos)
        << text;
    EXPECT_NE(lineWith(text, "vs thinkfan", "dB").find("FAIL"), std::string::npos) << text;
    EXPECT_NE(lineWith(text, "vs fancontrol", "a tie").find("PASS"), std::string::npos) << text;
}

TEST(ReportWriter, PerformanceMustLeadAThrottlingFirmwareByFivePoints) {
    QualityRow firmware = row("firmware", "render", 40);
    firmware.throttledS = 300;
    firmware.retention = 0.93;
    QualityRow performance = row("performance", "render", 50);
    performance.retention = 0.995;
    std::ostringstream met;
    EXPECT_TRUE(ReportWriter({firmware, performance}).printTargets(met)) << met.str();
    firmware.retention = 0.96;  // over 95 %: five points above it cannot be had
    std::ostringstream noLead;
    EXPECT_TRUE(ReportWriter({firmware, performance}).printTargets(noLead));
    EXPECT_NE(noLead.str().find("keeps over 95%"), std::string::npos) << noLead.str();
    firmware.retention = 0.80;
    performance.retention = 0.83;
    std::ostringstream missed;
    EXPECT_FALSE(ReportWriter({firmware, performance}).printTargets(missed));
    EXPECT_NE(missed.str().find("FAIL; under 99%; only 3.0 points above firmware"),
              std::string::npos)
        << missed.str();
}

TEST(ReportWriter, EachFansSpeedIsInTheTableAndTheFanCsv) {
    QualityRow r = row("foresight", "game", 20);
    r.fanNames = {"CPU cooler fan", "Card \"fans\", both"};
    r.fanMeanRPM = {612.4, 1398.6};
    r.fanMeanDb = {8.25, 28.5};
    const ReportWriter writer({r});
    std::ostringstream table;
    writer.printTable(table);
    EXPECT_NE(table.str().find("each fan's mean rpm"), std::string::npos);
    EXPECT_NE(lineWith(table.str(), "foresight", "612 1399"), "") << table.str();

    const std::string path = ::testing::TempDir() + "/fans.csv";
    ASSERT_TRUE(writer.writeFanCsv(path));
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], ReportWriter::fanCsvHeader());
    EXPECT_EQ(lines[1], "m,foresight,game,1,\"CPU cooler fan\",612.4,8.250");
    EXPECT_EQ(lines[2], "m,foresight,game,2,\"Card \"\"fans\"\", both\",1398.6,28.500");
}

TEST(ReportWriter, KnowingTheFansMustBeatEveryOneDutyControllerThatKeepsTheLimits) {
    auto fans = [](QualityRow r, int n) {
        r.fanNames.assign(static_cast<std::size_t>(n), "fan");
        r.sustainedLoad = true;
        return r;
    };
    std::vector<QualityRow> rows = {
        fans(row("foresight", "game", 30.0), 2),
        fans(row("quiet", "game", 34.0), 2),
        // Quieter, but over a limit the learned row keeps: not the one to beat.
        fans(row("pid", "game", 31.0, 40), 2),
        fans(row("limit-hold", "game", 33.5), 2),
        fans(row("quiet-learned", "game", 31.4), 2),
        fans(row("quietHybrid-learned", "game", 32.0), 2),
    };
    std::ostringstream out;
    ReportWriter(rows).printTargets(out);
    const std::string quiet = lineWith(out.str(), "quiet-learned ", "quieter");
    EXPECT_NE(quiet.find("vs limit-hold 33.50 (2.10 dB quieter)"), std::string::npos) << quiet;
    EXPECT_NE(quiet.find("PASS"), std::string::npos) << quiet;
    const std::string hybrid = lineWith(out.str(), "quietHybrid-learned", "quieter");
    EXPECT_NE(hybrid.find("FAIL"), std::string::npos) << hybrid;
    // The floor is 3.5 dB under the one to beat: the failure is the row's own.
    EXPECT_EQ(hybrid.find("foresight itself"), std::string::npos) << hybrid;

    // Where the floor itself is not 2 dB under it, the line says no controller can pass.
    std::vector<QualityRow> tight = rows;
    tight.front().meanDb = 31.9;
    std::ostringstream bound;
    ReportWriter(tight).printTargets(bound);
    const std::string capped = lineWith(bound.str(), "quietHybrid-learned", "dB quieter)");
    EXPECT_NE(capped.find("FAIL; foresight itself is only 1.60 dB quieter: no controller can pass"),
              std::string::npos)
        << capped;

    // A fresh launch that learned enough within the trace to share the work is no one-duty
    // controller: not the one to beat, however quiet. The quiet mode with the sharing turned off
    // is.
    std::vector<QualityRow> learning = rows;
    learning.push_back(fans(row("quiet-one-duty", "game", 33.2), 2));
    for (QualityRow& r : learning)
        if (r.controller == "quiet") {
            r.meanDb = 32.0;
            r.sharedS = 300;
        }
    std::ostringstream shared;
    ReportWriter(learning).printTargets(shared);
    EXPECT_NE(lineWith(shared.str(), "quiet-learned ", "quieter").find("vs quiet-one-duty 33.20"),
              std::string::npos)
        << shared.str();
    learning[1].sharedS = 0;
    std::ostringstream oneDuty;
    ReportWriter(learning).printTargets(oneDuty);
    EXPECT_NE(lineWith(oneDuty.str(), "quiet-learned ", "quieter").find("vs quiet 32.00"),
              std::string::npos)
        << oneDuty.str();

    // One fan: nothing to share, so the same as the fresh launch.
    std::vector<QualityRow> one = {fans(row("quiet", "render", 40.0), 1),
                                   fans(row("quiet-learned", "render", 40.15), 1),
                                   fans(row("quietHybrid", "render", 40.0), 1),
                                   fans(row("quietHybrid-learned", "render", 40.5), 1)};
    std::ostringstream single;
    ReportWriter(one).printTargets(single);
    EXPECT_NE(lineWith(single.str(), "quiet-learned ", "(one fan)").find("PASS"), std::string::npos)
        << single.str();
    EXPECT_NE(lineWith(single.str(), "quietHybrid-learned", "(one fan)").find("FAIL"),
              std::string::npos);

    // Fans all alike: one duty is already the quietest share, so again the fresh launch.
    for (QualityRow& r : one) {
        r.fanNames.assign(2, "fan");
        r.fansAlike = true;
    }
    std::ostringstream twins;
    ReportWriter(one).printTargets(twins);
    EXPECT_NE(lineWith(twins.str(), "quiet-learned ", "(alike fans)").find("PASS"),
              std::string::npos)
        << twins.str();
    EXPECT_NE(lineWith(twins.str(), "quietHybrid-learned", "(alike fans)").find("FAIL"),
              std::string::npos);

    // ... and the fresh launch itself against the same launch with the sharing turned off: what
    // its probes cost where sharing cannot gain.
    one.push_back(fans(row("quiet-one-duty", "render", 39.85), 2));
    one.back().fansAlike = true;
    std::ostringstream probed;
    ReportWriter(one).printTargets(probed);
    EXPECT_NE(lineWith(probed.str(), "vs quiet-one-duty 39.85", "(alike fans)").find("PASS"),
              std::string::npos)
        << probed.str();
    one.back().meanDb = 39.7;
    std::ostringstream costly;
    ReportWriter(one).printTargets(costly);
    EXPECT_NE(lineWith(costly.str(), "vs quiet-one-duty 39.70", "(alike fans)").find("FAIL"),
              std::string::npos)
        << costly.str();
}

// A failing changes line says what the floor cost once held to the quiet ramp; a passing one, and
// one without that reference, say nothing more. Neither is one of the one-duty controllers the
// learned rows must beat.
TEST(ReportWriter, AChangesFailureSaysWhatTheFloorHeldToTheQuietRampCost) {
    auto fans = [](QualityRow r) {
        r.fanNames.assign(2, "fan");
        r.sustainedLoad = true;
        return r;
    };
    std::vector<QualityRow> rows = {
        fans(row("foresight", "game", 30.0)), fans(row("foresight-unheard", "game", 30.12)),
        fans(row("quiet", "game", 31.0)), fans(row("quietHybrid", "game", 31.0)),
        fans(row("quiet-learned", "game", 30.0))};
    rows[0].audibleChangesPerHour = 12;
    rows[1].audibleChangesPerHour = 0;
    rows[2].audibleChangesPerHour = 8;
    rows[3].audibleChangesPerHour = 2;
    std::ostringstream out;
    ReportWriter(rows).printTargets(out);
    const std::string quiet = lineWith(out.str(), "quiet ", "changes an hour:");
    EXPECT_NE(quiet.find("FAIL; foresight held to the quiet ramp: 0.0 an hour, +0.12 dB over "
                         "foresight"),
              std::string::npos)
        << quiet;
    const std::string hybrid = lineWith(out.str(), "quietHybrid ", "changes an hour:");
    EXPECT_NE(hybrid.find("PASS"), std::string::npos) << hybrid;
    EXPECT_EQ(hybrid.find("held to the quiet ramp"), std::string::npos) << hybrid;
    // The learned row is judged against quiet, the quietest one-duty controller here, not against
    // the held floor 0.12 dB over the floor.
    const std::string learned = lineWith(out.str(), "quiet-learned ", "quieter");
    EXPECT_NE(learned.find("vs quiet "), std::string::npos) << learned;

    rows.erase(rows.begin() + 1);
    std::ostringstream without;
    ReportWriter(rows).printTargets(without);
    const std::string bare = lineWith(without.str(), "quiet ", "changes an hour:");
    EXPECT_NE(bare.find("FAIL"), std::string::npos) << bare;
    EXPECT_EQ(bare.find("held to the quiet ramp"), std::string::npos) << bare;
}
